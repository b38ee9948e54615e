/*
 * Radio titles: takes apart what ICY servers mix, audio and titles.
 *
 * A stream that was opened with MDCH_URL_ICY_METADATA, and for which the open record then reports an interval
 * (icyMetaInt), holds a block behind every so many bytes of audio: one length byte and 16 times as many bytes of
 * text, "StreamTitle='Artist - Title';StreamUrl='http://...';" filled up with NUL bytes. No standard describes it;
 * what is read here is what servers send, right or wrong. A wrong text never shifts the audio: where it ends is
 * said by its length byte alone.
 *
 *     mdch_UrlExtended_struct options{};
 *     options.flags = MDCH_URL_ICY_METADATA;
 *     boost::shared_ptr<MdchUrlBase> stream;
 *     if (mdch_OpenUrl(url, MDCH_MODE_READ, &options, stream) == 0) {
 *         md::IcyReader radio(stream, options.icyMetaInt);
 *         ... radio.read(buffer, size) ... radio.title() ...
 *     }
 */
#ifndef MDC_HLP_ICY_H
#define MDC_HLP_ICY_H

#include "mdc_hlp_export.h"
#include "mdc_hlp_url_base.h"

#include <boost/shared_ptr.hpp>
#include <memory>
#include <string>
#include <vector>

namespace md {

class IcyReaderImpl;

/* A change of title or URL, and where it belongs. */
struct IcyTitle
{
    long long position = 0; // of the first byte to which it applies, in bytes of audio
    std::string title;      // UTF-8, one line; empty: the server announces none
    std::string url;        // as sent along with it; may be empty
};

/*
 * Reads a stream that holds titles as if it held audio only, and tells the titles. Without a lock: one caller at a
 * time, as for the stream itself, which may be closed by another thread where its class allows that.
 *
 * It takes everything from the stream, from the place where the response began; nobody else reads or moves the
 * stream meanwhile. A seek, a time seek, and a resume or an open that ask the server anew lose the place of the
 * blocks: make a new reader then. pause() and resume() on a live stream, which goes on where it stopped, do not.
 */
class MDCH_API IcyReader
{
public:
    /*
     * stream: open, read from nothing yet; shared, so that it lives as long as the reader. Null: every read gives
     * 0. interval: bytes of audio between two blocks, as the open record reports it; 0 or less (the server sends
     * no titles): every byte is audio. Throws std::bad_alloc only; nothing else here throws.
     */
    IcyReader(boost::shared_ptr<MdchUrlBase> stream, int interval);
    ~IcyReader();
    IcyReader(const IcyReader&) = delete;
    IcyReader& operator=(const IcyReader&) = delete;

    /*
     * Stores up to size bytes of audio, straight from the stream, and returns their number. A read passes as many
     * blocks as lie between these bytes and takes nothing behind the last of them, so that a block is read
     * together with the audio that follows it.
     *
     * Fewer bytes than asked for mean that the stream gave fewer: its end, an error, no data in time;
     * stream->eof() and stream->error() tell which. The first read of the stream that comes short ends the call:
     * what came of a block is kept, and the next call goes on there. So 0 may mean that part of a block came and
     * no audio. When the stream gives nothing, its result is returned, a negative one of a closed stream
     * included. A call that has audio and has taken 30 s, the time for which a stream opened by mdch_OpenUrl
     * waits, returns what it has. 0 for a null buffer (and for a null stream, with errno EBADF).
     */
    int read(unsigned char* buffer, unsigned int size);

    /* Bytes of audio that were read: the position of the next one. */
    long long tell() const;

    /*
     * Title and URL (StreamTitle, StreamUrl) that apply to the next byte of audio, as far as the blocks before it
     * have been read; empty while none is announced. The references hold until the next read.
     *
     * Valid UTF-8 (RFC 3629: no surrogates, no overlong forms) passes as it is, any other text counts as ISO
     * 8859-1 and is converted. Control characters below U+0020 and U+007F become blanks. A value ends at a "';"
     * with another key or nothing behind it, so that apostrophes and semicolons may stand in it; without such an
     * end at the last "';", or where the block ends. Names of keys are compared without regard to case, unknown
     * ones are ignored. What a block does not mention stays, but for the URL: it goes with the title to which it
     * belonged, when another title comes without one. An empty block changes nothing.
     */
    const std::string& title() const;
    const std::string& url() const;

    /*
     * The changes of title or URL that were read since the last call, in their order; positions grow, and the
     * last position is at most tell(). For callers whose reads span several blocks: bytes from one position to the
     * next belong to the first of the two. A repeated title is no change. Nobody has to ask: the latest 64 are
     * kept.
     */
    std::vector<IcyTitle> takeChanges();

private:
    std::unique_ptr<IcyReaderImpl> m_impl; // never null
};

} // namespace md

#endif
