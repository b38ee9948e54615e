/*
 * Files on media volumes: "nvl2://" + the volume's UUID + "/" + the path on the volume.
 *
 * MdchUrlNvol2 reads and writes through the media file-system service (nvol2.h), which sees to it that a path
 * stays on its volume. The translations are for callers that want the file in another way: as a native path,
 * or as media ID and path for the service itself. They work on any thread, trace each failure and throw
 * nothing.
 */
#ifndef MDC_HLP_URL_NVOL2_H
#define MDC_HLP_URL_NVOL2_H

#include "mdc_hlp_url_base.h"
#include "nvol2.h"

#include <memory>
#include <string>

namespace md {

template <class Handle>
class SharedHandle;

/*
 * Splits a URL into the text before "://" (left as it was when there is none; not checked), the text from there to
 * the next "/", and the text behind that slash. None of the outputs may be url itself. True, or false when an exception
 * of the strings came in between (memory runs out).
 */
MDCH_API bool parseNvol2Url(const std::string& url, std::string& protocol, std::string& volumeId,
                            std::string& path);

/*
 * The path in the native file system: the volume's access path, then the URL's path without one leading "/". False,
 * with nativePath as it was, when the scheme is not "nvl2" (in any case), the volume is not there, or it has
 * no access path. The path's ".." steps and links are not looked at: the native file system follows them.
 */
MDCH_API bool nvol2UrlToNative(const std::string& url, std::string& nativePath);

/* Media ID and path for the service's own functions. False, with both as they were, as above. */
MDCH_API bool nvol2UrlToMediaIdAndName(const std::string& url, int& mediaId, std::string& name);

} // namespace md

/* A file on a media volume. One caller at a time, but for close: it may come while another thread reads. */
class MDCH_API MdchUrlNvol2 : public MdchUrlBase
{
public:
    MdchUrlNvol2();
    ~MdchUrlNvol2() override;

    /*
     * mode 0 reads, 1 creates or truncates. Returns 0, or a negated errno value, which errno holds, too: -ENODEV
     * for an unknown volume, -EINVAL for any other mode and for a null url, the service's reason otherwise. An
     * earlier open file of the same object is closed afterwards.
     */
    int open(const char* url, int mode) override;

    /* The service's result; -1 with EBADF when not open; 0 when another thread still uses the file. */
    int close() override;

    /* On a closed stream: read and write give 0, tell, seek, size and getc -1, each with errno EBADF. */
    int read(unsigned char* buffer, unsigned int size) override;
    int write(unsigned char* buffer, unsigned int size) override;
    long long tell() override;

    /* Any whence but 1 (position) and 2 (end) counts from the start. */
    int seek(long long offset, int whence) override;

    /* Never supported: -1. */
    int seekTime(unsigned int time) override;

    /* eof and error give 1 on a closed stream. */
    int getc() override;
    int eof() override;
    int error() override;
    void clearerr() override;

    /* Always 1. */
    int isSeekable() override;

    /* Always byte seek and stalling. */
    unsigned int capability() override;

    /* Found by a seek to the end and back; negative when one of the steps fails, also the one back. */
    long long size() override;

    /* Nothing to do: 0. */
    int pause() override;
    int resume() override;

private:
    std::unique_ptr<md::SharedHandle<nvol2File>> m_file; // never null
};

#endif
