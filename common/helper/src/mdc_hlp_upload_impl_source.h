/*
 * The local file of an upload.
 *
 * A size is announced to the transfer, and exactly so many bytes may follow. libcurl reads to the end of what it
 * is given, so it is given a stream that ends at that size: a file that grows meanwhile is sent as it was, and
 * one that grows faster than the network carries it comes to an end. The stream also remembers why a read
 * failed, which libcurl's reading forgets. One thread at a time.
 */
#ifndef MDC_HLP_UPLOAD_IMPL_SOURCE_H
#define MDC_HLP_UPLOAD_IMPL_SOURCE_H

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace md {

class UploadSource
{
public:
    UploadSource() = default;
    UploadSource(const UploadSource&) = delete;
    UploadSource& operator=(const UploadSource&) = delete;

    /* Each returns 0 or an errno value. measure comes behind a successful open and gives size and stream. */
    int open(const std::string& path);
    int measure();

    void close();

    /* Bytes that the file had when it was measured. */
    std::int64_t size() const { return m_size; }

    /* Bytes that have been read so far, at most size(). */
    std::int64_t taken() const { return m_taken; }

    /* errno value of the read that failed; 0 when none has. */
    int error() const { return m_error; }

    /* Ends at size(); owned by the object. */
    FILE* stream() const { return m_stream.get(); }

private:
    struct Close
    {
        void operator()(FILE* stream) const { fclose(stream); }
    };
    using Stream = std::unique_ptr<FILE, Close>;

    static ssize_t readSome(void* source, char* buffer, std::size_t size);

    Stream m_file;
    std::vector<char> m_buffer; // of m_stream, and so goes after it
    Stream m_stream;
    std::int64_t m_size = 0;
    std::int64_t m_taken = 0;
    int m_error = 0;
};

} // namespace md

#endif
