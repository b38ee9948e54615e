#include "support/reply_plan.h"

#include "support/http_status.h"
#include "support/range_text.h"
#include "support/request.h"
#include "support/text.h"

#include <algorithm>

namespace support {

struct ReplyPlan::Selection
{
    int status = 200;
    std::uint64_t first = 0;
    std::uint64_t size = 0;
    std::vector<std::string> lines;
};

namespace {

constexpr std::size_t fillerDigits = 12;

bool hasLine(const std::vector<std::string>& lines, std::string_view name)
{
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& line) { return equalIgnoringCase(headerName(line), name); });
}

// The code in a status line; 200 when there is none, as for any line that a client takes for a success.
int codeOf(std::string_view statusLine)
{
    statusLine.remove_prefix(std::min(statusLine.find(' '), statusLine.size()));
    takePrefix(statusLine, " ");
    const std::optional<std::uint64_t> code = takeNumber(statusLine);
    return code && *code < 1000 ? static_cast<int>(*code) : 200;
}

bool mayHaveBody(int status)
{
    return status >= 200 && status != 204 && status != 304;
}

bool wantsClose(const Request& request)
{
    const std::string connection = request.header("Connection");
    if (request.version == "HTTP/1.0") {
        return !equalIgnoringCase(connection, "keep-alive");
    }
    return equalIgnoringCase(connection, "close");
}

} // namespace

ReplyPlan::ReplyPlan(const Reply& reply, const Request& request)
    : interims(reply.interims_), lineEnd(reply.lineEnd_), pieceSize(reply.pieceSize_),
      bytesPerSecond(reply.bytesPerSecond_), sendBuffer(reply.sendBuffer_)
{
    if (reply.raw_) {
        planRaw(reply);
    } else {
        planHead(reply, request);
    }
    planSteps(reply);
}

// The head of a raw reply ends with the first empty line, so that At::body() works there as well.
void ReplyPlan::planRaw(const Reply& reply)
{
    const std::string& bytes = *reply.raw_;
    const std::size_t crlf = bytes.find("\r\n\r\n");
    const std::size_t lf = bytes.find("\n\n");
    std::size_t end = bytes.size();
    if (crlf < lf) {
        end = crlf + 4;
    } else if (lf != std::string::npos) {
        end = lf + 2;
    }
    head = bytes.substr(0, end);
    for (std::size_t i = 0; i < head.size(); ++i) {
        if (head[i] == '\n') {
            lineOffsets_.push_back(i + 1);
        }
    }
    body = std::make_shared<TextBody>(bytes.substr(end));
    size = body->size();
    keepOpen = reply.after_ == Reply::After::KeepOpen;
}

void ReplyPlan::planHead(const Reply& reply, const Request& request)
{
    const Selection selection = select(reply, request);
    std::string statusLine = reply.statusLine_;
    if (statusLine.empty()) {
        statusLine = "HTTP/1.1 " + std::to_string(selection.status) + " " + usualReason(selection.status);
    }
    const bool bodyAllowed = mayHaveBody(codeOf(statusLine));
    const bool sendBody = bodyAllowed && (request.method != "HEAD" || reply.bodyToHead_);
    body = reply.body_;
    first = selection.first;
    size = sendBody ? selection.size : 0;
    chunked = sendBody && reply.framing_ == Reply::Framing::Chunked;
    chunkSizes = reply.chunkSizes_;
    trailers = reply.trailers_;
    endlessHeaders = reply.endlessHeaders_;

    const bool closeAsked = wantsClose(request) || reply.after_ == Reply::After::Close;
    const std::string trueLength = std::to_string(selection.size);
    const bool lengthWrong =
        sendBody && !chunked && reply.contentLength_ && *reply.contentLength_ != trueLength;
    const bool closeEnds = sendBody && reply.framing_ == Reply::Framing::None && !reply.contentLength_;
    keepOpen = !closeAsked && !lengthWrong && !closeEnds && reply.after_ != Reply::After::CloseSilently;
    keepOpen = keepOpen || reply.after_ == Reply::After::KeepOpen;

    std::vector<std::string> lines = reply.headers_;
    const auto addMissing = [&lines](std::string_view name, const std::string& value) {
        if (!hasLine(lines, name)) {
            lines.push_back(std::string(name) + ": " + value);
        }
    };
    if (reply.contentFeaturesWhenAsked_ && request.header("getcontentFeatures.dlna.org") == "1") {
        lines.push_back(*reply.contentFeaturesWhenAsked_);
    }
    if (reply.automaticHeaders_) {
        for (const std::string& line : selection.lines) {
            addMissing(headerName(line), std::string(trimmed(line.substr(line.find(':') + 1))));
        }
        if (reply.framing_ == Reply::Framing::Chunked && bodyAllowed) {
            addMissing("Transfer-Encoding", "chunked");
        } else if (reply.framing_ == Reply::Framing::Length && bodyAllowed && !reply.contentLength_) {
            addMissing("Content-Length", trueLength);
        }
        if (!keepOpen && reply.after_ != Reply::After::CloseSilently) {
            addMissing("Connection", "close");
        }
    }
    if (reply.contentLength_) {
        lines.push_back("Content-Length: " + *reply.contentLength_);
    }

    head = statusLine + lineEnd;
    lineOffsets_.push_back(head.size());
    for (const std::string& line : lines) {
        head += line + lineEnd;
        lineOffsets_.push_back(head.size());
    }
    if (!endlessHeaders) {
        head += lineEnd;
    }
}

