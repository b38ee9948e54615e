#include "support/reply.h"

#include "support/body_source.h"
#include "support/http_status.h"

#include <stdexcept>
#include <utility>

namespace support {

Reply::Reply() : body_(std::make_shared<TextBody>("")) {}

// --- Ready-made replies ---

Reply Reply::raw(std::string bytes)
{
    Reply reply;
    reply.raw_ = std::move(bytes);
    return reply;
}

Reply Reply::resource(Media media, std::uint64_t size)
{
    Reply reply;
    reply.body_ = std::make_shared<MediaBody>(media, size);
    reply.isResource_ = true;
    return reply;
}

Reply Reply::resource(std::string content)
{
    Reply reply;
    reply.body_ = std::make_shared<TextBody>(std::move(content));
    reply.isResource_ = true;
    return reply;
}

Reply Reply::timeSeekResource(Media media, std::uint64_t size, std::uint64_t bytesPerSecond)
{
    TimeSeekRules rules;
    rules.bytesPerSecond = bytesPerSecond;
    Reply reply = resource(media, size);
    return reply.timeSeek(rules);
}

Reply Reply::endless(Media media)
{
    Reply reply;
    reply.body_ = std::make_shared<MediaBody>(media, BodySource::unlimited);
    return reply.closeDelimited();
}

Reply Reply::icy(std::string name, int metaInterval)
{
    Reply reply;
    reply.statusLine("ICY 200 OK").noAutomaticHeaders().closeDelimited();
    reply.header("icy-name: " + std::move(name)).contentType("audio/mpeg");
    if (metaInterval > 0) {
        reply.header("icy-metaint: " + std::to_string(metaInterval));
    }
    return reply;
}

Reply Reply::redirect(std::string location, int status)
{
    return Reply().status(status).header("Location: " + std::move(location));
}

Reply Reply::error(int status)
{
    return Reply().status(status).contentType("text/plain").body(usualReason(status) + "\n");
}

Reply Reply::unauthorized(std::string realm)
{
    return error(401).header("WWW-Authenticate: Basic realm=\"" + std::move(realm) + "\"");
}

Reply Reply::hangUp()
{
    return Reply().close(At::start());
}

Reply Reply::silence()
{
    return Reply().stall(At::start());
}

// --- Status and header ---

Reply& Reply::status(int code)
{
    return status(code, usualReason(code));
}

Reply& Reply::status(int code, std::string reason)
{
    return statusLine("HTTP/1.1 " + std::to_string(code) + " " + std::move(reason));
}

Reply& Reply::statusLine(std::string line)
{
    statusLine_ = std::move(line);
    return *this;
}

Reply& Reply::header(std::string line)
{
    headers_.push_back(std::move(line));
    return *this;
}

Reply& Reply::headers(std::vector<std::string> lines)
{
    for (std::string& line : lines) {
        headers_.push_back(std::move(line));
    }
    return *this;
}

Reply& Reply::cookie(std::string value)
{
    return header("Set-Cookie: " + std::move(value));
}

Reply& Reply::contentType(std::string type)
{
    return header("Content-Type: " + std::move(type));
}

Reply& Reply::noAutomaticHeaders()
{
    automaticHeaders_ = false;
    return *this;
}

Reply& Reply::lineEnd(std::string ending)
{
    lineEnd_ = std::move(ending);
    return *this;
}

Reply& Reply::endlessHeaders()
{
    endlessHeaders_ = true;
    return *this;
}

Reply& Reply::interim(int code, const std::vector<std::string>& lines)
{
    std::string bytes = "HTTP/1.1 " + std::to_string(code) + " " + usualReason(code) + "\r\n";
    for (const std::string& line : lines) {
        bytes += line + "\r\n";
    }
    return interim(bytes + "\r\n");
}

Reply& Reply::interim(std::string exactBytes)
{
    interims_.push_back(std::move(exactBytes));
    return *this;
}

Reply& Reply::contentFeatures(std::string value, bool onlyWhenAsked)
{
    std::string line = "contentFeatures.dlna.org: " + std::move(value);
    if (onlyWhenAsked) {
        contentFeaturesWhenAsked_ = std::move(line);
        return *this;
    }
    return header(std::move(line));
}

// --- Body ---

Reply& Reply::body(std::string bytes)
{
    body_ = std::make_shared<TextBody>(std::move(bytes));
    return *this;
}

Reply& Reply::body(Media media, std::uint64_t size)
{
    body_ = std::make_shared<MediaBody>(media, size);
    return *this;
}

Reply& Reply::closeDelimited()
{
    framing_ = Framing::None;
    return *this;
}

Reply& Reply::contentLength(std::string value)
{
    contentLength_ = std::move(value);
    return *this;
}

Reply& Reply::contentLength(std::int64_t value)
{
    return contentLength(std::to_string(value));
}

Reply& Reply::chunked(std::vector<std::uint64_t> sizes)
{
    if (sizes.empty() || sizes.back() == 0) {
        throw std::invalid_argument("chunk sizes must end with a size above 0");
    }
    framing_ = Framing::Chunked;
    chunkSizes_ = std::move(sizes);
    return *this;
}

Reply& Reply::trailer(std::string line)
{
    trailers_.push_back(std::move(line));
    return *this;
}

Reply& Reply::bodyToHead()
{
    bodyToHead_ = true;
    return *this;
}

// --- Ranges and time seeks ---

Reply& Reply::ranges(RangeRules rules)
{
    ranges_ = std::move(rules);
    return *this;
}

Reply& Reply::ignoreRanges()
{
    ranges_.enabled = false;
    return *this;
}

Reply& Reply::shiftRanges(std::int64_t offset)
{
    ranges_.shift = offset;
    return *this;
}

Reply& Reply::contentRange(std::string value)
{
    ranges_.contentRange = std::move(value);
    return *this;
}

Reply& Reply::unsatisfiable(int status)
{
    ranges_.unsatisfiable = status;
    return *this;
}

Reply& Reply::acceptRanges(std::string value)
{
    ranges_.acceptRanges = std::move(value);
    return *this;
}

Reply& Reply::timeSeek(TimeSeekRules rules)
{
    timeSeek_ = rules;
    return *this;
}

// --- When things happen ---

Reply& Reply::wait(At where, Gate gate)
{
    steps_.push_back({where, Action::Wait, std::move(gate)});
    return *this;
}

Reply& Reply::stall(At where)
{
    steps_.push_back({where, Action::Stall, std::nullopt});
    return *this;
}

Reply& Reply::close(At where)
{
    steps_.push_back({where, Action::Close, std::nullopt});
    return *this;
}

Reply& Reply::cut(At where)
{
    steps_.push_back({where, Action::Cut, std::nullopt});
    return *this;
}

Reply& Reply::reset(At where)
{
    steps_.push_back({where, Action::Reset, std::nullopt});
    return *this;
}

Reply& Reply::pieces(std::uint64_t bytes)
{
    pieceSize_ = bytes;
    return *this;
}

Reply& Reply::throttle(std::uint64_t bytesPerSecond)
{
    bytesPerSecond_ = bytesPerSecond;
    return *this;
}

Reply& Reply::sendBuffer(int bytes)
{
    sendBuffer_ = bytes;
    return *this;
}

// --- Connection afterwards ---

Reply& Reply::closeConnection()
{
    after_ = After::Close;
    return *this;
}

Reply& Reply::closeSilently()
{
    after_ = After::CloseSilently;
    return *this;
}

Reply& Reply::keepOpen()
{
    after_ = After::KeepOpen;
    return *this;
}

} // namespace support
