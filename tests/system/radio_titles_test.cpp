// Titles of a real radio station that change while it plays, and audio of which every byte is known.
#include "support_icecast.h"

#include "mdc_hlp_icy.h"
#include "mdc_hlp_url_base.h"
#include "support/media.h"
#include "support/scripted_stream.h"
#include "support/slow_icy.h"
#include "support/sockets.h"

#include <algorithm>
#include <boost/make_shared.hpp>
#include <condition_variable>
#include <cstdint>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using testing::HasSubstr;

constexpr int kInterval = 16000;
const support::Media kSound(51);

// Plays known bytes on a mount: so much at once, then as the listener goes on.
class Source
{
public:
    Source(const support::Icecast& station, const std::string& mount) : m_client(station.port())
    {
        m_client.send("SOURCE " + mount + " HTTP/1.0\r\nAuthorization: Basic " +
                      support::Icecast::sourceCredentials + "\r\nContent-Type: audio/mpeg\r\n\r\n");
        m_accepted = m_client.readUntil("\r\n\r\n").find(" 200 ") != std::string::npos;
        m_thread = std::thread([this] { run(); });
    }
    ~Source()
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_done = true;
        }
        m_changed.notify_all();
        m_thread.join();
    }
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    bool isAccepted() const { return m_accepted; }

    // How far the listener is.
    void setHeard(std::uint64_t position)
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_heard = std::max(m_heard, position);
        }
        m_changed.notify_all();
    }

private:
    // More than station and stream hold back together, and less than makes the station drop a slow listener.
    static constexpr std::uint64_t kAhead = 400000;
    static constexpr std::size_t kPiece = 4000;

    void run()
    {
        for (std::uint64_t position = 0;; position += kPiece) {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_changed.wait(lock, [this, position] { return m_done || position < m_heard + kAhead; });
            if (m_done) {
                return;
            }
            lock.unlock();
            if (!m_client.send(kSound.bytes(position, kPiece))) {
                return;
            }
        }
    }

    support::RawClient m_client;
    bool m_accepted = false;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::uint64_t m_heard = 0; // guarded by m_mutex
    bool m_done = false;       // guarded by m_mutex
    std::thread m_thread;
};

// Keeps what a stream gives, as it gives it.
class Tap : public support::ScriptedStream
{
public:
    explicit Tap(boost::shared_ptr<MdchUrlBase> stream) : ScriptedStream(""), m_stream(std::move(stream)) {}

    const std::string& bytes() const { return m_bytes; }

    int read(unsigned char* buffer, unsigned int size) override
    {
        const int count = m_stream->read(buffer, size);
        m_bytes.append(buffer, buffer + std::max(count, 0));
        return count;
    }

private:
    boost::shared_ptr<MdchUrlBase> m_stream;
    std::string m_bytes;
};

class RadioTitles : public testing::Test
{
protected:
    void tune(const std::string& mount)
    {
        m_mount = mount;
        m_source = std::make_unique<Source>(m_station, mount);
        ASSERT_TRUE(m_source->isAccepted());
        mdch_UrlExtended_struct options{};
        options.flags = MDCH_URL_ICY_METADATA;
        boost::shared_ptr<MdchUrlBase> stream;
        const std::string url = m_station.url(mount);
        ASSERT_EQ(mdch_OpenUrl(url.c_str(), MDCH_MODE_READ, &options, stream), 0);
        ASSERT_EQ(options.icyMetaInt, kInterval);
        m_tap = boost::make_shared<Tap>(stream);
        m_radio = std::make_unique<md::IcyReader>(m_tap, options.icyMetaInt);
        findTheStart();
    }

    // Reads on; every byte is the one that the source sent there.
    void listen(unsigned int size)
    {
        std::string bytes(size, '\0');
        const long long position = m_radio->tell();
        ASSERT_EQ(m_radio->read(reinterpret_cast<unsigned char*>(bytes.data()), size),
                  static_cast<int>(size));
        const std::uint64_t place = m_start + static_cast<std::uint64_t>(position);
        ASSERT_TRUE(kSound.matches(place, bytes)) << "at " << position;
        m_source->setHeard(place + size);
        const std::vector<md::IcyTitle> changes = m_radio->takeChanges();
        m_changes.insert(m_changes.end(), changes.begin(), changes.end());
    }

    // Announces a song and listens until it comes.
    void change(const std::string& query, const std::string& title)
    {
        constexpr int kMostReads = 300; // 3 MB: more than lies between the source and the listener
        ASSERT_TRUE(m_station.announce(m_mount, query));
        for (int i = 0; i < kMostReads && m_radio->title() != title; ++i) {
            ASSERT_NO_FATAL_FAILURE(listen(10007));
        }
        ASSERT_EQ(m_radio->title(), title);
    }

