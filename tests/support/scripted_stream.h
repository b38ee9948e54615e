/*
 * A stream of given bytes that come in pieces of given sizes, for units that read from any stream.
 */
#ifndef SUPPORT_SCRIPTED_STREAM_H
#define SUPPORT_SCRIPTED_STREAM_H

#include "mdc_hlp_url_base.h"

#include <algorithm>
#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace support {

class ScriptedStream : public MdchUrlBase
{
public:
    struct Request
    {
        unsigned char* buffer;
        unsigned int size;
    };

    // pieces: how many bytes each read gives at most, one after the other and from the first again; 0: nothing
    // has come in time. None: as many as are asked for.
    explicit ScriptedStream(std::string bytes, std::vector<unsigned int> pieces = {})
        : m_bytes(std::move(bytes)), m_pieces(std::move(pieces))
    {
    }

    // More comes.
    void append(const std::string& bytes) { m_bytes += bytes; }
    // What a read gives behind the last byte.
    void setResultAtEnd(int result) { m_resultAtEnd = result; }
    // Called at the start of each read; what it throws, the read throws.
    void setOnRead(std::function<void()> function) { m_onRead = std::move(function); }

    // So that so many reads allocate nothing.
    void reserveRequests(std::size_t count) { m_requests.reserve(count); }

    std::size_t taken() const { return m_taken; }
    const std::vector<Request>& requests() const { return m_requests; }

    int read(unsigned char* buffer, unsigned int size) override
    {
        m_requests.push_back({buffer, size});
        if (m_onRead) {
            m_onRead();
        }
        if (m_taken == m_bytes.size()) {
            return m_resultAtEnd;
        }
        std::size_t count = std::min<std::size_t>(size, m_bytes.size() - m_taken);
        if (!m_pieces.empty()) {
            count = std::min<std::size_t>(count, m_pieces[m_next++ % m_pieces.size()]);
        }
        std::copy_n(m_bytes.begin() + static_cast<std::ptrdiff_t>(m_taken), count, buffer);
        m_taken += count;
        return static_cast<int>(count);
    }

    int open(const char* /*url*/, int /*mode*/) override { return 0; }
    int close() override { return 0; }
    int write(unsigned char* /*buffer*/, unsigned int /*size*/) override { return 0; }
    long long tell() override { return static_cast<long long>(m_taken); }
    int seek(long long /*offset*/, int /*whence*/) override { return -1; }
    int seekTime(unsigned int /*time*/) override { return -1; }
    int getc() override { return -1; }
    int eof() override { return m_taken == m_bytes.size() ? 1 : 0; }
    int error() override { return 0; }
    void clearerr() override {}
    int isSeekable() override { return 0; }
    unsigned int capability() override { return 0; }
    long long size() override { return -1; }
    int pause() override { return 0; }
    int resume() override { return 0; }

private:
    std::string m_bytes;
    std::vector<unsigned int> m_pieces;
    std::size_t m_next = 0;
    std::size_t m_taken = 0;
    int m_resultAtEnd = 0;
    std::function<void()> m_onRead;
    std::vector<Request> m_requests;
};

} // namespace support

#endif
