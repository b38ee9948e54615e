/*
 * M3U playlists: reads one through the handle interface and hands its items out in the file's order.
 *
 * Beside "#EXTM3U" and "#EXTINF" the format knows one private tag inside an EXTINF line,
 * ##VOREN{thumbURL="..." , which names a thumbnail. Items of a playlist that lies on a media volume
 * ("NVL2://volume/path") are resolved against it; all others are handed out as they stand. Nothing is kept
 * between calls: any thread may call anything here, each with entries of its own.
 */
#ifndef MDC_HLP_PLAYLIST_H
#define MDC_HLP_PLAYLIST_H

#include "mdc_hlp_export.h"

#include <list>
#include <string>
#include <vector>

namespace md {

/* One item. What the playlist does not tell is empty. */
struct PlaylistEntry
{
    std::string locator;  // where the item is
    std::string title;    // of its EXTINF line; UTF-8 if conversion was asked for
    std::string artist;   // likewise
    std::string playtime; // seconds followed by "s"; "-1s" is custom for radio stations
    std::string thumb;    // where the thumbnail is
    std::string extra;    // not used by this format
};

/* What happens to titles and artists. Values not listed are as kConversionNone. */
enum Conversion_t : int
{
    kConversionNone = 0,        // bytes as they stand in the file
    kConversionLatin1ToUtf8 = 1 // from ISO 8859-1
};

/*
 * Reads the playlist at locator, any URL that mdch_UrlOpen takes, and appends its items to entries.
 *
 * At most the first 50,000 bytes are read, whatever the size. text: the playlist's own name, see
 * parseM3uBufferToPlaylist. Blocks while the stream delivers, for about a minute at most; what came until
 * then counts. Returns 0, or -ENOENT when the playlist cannot be opened; an empty file and one that is no
 * playlist give 0.
 */
MDCH_API int scanPlaylist(const std::string& locator, std::list<PlaylistEntry>& entries, std::string& text,
                          Conversion_t conversion);

} // namespace md

/*
 * Appends the items of an M3U text to entries. locator: the playlist's own, for createM3uItemLocator.
 *
 * text becomes the playlist's name: what stands behind "#PLAYLIST:", or else the first comment, in front of
 * the first item and the first EXTINF line; it stays as it is when there is neither. A UTF-8 byte-order mark
 * is skipped. Returns 0; -EINVAL, with nothing appended, for data that holds a NUL byte among its first 512;
 * -ENOMEM, with the entries so far.
 */
MDCH_API int parseM3uBufferToPlaylist(const std::string& locator, const std::vector<unsigned char>& data,
                                      md::Conversion_t conversion, std::list<md::PlaylistEntry>& entries,
                                      std::string& text);

/*
 * Fills entry, whatever it held before, from an EXTINF line and an item line. A line that is not
 * "#EXTINF:" and a number gives the locator alone. "Artist - Title" is split at the first "-"; without one
 * it is all title. Throws std::bad_alloc only.
 */
MDCH_API void createM3uEntryFromData(const std::string& playlistLocator, md::Conversion_t conversion,
                                     const std::string& extinfLine, const std::string& itemLine,
                                     md::PlaylistEntry& entry);

/*
 * The locator of a playlist's item. As it stands unless the playlist is on a media volume ("NVL2://", in any
 * case) and the item is not absolute ("http://", "mms://", "rtsp://", in any case).
 *
 * On a volume backslashes of an item count as slashes; an item that begins with one is at the volume's root,
 * any other in the playlist's folder; "." and ".." steps are resolved and never lead above the root. The
 * volume part keeps its spelling. A NUL byte ends either text. Throws std::bad_alloc only.
 */
MDCH_API std::string createM3uItemLocator(const std::string& playlistLocator, const std::string& item);

#endif
