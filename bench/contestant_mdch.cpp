// This library, through its classes.
#include "datagrams.h"
#include "loads.h"

#include <algorithm>
#include <atomic>
#include <future>
#include <mdc_hlp_http_access.h>
#include <mdc_hlp_url_base.h>
#include <stdexcept>
#include <thread>

namespace {

using bench::Clock;
using bench::Options;
using bench::Report;

class LibraryStream : public bench::Stream
{
public:
    explicit LibraryStream(const Options& options) : m_options(options) {}

    void open(const std::string& url) override
    {
        mdch_UrlExtended_struct extended{};
        extended.caCertPath = m_options.trusted.empty() ? nullptr : m_options.trusted.c_str();
        const int error = mdch_OpenUrl(url.c_str(), MDCH_MODE_READ, &extended, m_stream);
        if (error != 0) {
            throw std::runtime_error("open: error " + std::to_string(error));
        }
    }

    std::size_t read(unsigned char* block, std::size_t size) override
    {
        const int count = m_stream->read(block, static_cast<unsigned>(size));
        if (count < static_cast<int>(size) && m_stream->error() != 0) {
            throw std::runtime_error("read: error " + std::to_string(m_stream->error()));
        }
        return static_cast<std::size_t>(count);
    }

    void seek(long long offset, std::size_t /*room*/) override
    {
        expectWorks(m_stream->seek(offset, SEEK_SET));
    }
    void skip(std::size_t count) override
    {
        expectWorks(m_stream->seek(static_cast<long long>(count), SEEK_CUR));
    }
    void close() override { m_stream->close(); }

    MdchUrlBase& url() { return *m_stream; }

    static void expectWorks(int result)
    {
        if (result != 0) {
            throw std::runtime_error("a call failed: " + std::to_string(result));
        }
    }

private:
    const Options& m_options;
    boost::shared_ptr<MdchUrlBase> m_stream;
};

std::unique_ptr<bench::Stream> makeStream(const Options& options)
{
    return std::make_unique<LibraryStream>(options);
}

// Streams that one thread reads without waiting, as they have something.
class ReadyStreams
{
public:
    explicit ReadyStreams(const Options& options) : m_options(options), m_block(options.block)
    {
        FD_ZERO(&m_numbers);
    }

    void open()
    {
        m_streams.push_back(std::make_unique<md::HttpAccess>());
        md::HttpAccess& stream = *m_streams.back();
        if (!m_options.trusted.empty()) {
            stream.setCaCertPath(m_options.trusted);
        }
        stream.fcntl(MDCH_FCNTL_NONBLOCKING);
        const int number = stream.open(m_options.url.c_str(), MDCH_MODE_READ);
        if (number < 0 || number >= FD_SETSIZE) {
            throw std::runtime_error("no number for select: " + std::to_string(number));
        }
        m_numberOf.push_back(number);
        FD_SET(number, &m_numbers);
        ++m_open;
    }

    void readAll(Report& report)
    {
        const int end = *std::max_element(m_numberOf.begin(), m_numberOf.end()) + 1;
        while (m_open > 0) {
            fd_set ready = m_numbers;
            timeval patience{60, 0};
            if (md::HttpAccess::select(end, &ready, nullptr, nullptr, &patience) <= 0) {
                throw std::runtime_error("no stream has anything");
            }
            for (std::size_t i = 0; i < m_streams.size(); ++i) {
                if (FD_ISSET(m_numberOf[i], &ready)) {
                    readFrom(i, report);
                }
            }
        }
    }

private:
    void readFrom(std::size_t index, Report& report)
    {
        md::HttpAccess& stream = *m_streams[index];
        const int count = stream.read(m_block.data(), static_cast<unsigned>(m_block.size()));
        report.addBytes(static_cast<std::size_t>(std::max(count, 0)));
        if (stream.eof() == 0) {
            return;
        }
        if (stream.error() != 0) {
            throw std::runtime_error("read: error " + std::to_string(stream.error()));
        }
        FD_CLR(m_numberOf[index], &m_numbers);
        --m_open;
        stream.close();
    }

