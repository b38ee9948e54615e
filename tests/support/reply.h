// One scripted answer of an HTTP server, honest or not. Everything composes:
//
//     Reply().header("Content-Type: audio/mpeg").body("hello")
//     Reply().body("hello").contentLength(9).close(At::body(3))
//     Reply::resource(Media(7), 1u << 20).throttle(65536).wait(At::body(4096), gate)
//
// Without further words a reply has status 200, gets "Content-Length" (or "Transfer-Encoding") by itself and
// leaves the connection open.
#pragma once

#include "support/gate.h"
#include "support/media.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace support {

struct Request;
class BodySource;

// A place in the reply at which something happens. Positions behind the reply's end are never reached.
struct At
{
    enum class Kind
    {
        Bytes,
        HeaderLine,
        Body
    };
    Kind kind;
    std::uint64_t count;

    // Before the first byte.
    static At start() { return {Kind::Bytes, 0}; }
    // After `n` bytes of the whole reply (interim replies do not count).
    static At bytes(std::uint64_t n) { return {Kind::Bytes, n}; }
    // After the status line, that is inside the header.
    static At header() { return {Kind::HeaderLine, 0}; }
    // After the status line and `n` header lines (those added by the server stand behind the scripted ones).
    static At headerLine(std::uint64_t n) { return {Kind::HeaderLine, n}; }
    // After the empty line.
    static At body() { return {Kind::Body, 0}; }
    // After `n` bytes of body, chunk framing not counted. With n = the size of the body: behind the last
    // byte, before the last chunk and the trailers.
    static At body(std::uint64_t n) { return {Kind::Body, n}; }
};

// How a resource answers ranges; see Reply::ranges and its kin.
struct RangeRules
{
    bool enabled = true;                // false: 200 and everything from byte 0, no word about ranges
    bool ignoreEnd = false;             // "bytes=5-9" is answered as "bytes=5-"
    bool sendContentRange = true;       // false: 206 without the line
    bool sendTotal = true;              // false: "bytes 5-9/*"
    std::int64_t shift = 0;             // answers that many bytes behind (or before) the position asked for
    int unsatisfiable = 416;            // status behind the end; 206 gives an empty 206, 200 everything
    std::string acceptRanges = "bytes"; // "" sends no Accept-Ranges line
    std::optional<std::string> contentRange; // value sent in place of the true one
};

// How a resource answers "TimeSeekRange.dlna.org: npt=".
struct TimeSeekRules
{
    std::uint64_t bytesPerSecond = 0; // 0: the header line is not understood
    int status = 200;                 // of the answer; 406 answers without a body
    bool sendBytes = true;            // "bytes=FIRST-LAST/SIZE" in the answer's line
};

class Reply
{
public:
    Reply();

    // --- Ready-made replies ---

    // Exactly these bytes, then the connection is closed (keepOpen() changes that).
    static Reply raw(std::string bytes);
    // `size` bytes of a known resource: Accept-Ranges, 206 with Content-Range, 416, HEAD.
    static Reply resource(Media media, std::uint64_t size);
    static Reply resource(std::string content);
    // A resource that also serves DLNA time seeks at a constant rate.
    static Reply timeSeekResource(Media media, std::uint64_t size, std::uint64_t bytesPerSecond);
    // An endless stream of known bytes without Content-Length: closing the connection ends it.
    static Reply endless(Media media = Media());
    // "ICY 200 OK" with "icy-name" and, when `metaInterval` > 0, "icy-metaint"; close-delimited. The body
    // is the script's own.
    static Reply icy(std::string name = "Radio", int metaInterval = 0);
    static Reply redirect(std::string location, int status = 302);
    // An error status with a short text as its body.
    static Reply error(int status);
    // 401 with "WWW-Authenticate: Basic".
    static Reply unauthorized(std::string realm = "test");
    // Not one byte, the connection is just closed.
    static Reply hangUp();
    // Not one byte until the server is destroyed.
    static Reply silence();

    // --- Status and header ---

