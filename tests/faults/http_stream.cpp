#include "http_stream.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <vector>

namespace faults {

void StreamWalk::fail(const std::string& what)
{
    if (m_outcome.isRight()) {
        m_outcome = Outcome::failed(what);
    }
}

void StreamWalk::wrong(const std::string& what)
{
    m_outcome = Outcome::wrong(what + " at " + std::to_string(m_position));
}

int StreamWalk::errorOfStream()
{
    int error = 0;
    inLibrary([&] { error = m_stream->error(); });
    return error;
}

void StreamWalk::open(const std::string& url, mdch_UrlExtended_struct options)
{
    int result = 0;
    if (!inLibrary([&] { result = mdch_OpenUrl(url.c_str(), MDCH_MODE_READ, &options, m_stream); })) {
        fail("no memory to open");
    } else if (result != 0) {
        fail("opening gives " + std::to_string(result));
        if (options.error != result) {
            wrong("the record tells error " + std::to_string(options.error) + " instead of " +
                  std::to_string(result));
        }
    } else {
        long long size = 0;
        inLibrary([&] { size = m_stream->size(); });
        if (size != m_size) {
            wrong("the size is " + std::to_string(size));
        }
    }
}

void StreamWalk::read(unsigned int count)
{
    if (!goesOn()) {
        return;
    }
    std::vector<unsigned char> buffer(count);
    int got = 0;
    long long place = 0;
    if (!inLibrary([&] { got = m_stream->read(buffer.data(), count); })) {
        wrong("a read throws");
        return;
    }
    const std::string bytes(buffer.begin(), buffer.begin() + std::max(got, 0));
    if (got > 0 && !m_media.matches(static_cast<std::uint64_t>(m_position), bytes)) {
        wrong("wrong bytes");
        return;
    }
    m_position += std::max(got, 0);
    inLibrary([&] { place = m_stream->tell(); });
    if (got >= 0 && place != m_position) {
        wrong("the stream thinks to be at " + std::to_string(place));
    } else if (got < 0) {
        fail("a read gives " + std::to_string(got));
    } else if (static_cast<unsigned int>(got) < count && m_position < m_size) {
        const int error = errorOfStream();
        if (error == 0) {
            wrong("a read is short, and no error");
        } else {
            fail("a read breaks off with " + std::to_string(error));
        }
    }
}

void StreamWalk::readToEnd()
{
    while (goesOn() && m_position < m_size) {
        constexpr unsigned int kPiece = 30'000;
        read(kPiece);
    }
    if (!goesOn()) {
        return;
    }
    read(1);
    int end = 0;
    inLibrary([&] { end = m_stream->eof(); });
    if (goesOn() && end != 1) {
        wrong("no end");
    }
}

void StreamWalk::seek(long long offset, int whence)
{
    if (!goesOn()) {
        return;
    }
    int result = 0;
    if (!inLibrary([&] { result = m_stream->seek(offset, whence); })) {
        wrong("a seek throws");
    } else if (result != 0) {
        fail("a seek gives " + std::to_string(result));
    } else {
        m_position =
            whence == SEEK_SET ? offset : (whence == SEEK_CUR ? m_position + offset : m_size + offset);
    }
}

void StreamWalk::seekTime(unsigned int milliseconds, long long expectedPosition)
{
    if (!goesOn()) {
        return;
    }
    int result = 0;
    if (!inLibrary([&] { result = m_stream->seekTime(milliseconds); })) {
        wrong("a time seek throws");
    } else if (result != 0) {
        fail("a time seek gives " + std::to_string(result));
    } else {
        m_position = expectedPosition;
    }
}

void StreamWalk::pauseAndResume()
{
    if (!goesOn()) {
        return;
    }
    int paused = 0;
    int resumed = 0;
    if (!inLibrary([&] {
            paused = m_stream->pause();
            resumed = m_stream->resume();
        })) {
        wrong("a pause throws");
    } else if (paused != 0 || resumed != 0) {
        fail("a pause gives " + std::to_string(paused) + ", a resume " + std::to_string(resumed));
    }
}

void StreamWalk::close()
{
    if (m_stream != nullptr && !inLibrary([&] {
            m_stream->close();
            m_stream.reset();
        })) {
        wrong("a close throws");
    }
}

} // namespace faults
