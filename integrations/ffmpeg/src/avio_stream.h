/*
 * One stream of the library as the context's thread uses it: opened, read, moved, and opened again where it broke.
 * Every result is FFmpeg's.
 *
 * One thread uses it, but for abandon(): any thread may end what the other one waits for. A mutex guards the pointer
 * to the stream, and that nothing is opened behind abandon().
 */
#ifndef MDCH_AVIO_STREAM_H
#define MDCH_AVIO_STREAM_H

#include "avio_settings.h"
#include "response_header.h"

#include "mdc_hlp_icy.h"
#include "mdc_hlp_url_base.h"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace md {
class HttpAccess;
}

namespace avio {

class Stream
{
public:
    explicit Stream(Settings settings) : m_settings(std::move(settings)) {}
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    /* 0 when length and abilities are known. */
    int open();

    /*
     * Stores up to size bytes, as soon as there are any, and returns their number; 0: none for now; AVERROR_EOF: the
     * end; another AVERROR.
     */
    int read(unsigned char* buffer, std::size_t size);

    /* 0 or an AVERROR. Behind AVERROR(ESPIPE) the stream stands where it stood. */
    int seek(std::int64_t position);
    int seekTime(std::uint32_t milliseconds);

    /* 0 or an AVERROR. */
    int setPaused(bool paused);

    /* Negative: unknown. */
    std::int64_t size();

    /* Of the next byte that read gives. */
    std::int64_t position() const { return m_position; }

    bool isSeekable() const { return m_seekable; }
    bool isTimeSeekable() const { return m_timeSeekable; }
    bool isNetwork() const { return m_http != nullptr || m_datagrams; }
    /* Bytes that nobody takes are lost. */
    bool isDatagrams() const { return m_datagrams; }

    /* Changes of the title that have been read since the last call. */
    std::vector<md::IcyTitle> takeTitles();

    /* Any thread, at any time: the stream is closed, whoever waits for it returns, and AVERROR_EXIT is all it gives. */
    void abandon();

private:
    int start();
    bool brokeOffBehindHeader(int error) const;
    int openAnew();
    int openAt(std::int64_t position);
    int takeUp(std::int64_t position, int reason);
    std::size_t buffered() const;
    std::size_t readOnce(unsigned char* buffer, std::size_t size);
    int shortReadReason();
    int errorOf(int error) const;
    bool pauseBeforeTry(int number);
    bool isAbandoned();
    void learnAbilities();
    player::Version version() const;

    const Settings m_settings;
    std::mutex m_mutex;
    std::condition_variable m_abandonment;
    bool m_abandoned = false;
    boost::shared_ptr<MdchUrlBase> m_stream; // written under the mutex, and by the using thread only

    // Of the using thread alone:
    md::HttpAccess* m_http = nullptr; // m_stream, when it is one
    bool m_datagrams = false;
    std::unique_ptr<md::IcyReader> m_radio;
    std::int64_t m_position = 0;
    bool m_seekable = false;
    bool m_timeSeekable = false;
    player::Version m_version; // of what is being read
    int m_broken = 0;          // what a stream whose place is lost gives until it is sought
};

} // namespace avio

#endif
