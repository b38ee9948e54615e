#include "avio_stream.h"

#include "avio_error.h"
#include "response_header.h"

#include "mdc_hlp_http_access.h"
#include "mdc_hlp_url_udp.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <utility>

extern "C" {
#include <libavutil/error.h>
}

namespace avio {

namespace {

constexpr int kNothingInTime = EAGAIN; // the stream's error when data are late,
constexpr int kNoHeader = EFAULT;      // and when the response header is

} // namespace

bool Stream::isAbandoned()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_abandoned;
}

void Stream::abandon()
{
    boost::shared_ptr<MdchUrlBase> stream;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_abandoned = true;
        stream = m_stream;
    }
    m_abandonment.notify_all();
    if (stream != nullptr) {
        stream->close();
    }
}

int Stream::errorOf(int error) const
{
    // The status is not asked for where it would be waited for, once more.
    const bool hasStatus = m_http != nullptr && error != kNoHeader;
    return averrorOf(error, hasStatus ? m_http->getResponseCode() : -1);
}

// Makes a stream and opens it, as far as that goes without waiting for a network.
int Stream::start()
{
    m_radio.reset();
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_abandoned) {
        return AVERROR_EXIT;
    }
    m_stream.reset(MdchUrlBase::createInstance(m_settings.url.c_str()));
    m_http = dynamic_cast<md::HttpAccess*>(m_stream.get());
    m_datagrams = dynamic_cast<MdchUrlUdp*>(m_stream.get()) != nullptr;
    if (m_http != nullptr) {
        configure(*m_http, m_settings);
    }
    if (!isNetwork()) {
        lock.unlock(); // a file system may keep it waiting, and a close would not help
    }                  // else under the lock: a stream that was closed already would open again
    const int opened = m_stream->open(m_settings.url.c_str(), MDCH_MODE_READ);
    return opened < 0 ? averrorOf(opened, -1) : 0;
}

// A body that has broken off by now does not make the open fail: what came of it is there to be read.
bool Stream::brokeOffBehindHeader(int error) const
{
    constexpr int kSuccess = 2; // 2xx
    return (error == MDCH_HTTP_ENETWORK || error == MDCH_HTTP_ETRANSFER) && m_http != nullptr &&
           m_http->getResponseCode() / 100 == kSuccess;
}

int Stream::openAnew()
{
    const int started = start();
    if (started < 0) {
        return started;
    }
    const int error = m_stream->error(); // waits for the response header
    if (isAbandoned()) {
        return AVERROR_EXIT;
    }
    if (error != 0 && !brokeOffBehindHeader(error)) {
        return errorOf(error);
    }
    m_position = 0;
    m_broken = 0;
    if (m_http != nullptr && m_settings.wantsTitles()) {
        const std::string interval = player::headerValue(*m_http, "icy-metaint");
        m_radio = std::make_unique<md::IcyReader>(m_stream, std::atoi(interval.c_str()));
    }
    return 0;
}

int Stream::open()
{
    const int opened = openAnew();
    if (opened == 0) {
        learnAbilities();
        m_version = version();
    }
    return opened;
}

void Stream::learnAbilities()
{
    m_seekable = m_radio == nullptr && m_stream->isSeekable() > 0;
    m_timeSeekable = m_http != nullptr && (m_http->capability() & MDCH_CAPABILITY_TIME_SEEK) != 0;
}

player::Version Stream::version() const
{
    return m_http != nullptr ? player::versionOf(*m_http) : player::Version();
}

int Stream::openAt(std::int64_t position)
{
    const int opened = openAnew();
    if (opened < 0) {
        return opened;
    }
    if (!player::areOfOneFile(version(), m_version)) {
        return AVERROR(EINVAL); // another file by now: its bytes do not go on from ours, at no try
    }
    const int sought = position != 0 ? m_stream->seek(position, SEEK_SET) : 0;
    if (isAbandoned()) {
        return AVERROR_EXIT;
    }
    if (sought != 0) {
        const int error = m_stream->error();
        return error != 0 && error != ESPIPE ? errorOf(error) : AVERROR(EIO);
    }
    m_position = position;
    return 0;
}

// Before the first try none, then a second more each time. False: abandoned.
bool Stream::pauseBeforeTry(int number)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return !m_abandonment.wait_for(lock, std::chrono::seconds(number), [this] { return m_abandoned; });
}

