// Streams without the engine: files, media volumes, datagrams.
#include "each_call.h"
#include "mdc_hlp_url.h"
#include "mdc_hlp_url_base.h"
#include "mdc_hlp_url_nvol2.h"
#include "nvol2.h"
#include "support/media.h"
#include "support/temp_dir.h"
#include "support/udp_socket.h"
#include "support/volume.h"

#include <boost/shared_ptr.hpp>
#include <cerrno>
#include <gtest/gtest.h>
#include <vector>

namespace {

using faults::inLibrary;
using faults::Kind;
using faults::Outcome;
using support::Media;

constexpr std::size_t kSize = 20'000;

// Opens, and tells whether the error is one: what an open gives stands in the record, too.
Outcome open(const std::string& url, int mode, int flags, boost::shared_ptr<MdchUrlBase>& stream)
{
    mdch_UrlExtended_struct options{};
    options.flags = flags;
    int result = 0;
    if (!inLibrary([&] { result = mdch_OpenUrl(url.c_str(), mode, &options, stream); })) {
        return Outcome::failed("no memory to open");
    }
    if (result == 0) {
        return {};
    }
    return options.error == result ? Outcome::failed("opening gives " + std::to_string(result))
                                   : Outcome::wrong("the record holds " + std::to_string(options.error));
}

// Reads a file of known bytes through a stream, with a seek.
Outcome readFile(const std::string& url, int flags, const std::string& content)
{
    boost::shared_ptr<MdchUrlBase> stream;
    Outcome outcome = open(url, MDCH_MODE_READ, flags, stream);
    if (!outcome.isRight()) {
        return outcome;
    }
    std::vector<unsigned char> buffer(content.size());
    long long size = 0;
    int moved = 0;
    int count = 0;
    int error = 0;
    long long place = 0;
    const bool quiet = inLibrary([&] {
        size = stream->size();
        moved = stream->seek(1'000, SEEK_SET);
        count = stream->read(buffer.data(), 5'000);
        error = stream->error();
        place = stream->tell();
        stream->close();
    });
    if (!quiet) {
        return Outcome::wrong("an operation throws");
    }
    const std::string bytes(buffer.begin(), buffer.begin() + std::max(count, 0));
    if (moved != 0) {
        return Outcome::failed("the seek fails");
    }
    if (bytes != content.substr(1'000, bytes.size())) {
        return Outcome::wrong("wrong bytes");
    }
    if (count != 5'000) {
        return error != 0 ? Outcome::failed("the read fails") : Outcome::wrong("a short read, and no error");
    }
    if (size < 0 || place < 0) {
        return Outcome::failed("size or place are not known");
    }
    return size == static_cast<long long>(content.size()) && place == 6'000
               ? Outcome()
               : Outcome::wrong("wrong size or place");
}

TEST(FileFaults, ofReading)
{
    const support::TempDir folder;
    const std::string content = Media(3).bytes(0, kSize);
    const std::string path = folder.write("film.ts", content);
    for (const Kind kind : {Kind::kMemory, Kind::kDescriptor, Kind::kFileFacts}) {
        faults::eachCallFails(kind, [&] { return readFile("file://" + path, 0, content); });
    }
}

// The handle of a failed open is none, and uses no number up.
TEST(FileFaults, ofHandles)
{
    const support::TempDir folder;
    const std::string path = folder.write("film.ts", Media(3).bytes(0, kSize));
    unsigned int last = 0;
    const auto scenario = [&]() -> Outcome {
        unsigned int handle = 0;
        int closed = -1;
        if (!inLibrary([&] { handle = mdch_UrlOpen(path.c_str(), MDCH_MODE_READ); }) || handle == 0) {
            return Outcome::failed("no handle");
        }
        if (handle != last + 1) {
            return Outcome::wrong("a handle was skipped");
        }
        last = handle;
        unsigned char byte = 0;
        int count = 0;
        inLibrary([&] {
            count = mdch_UrlRead(handle, &byte, 1);
            closed = mdch_UrlClose(handle);
        });
        return count == 1 && closed == 0 ? Outcome() : Outcome::wrong("an open handle that does not read");
    };
    faults::eachCallFails(Kind::kMemory, scenario, {1, false, 5});
    faults::eachCallFails(Kind::kDescriptor, scenario);
}

TEST(VolumeFaults, ofReading)
{
    const support::Volume volume("a-uuid-beyond-any-small-text");
    const std::string content = Media(4).bytes(0, kSize);
    volume.dir().write("a-film-with-a-name-beyond-small-texts.ts", content);
    const std::string url = volume.url("a-film-with-a-name-beyond-small-texts.ts");
    for (const int flags : {0, static_cast<int>(MDCH_URL_NATIVE_PATH)}) {
        for (const Kind kind : {Kind::kMemory, Kind::kDescriptor, Kind::kFileFacts}) {
            faults::eachCallFails(kind, [&] { return readFile(url, flags, content); });
        }
    }
}

// Every failure on the way to the mounted devices is one of the list; none makes up a volume.
TEST(VolumeFaults, ofTheListOfVolumes)
{
    const support::Volume volume;
    const auto scenario = [&]() -> Outcome {
        std::vector<int> ids(100);
        int count = 0;
        nvol2Media_struct record{};
        int got = 0;
        if (!inLibrary([&] {
                count = nvol2MediaIDList(ids.data(), 100);
                got = nvol2MediaGet(volume.id(), &record);
            })) {
            return Outcome::wrong("the service throws");
        }
        if (count < 0 || got < 0) {
            return Outcome::failed("no list");
        }
        return count >= 1 && std::string(record.accessPath) == volume.accessPath()
                   ? Outcome()
                   : Outcome::wrong("the registered volume is missing");
    };
    faults::eachCallFails(Kind::kMemory, scenario, {1, false, 5});
    faults::eachCallFails(Kind::kMounts, scenario, {1, false, 3});
    faults::eachCallFails(Kind::kFileFacts, scenario);
    faults::eachCallFails(Kind::kDescriptor, scenario);
}

TEST(VolumeFaults, ofRegistering)
{
    const support::TempDir folder;
    const auto scenario = [&]() -> Outcome {
        int added = 0;
        int found = 0;
        int removed = 0;
        if (!inLibrary([&] {
                added = nvol2VolumeAdd("another-uuid-beyond-any-small-text", folder.path().c_str());
                found = nvol2MediaIDGetByUUID("ANOTHER-uuid-beyond-any-small-text");
            })) {
            return Outcome::wrong("the service throws");
        }
        inLibrary([&] { removed = nvol2VolumeRemove("another-uuid-beyond-any-small-text"); });
        if (added > 0 && removed != 0) {
            removed = nvol2VolumeRemove("another-uuid-beyond-any-small-text");
            return removed == 0 ? Outcome::failed("removing fails") : Outcome::wrong("it cannot be removed");
        }
        if (added < 0 || found < 0) {
            return Outcome::failed("not registered");
        }
        return added == found ? Outcome() : Outcome::wrong("another ID");
    };
    for (const Kind kind : {Kind::kMemory, Kind::kFileFacts}) {
        faults::eachCallFails(kind, scenario);
    }
}

TEST(UdpFaults, ofReceiving)
{
    const std::string address = support::ownLoopbackAddress();
    const std::uint16_t port = support::UdpReceiver(address, 0, support::UdpPort::alone).port();
    const std::string url = "udp://source-beyond-any-small-text@" + address + ":" + std::to_string(port);
    const auto scenario = [&]() -> Outcome {
        boost::shared_ptr<MdchUrlBase> stream;
        Outcome outcome = open(url, MDCH_MODE_READ, 0, stream);
        if (!outcome.isRight()) {
            return outcome;
        }
        support::UdpSender(address, port).send("datagram");
        std::vector<unsigned char> buffer(100);
        int count = 0;
        if (!inLibrary([&] { count = stream->read(buffer.data(), 100); })) {
            return Outcome::wrong("a read throws");
        }
        inLibrary([&] { stream->close(); });
        if (count == 0) {
            return Outcome::failed("nothing comes");
        }
        return std::string(buffer.begin(), buffer.begin() + count) == "datagram"
                   ? Outcome()
                   : Outcome::wrong("other bytes");
    };
    for (const Kind kind : {Kind::kMemory, Kind::kDescriptor, Kind::kNetwork}) {
        faults::eachCallFails(kind, scenario);
    }
}

} // namespace