    // The whole of what was read, taken apart once more.
    void compareWithTheSlowReader() const
    {
        const support::SlowIcy expected = support::slowIcy(m_tap->bytes(), kInterval);
        EXPECT_EQ(m_radio->tell(), static_cast<long long>(expected.audio.size()));
        ASSERT_EQ(m_changes.size(), expected.changes.size());
        for (std::size_t i = 0; i < m_changes.size(); ++i) {
            EXPECT_EQ(m_changes[i].position, expected.changes[i].position);
            EXPECT_EQ(m_changes[i].title, expected.changes[i].title);
            EXPECT_EQ(m_changes[i].url, expected.changes[i].url);
            EXPECT_EQ(m_changes[i].position % kInterval, 0);
        }
    }

    const std::string& raw() const { return m_tap->bytes(); }

    support::Icecast m_station;
    std::unique_ptr<Source> m_source;
    std::string m_mount;
    boost::shared_ptr<Tap> m_tap;
    std::unique_ptr<md::IcyReader> m_radio;
    std::vector<md::IcyTitle> m_changes;
    std::uint64_t m_start = 0; // of the source's bytes, where the listener came in

private:
    // A listener comes in among the latest bytes.
    void findTheStart()
    {
        constexpr std::size_t kSample = 1000;
        std::string bytes(kSample, '\0');
        ASSERT_EQ(m_radio->read(reinterpret_cast<unsigned char*>(bytes.data()), kSample),
                  static_cast<int>(kSample));
        const std::size_t found = kSound.bytes(0, 1000000).find(bytes);
        ASSERT_NE(found, std::string::npos) << "these bytes come from nowhere";
        m_start = found;
        m_source->setHeard(m_start + kSample);
    }
};

TEST_F(RadioTitles, changeInLatin1AndArriveInUtf8)
{
    ASSERT_NO_FATAL_FAILURE(tune("/known.mp3"));
    ASSERT_NO_FATAL_FAILURE(change("song=Plain%20-%20Title", "Plain - Title"));
    ASSERT_NO_FATAL_FAILURE(
        change("song=Bj%C3%B6rk%20-%20J%C3%B3ga&charset=UTF-8", "Bj\xc3\xb6rk - J\xc3\xb3ga"));
    EXPECT_THAT(raw(), HasSubstr("StreamTitle='Bj\xf6rk - J\xf3ga';"));
    ASSERT_NO_FATAL_FAILURE(change("song=M%F6tley%20Cr%FCe", "M\xc3\xb6tley Cr\xc3\xbc"
                                                             "e"));
    EXPECT_THAT(raw(), HasSubstr("StreamTitle='M\xf6tley Cr\xfc"
                                 "e';"));
    ASSERT_NO_FATAL_FAILURE(listen(65536));
    compareWithTheSlowReader();
}

TEST_F(RadioTitles, changeInUtf8AndPass)
{
    ASSERT_NO_FATAL_FAILURE(tune(support::Icecast::utf8Mount));
    ASSERT_NO_FATAL_FAILURE(change("song=Bj%C3%B6rk%20-%20J%C3%B3ga", "Bj\xc3\xb6rk - J\xc3\xb3ga"));
    EXPECT_THAT(raw(), HasSubstr("StreamTitle='Bj\xc3\xb6rk - J\xc3\xb3ga';"));
    ASSERT_NO_FATAL_FAILURE(change("song=%D0%9A%D0%B8%D0%BD%D0%BE%20%E2%80%93%20%F0%9F%8E%B5",
                                   "\xd0\x9a\xd0\xb8\xd0\xbd\xd0\xbe \xe2\x80\x93 \xf0\x9f\x8e\xb5"));
    ASSERT_NO_FATAL_FAILURE(listen(65536));
    compareWithTheSlowReader();
}

TEST_F(RadioTitles, holdApostrophesAndSemicolons)
{
    ASSERT_NO_FATAL_FAILURE(tune("/known.mp3"));
    ASSERT_NO_FATAL_FAILURE(
        change("song=Guns%20N%27%20Roses%3B%20Don%27t%20Cry", "Guns N' Roses; Don't Cry"));
    ASSERT_NO_FATAL_FAILURE(change("song=Rockin%27%3B%20Rollin%27", "Rockin'; Rollin'"));
    ASSERT_NO_FATAL_FAILURE(listen(65536));
    compareWithTheSlowReader();
}

TEST_F(RadioTitles, ofEverySizeLeaveTheAudioInItsPlace)
{
    ASSERT_NO_FATAL_FAILURE(tune("/known.mp3"));
    for (const std::size_t size : {1U, 14U, 15U, 16U, 17U, 500U, 2000U}) {
        const std::string title(size, 'x');
        ASSERT_NO_FATAL_FAILURE(change("song=" + title, title));
    }
    for (unsigned int size : {1U, 7U, 1000U, 15999U, 16000U, 16001U, 100000U}) {
        ASSERT_NO_FATAL_FAILURE(listen(size));
    }
    compareWithTheSlowReader();
}

} // namespace