// Opens the stream again where it broke off for that reason, which is the result when no try helps.
int Stream::takeUp(std::int64_t position, int reason)
{
    for (int number = 0; m_seekable && isWorthAnotherTry(reason) && number < m_settings.options.reconnects;
         ++number) {
        if (!pauseBeforeTry(number)) {
            return AVERROR_EXIT;
        }
        reason = openAt(position);
        if (reason == 0 || reason == AVERROR_EXIT) {
            return reason;
        }
    }
    m_position = position;
    m_broken = reason;
    return reason;
}

std::size_t Stream::buffered() const
{
    std::size_t bytes = 0;
    std::size_t capacity = 0;
    m_http->getBufferLevel(bytes, capacity);
    return bytes;
}

std::size_t Stream::readOnce(unsigned char* buffer, std::size_t size)
{
    const auto asked = static_cast<unsigned int>(size);
    const int count = m_radio != nullptr ? m_radio->read(buffer, asked) : m_stream->read(buffer, asked);
    return count > 0 ? static_cast<std::size_t>(count) : 0;
}

int Stream::read(unsigned char* buffer, std::size_t size)
{
    if (m_broken != 0) {
        return m_broken;
    }
    // An HTTP stream waits for everything it is asked for: it is asked for the next byte, then for what is there.
    std::size_t count =
        readOnce(buffer, m_http != nullptr ? std::min(size, std::max<std::size_t>(1, buffered())) : size);
    if (count == 1 && m_http != nullptr) {
        count += readOnce(buffer + count, std::min(size - count, buffered()));
    }
    if (count > 0) {
        m_position += static_cast<std::int64_t>(count);
        return static_cast<int>(count);
    }
    const int reason = shortReadReason();
    const bool brokeOff = m_http != nullptr && reason < 0 && reason != AVERROR_EOF &&
                          reason != AVERROR_EXIT && reason != AVERROR(ETIMEDOUT);
    return brokeOff ? takeUp(m_position, reason) : reason;
}

int Stream::shortReadReason()
{
    const int error = m_stream->error();
    const bool ended = error != kNoHeader && m_stream->eof() > 0;
    if (isAbandoned()) {
        return AVERROR_EXIT;
    }
    // Late data show as an error that goes away by itself; behind an end it is an old one.
    if (error == 0 || error == kNothingInTime) {
        return ended ? AVERROR_EOF : 0;
    }
    return errorOf(error);
}

int Stream::seek(std::int64_t position)
{
    if (!m_seekable) {
        return AVERROR(ESPIPE);
    }
    if (m_broken != 0) {
        return takeUp(position, AVERROR(EIO));
    }
    if (m_stream->seek(position, SEEK_SET) == 0) {
        m_position = position;
        return 0;
    }
    if (isAbandoned()) {
        return AVERROR_EXIT;
    }
    if (m_http == nullptr) {
        return AVERROR(errno);
    }
    const int error = m_stream->error();
    if (error == ESPIPE && m_stream->isSeekable() <= 0) { // a server that ignores ranges shows it by and by
        m_stream->clearerr();
        m_seekable = false;
        return AVERROR(ESPIPE);
    }
    return takeUp(position, error != 0 && error != ESPIPE ? errorOf(error) : AVERROR(EIO));
}

int Stream::seekTime(std::uint32_t milliseconds)
{
    if (!m_timeSeekable) {
        return AVERROR(ESPIPE);
    }
    if (m_stream->seekTime(milliseconds) != 0) {
        if (isAbandoned()) {
            return AVERROR_EXIT;
        }
        const int error = m_stream->error();
        m_broken = error != 0 && error != ESPIPE ? errorOf(error) : AVERROR(EIO);
        return m_broken;
    }
    m_broken = 0;
    m_position = std::max(0LL, m_stream->tell());
    return 0;
}

int Stream::setPaused(bool paused)
{
    const int result = paused ? m_stream->pause() : m_stream->resume();
    return result == 0 ? 0 : AVERROR(ENOSYS);
}

std::int64_t Stream::size()
{
    return m_stream->size();
}

std::vector<md::IcyTitle> Stream::takeTitles()
{
    return m_radio != nullptr ? m_radio->takeChanges() : std::vector<md::IcyTitle>();
}

} // namespace avio