ReplyPlan::Selection ReplyPlan::select(const Reply& reply, const Request& request)
{
    Selection everything;
    everything.size = reply.body_->size();
    if (!reply.isResource_) {
        return everything;
    }
    if (reply.timeSeek_.bytesPerSecond > 0 && request.hasHeader("TimeSeekRange.dlna.org")) {
        const std::optional<std::uint64_t> start = parseNptStart(request.header("TimeSeekRange.dlna.org"));
        if (start) {
            return selectTime(reply, *start);
        }
    }
    if (!reply.ranges_.enabled) {
        return everything;
    }
    Selection selection = everything;
    if (request.hasHeader("Range")) {
        selection = selectRange(reply, request.header("Range"));
    }
    if (!reply.ranges_.acceptRanges.empty()) {
        selection.lines.insert(selection.lines.begin(), "Accept-Ranges: " + reply.ranges_.acceptRanges);
    }
    return selection;
}

ReplyPlan::Selection ReplyPlan::selectRange(const Reply& reply, std::string_view range)
{
    const RangeRules& rules = reply.ranges_;
    const std::uint64_t total = reply.body_->size();
    const std::string totalText = rules.sendTotal ? std::to_string(total) : "*";
    Selection selection;
    selection.size = total;
    const std::optional<ByteRange> asked = parseByteRange(range, total);
    if (!asked) {
        return selection;
    }
    const auto addContentRange = [&](const std::string& value) {
        if (rules.sendContentRange) {
            selection.lines.push_back("Content-Range: " + rules.contentRange.value_or(value));
        }
    };
    if (asked->first >= total) {
        selection.status = rules.unsatisfiable;
        if (selection.status != 200) {
            selection.size = 0;
            addContentRange("bytes */" + std::to_string(total));
        }
        return selection;
    }
    ByteRange given = *asked;
    if (rules.ignoreEnd) {
        given.last = total - 1;
    }
    if (rules.shift < 0) {
        given.first -= std::min(given.first, static_cast<std::uint64_t>(-rules.shift));
    } else {
        given.first = std::min(given.first + static_cast<std::uint64_t>(rules.shift), total - 1);
        given.last = std::max(given.first, given.last);
    }
    selection.status = 206;
    selection.first = given.first;
    selection.size = given.last - given.first + 1;
    addContentRange("bytes " + std::to_string(given.first) + "-" + std::to_string(given.last) + "/" +
                    totalText);
    return selection;
}

ReplyPlan::Selection ReplyPlan::selectTime(const Reply& reply, std::uint64_t milliseconds)
{
    const TimeSeekRules& rules = reply.timeSeek_;
    const std::uint64_t total = reply.body_->size();
    const std::uint64_t duration = total * 1000 / rules.bytesPerSecond;
    Selection selection;
    selection.status = rules.status;
    if (rules.status >= 400) {
        return selection;
    }
    const std::uint64_t start = milliseconds * rules.bytesPerSecond / 1000;
    if (start >= total) {
        selection.status = reply.ranges_.unsatisfiable;
        return selection;
    }
    selection.first = start;
    selection.size = total - start;
    const std::string end = nptText(duration == 0 ? 0 : duration - 1);
    std::string line =
        "TimeSeekRange.dlna.org: npt=" + nptText(milliseconds) + "-" + end + "/" + nptText(duration);
    if (rules.sendBytes) {
        line +=
            " bytes=" + std::to_string(start) + "-" + std::to_string(total - 1) + "/" + std::to_string(total);
    }
    selection.lines.push_back(line);
    return selection;
}

void ReplyPlan::planSteps(const Reply& reply)
{
    for (const Reply::Step& scripted : reply.steps_) {
        const Step step{scripted.action, scripted.gate};
        const std::uint64_t count = scripted.where.count;
        switch (scripted.where.kind) {
        case At::Kind::Bytes:
            steps.emplace(count, step);
            break;
        case At::Kind::HeaderLine:
            steps.emplace(offsetOfHeaderLine(count), step);
            break;
        case At::Kind::Body:
            if (count > 0) {
                bodySteps.emplace(count, step);
            } else if (!endlessHeaders) {
                steps.emplace(head.size(), step);
            }
            break;
        }
    }
}

std::uint64_t ReplyPlan::offsetOfHeaderLine(std::uint64_t lines) const
{
    if (lines < lineOffsets_.size()) {
        return lineOffsets_[static_cast<std::size_t>(lines)];
    }
    if (endlessHeaders) {
        return head.size() + (lines + 1 - lineOffsets_.size()) * fillerLine(1, lineEnd).size();
    }
    return UINT64_MAX;
}

std::string ReplyPlan::fillerLine(std::uint64_t number, const std::string& lineEnd)
{
    const std::string digits = std::to_string(number);
    const std::size_t zeros = fillerDigits - std::min(fillerDigits, digits.size());
    return "X-Filler-" + std::string(zeros, '0') + digits + ": " + std::string(64, 'x') + lineEnd;
}

} // namespace support