    Reply& status(int code);                     // with its usual reason
    Reply& status(int code, std::string reason); // "HTTP/1.1 CODE REASON"
    Reply& statusLine(std::string line);         // the whole line, without line end
    Reply& header(std::string line);             // appended as given: "Name: value"
    Reply& headers(std::vector<std::string> lines);
    Reply& cookie(std::string value); // "Set-Cookie: value"
    Reply& contentType(std::string type);
    Reply& noAutomaticHeaders();        // only the scripted lines go out
    Reply& lineEnd(std::string ending); // of status line, header lines and empty line; "\r\n" by default
    // Header lines without end ("X-Filler-1: ..."), behind the scripted ones.
    Reply& endlessHeaders();
    // An interim reply before the final one: interim(103, {"Link: <x>"}).
    Reply& interim(int code, const std::vector<std::string>& lines = {});
    Reply& interim(std::string exactBytes);

    // DLNA: "contentFeatures.dlna.org: value"; `onlyWhenAsked`: only to "getcontentFeatures.dlna.org: 1".
    Reply& contentFeatures(std::string value, bool onlyWhenAsked = false);

    // --- Body ---

    Reply& body(std::string bytes);
    Reply& body(Media media, std::uint64_t size); // no ranges: see resource() for those
    // No Content-Length: closing the connection ends the body.
    Reply& closeDelimited();
    // A Content-Length of our own, right or wrong; wrong ones close the connection behind the body.
    Reply& contentLength(std::string value);
    Reply& contentLength(std::int64_t value);
    // Chunks of these sizes in turn, the last size for all further ones.
    Reply& chunked(std::vector<std::uint64_t> sizes = {4096});
    Reply& trailer(std::string line);
    // Sends the body to HEAD as well.
    Reply& bodyToHead();

    // --- Ranges and time seeks of a resource ---

    Reply& ranges(RangeRules rules);
    Reply& ignoreRanges();                   // 200, everything, no Content-Range, no Accept-Ranges
    Reply& shiftRanges(std::int64_t offset); // 206 from another position, told truly in Content-Range
    Reply& contentRange(std::string value);  // 206 with this Content-Range, whatever is sent
    Reply& unsatisfiable(int status);        // instead of 416
    Reply& acceptRanges(std::string value);  // "none", "" for no line
    Reply& timeSeek(TimeSeekRules rules);

    // --- When things happen ---

    Reply& wait(At where, Gate gate);   // go on when the test opens the gate
    Reply& stall(At where);             // stop there until the server is destroyed
    Reply& close(At where);             // end the connection in good order there
    Reply& cut(At where);               // as close(), without TLS's word that it is the end
    Reply& reset(At where);             // end it with a reset
    Reply& pieces(std::uint64_t bytes); // at most so many bytes per send
    Reply& throttle(std::uint64_t bytesPerSecond);
    // Size of the socket's send buffer: with a small one a slow reader is felt sooner. Much below 64 KiB makes
    // the whole transfer slow, as each part then waits for a delayed acknowledgement.
    Reply& sendBuffer(int bytes);

    // --- Connection afterwards ---

    Reply& closeConnection(); // "Connection: close", and closes
    Reply& closeSilently();   // closes without a word in the header
    Reply& keepOpen();        // leaves it open even where the framing says otherwise

private:
    friend class ReplyPlan;

    enum class Action
    {
        Wait,
        Stall,
        Close,
        Cut,
        Reset
    };
    struct Step
    {
        At where;
        Action action;
        std::optional<Gate> gate;
    };
    enum class Framing
    {
        Length,
        Chunked,
        None
    };
    enum class After
    {
        Automatic,
        Close,
        CloseSilently,
        KeepOpen
    };

    std::optional<std::string> raw_;
    std::string statusLine_;
    std::vector<std::string> headers_;
    std::optional<std::string> contentFeaturesWhenAsked_;
    std::vector<std::string> interims_;
    std::string lineEnd_ = "\r\n";
    bool automaticHeaders_ = true;
    bool endlessHeaders_ = false;

    std::shared_ptr<const BodySource> body_;
    std::optional<std::string> contentLength_;
    std::vector<std::uint64_t> chunkSizes_;
    std::vector<std::string> trailers_;
    Framing framing_ = Framing::Length;
    bool bodyToHead_ = false;

    bool isResource_ = false;
    RangeRules ranges_;
    TimeSeekRules timeSeek_;

    std::vector<Step> steps_;
    std::uint64_t pieceSize_ = 0;
    std::uint64_t bytesPerSecond_ = 0;
    int sendBuffer_ = 0;
    After after_ = After::Automatic;
};

} // namespace support
