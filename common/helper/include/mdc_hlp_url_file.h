/*
 * Streams over local files: a thin layer over the C library's buffered streams with 64-bit positions.
 *
 * "file://" in front of a path is taken away, whatever its case; nothing else is decoded, so
 * "file://media/x" is the relative path "media/x". One caller at a time, but for close: it may come while
 * another thread is inside an operation, and the file is closed when the last of them returns.
 */
#ifndef MDC_HLP_URL_FILE_H
#define MDC_HLP_URL_FILE_H

#include "mdc_hlp_url_base.h"

#include <cstdio>
#include <memory>

namespace md {
template <class Handle>
class SharedHandle;
}

/* A local file. */
class MDCH_API MdchUrlFile : public MdchUrlBase
{
public:
    MdchUrlFile();
    ~MdchUrlFile() override;

    /*
     * mode 0 reads, 1 creates or truncates. Returns 0 or a negated errno value; any other mode gives -1 with
     * errno EINVAL and touches nothing. -EINVAL for a null url. An earlier open file of the same object is
     * not closed first, but afterwards, whether or not the new one could be opened.
     */
    int open(const char* url, int mode) override;

    /* fclose's result; 0 when not open, and when another thread's operation still uses the file. */
    int close() override;

    /* On a closed stream: read and write give 0, tell, seek and size -1, each with errno EBADF. */
    int read(unsigned char* buffer, unsigned int size) override;
    int write(unsigned char* buffer, unsigned int size) override;
    long long tell() override;
    int seek(long long offset, int whence) override;

    /* Never supported: -1. */
    int seekTime(unsigned int time) override;

    /* getc and eof give -1 on a closed stream, error gives 0. */
    int getc() override;
    int eof() override;
    int error() override;
    void clearerr() override;

    /* Always 1. */
    int isSeekable() override;

    /* Always byte seek and stalling. */
    unsigned int capability() override;

    /* What the file system holds; bytes that still wait in the write buffer are not counted. */
    long long size() override;

    /* Nothing to do: 0. */
    int pause() override;
    int resume() override;

private:
    std::unique_ptr<md::SharedHandle<FILE>> m_stream; // never null
};

#endif