    const Options& m_options;
    std::vector<unsigned char> m_block;
    std::vector<std::unique_ptr<md::HttpAccess>> m_streams;
    std::vector<int> m_numberOf;
    fd_set m_numbers{};
    int m_open = 0;
};

void readStreams(const Options& options, Report& report)
{
    bench::warmUp(makeStream, options, report);
    ReadyStreams streams(options);
    for (int i = 0; i < options.streams; ++i) {
        streams.open();
    }
    report.set("threads", static_cast<double>(bench::statusFigure("Threads")));
    streams.readAll(report);
}

// Nothing of it moves any more.
void waitUntilFull(const std::vector<std::unique_ptr<LibraryStream>>& streams)
{
    std::size_t before = 0;
    for (int unchanged = 0; unchanged < 10;) {
        std::size_t sum = 0;
        for (const std::unique_ptr<LibraryStream>& stream : streams) {
            std::size_t used = 0;
            std::size_t size = 0;
            dynamic_cast<md::HttpAccess&>(stream->url()).getBufferLevel(used, size);
            sum += used;
        }
        unchanged = sum == before ? unchanged + 1 : 0;
        before = sum;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

// One stream at full speed; beside it rest others, each second one paused, the others with a full buffer that nobody
// reads.
void readBesideResting(const Options& options, Report& report)
{
    std::vector<unsigned char> block(options.block);
    std::vector<std::unique_ptr<LibraryStream>> resting;
    for (int i = 0; i < options.paused; ++i) {
        resting.push_back(std::make_unique<LibraryStream>(options));
        resting.back()->open(options.url);
        resting.back()->read(block.data(), block.size());
        if (i % 2 == 0) {
            LibraryStream::expectWorks(resting.back()->url().pause());
        }
    }
    waitUntilFull(resting);
    report.restart();
    bench::pullLoads(makeStream).at("body")(options, report);
    report.stop();
}

// Reads its stream over and over until it is told to stop.
class BusyReader
{
public:
    explicit BusyReader(const Options& options)
        : m_done(std::async(std::launch::async, [this, &options] { readUntilStopped(options); }))
    {
    }
    ~BusyReader() { m_stop = true; } // and m_done waits
    BusyReader(const BusyReader&) = delete;
    BusyReader& operator=(const BusyReader&) = delete;

    void waitUntilReading()
    {
        while (m_bytes == 0) {
            expectReads();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    // Throws what ended it.
    void expectReads()
    {
        if (m_done.wait_for(std::chrono::seconds(0)) == std::future_status::ready) {
            m_done.get();
        }
    }

private:
    void readUntilStopped(const Options& options)
    {
        std::vector<unsigned char> block(options.block);
        while (!m_stop) {
            LibraryStream stream(options);
            stream.open(options.url);
            std::size_t count = block.size();
            while (count == block.size() && !m_stop) {
                count = stream.read(block.data(), block.size());
                m_bytes += static_cast<long long>(count);
            }
            stream.close();
        }
    }

    std::atomic<bool> m_stop{false};
    std::atomic<long long> m_bytes{0};
    std::future<void> m_done; // last: what it runs uses the others
};

template <class Call>
void timed(Report& report, const char* name, Call call)
{
    const Clock::time_point start = Clock::now();
    LibraryStream::expectWorks(call());
    report.addLatency(name, bench::secondsSince(start) * 1e6);
}

// What a user's key press costs while others stream.
void callBesideBusy(const Options& options, Report& report)
{
    std::vector<std::unique_ptr<BusyReader>> readers;
    for (int i = 0; i < options.streams; ++i) {
        readers.push_back(std::make_unique<BusyReader>(options));
    }
    for (const std::unique_ptr<BusyReader>& reader : readers) {
        reader->waitUntilReading();
    }
    std::vector<unsigned char> block(options.block);
    LibraryStream stream(options);
    stream.open(options.url);
    report.restart();
    for (const long long offset : bench::seekOffsets(options, 2 * block.size())) {
        timed(report, "seek", [&] { return stream.url().seek(offset, SEEK_SET); });
        report.addBytes(stream.read(block.data(), block.size()));
        timed(report, "pause", [&] { return stream.url().pause(); });
        timed(report, "resume", [&] { return stream.url().resume(); });
        report.addBytes(stream.read(block.data(), block.size()));
    }
    report.stop();
    stream.close();
    for (const std::unique_ptr<BusyReader>& reader : readers) {
        reader->expectReads();
    }
}

void receiveDatagrams(const Options& options, Report& report)
{
    const std::unique_ptr<MdchUrlBase> stream(MdchUrlBase::createInstance(options.url.c_str()));
    LibraryStream::expectWorks(stream->open(options.url.c_str(), MDCH_MODE_READ));
    bench::receiveDatagrams(options, report, [&stream](unsigned char* block, std::size_t size) {
        return static_cast<std::size_t>(std::max(stream->read(block, static_cast<unsigned>(size)), 0));
    });
    stream->close();
}

} // namespace

int main(int argc, char** argv)
{
    bench::Loads loads = bench::pullLoads(makeStream);
    loads["streams"] = readStreams;
    loads["resting"] = readBesideResting;
    loads["calls"] = callBesideBusy;
    loads["datagrams"] = receiveDatagrams;
    return bench::runContestant("mdch", loads, argc, argv);
}
