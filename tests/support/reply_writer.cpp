#include "support/reply_writer.h"

#include <algorithm>
#include <array>
#include <sstream>

namespace support {

namespace {

constexpr std::size_t bufferSize = 65536;

std::string hexadecimal(std::uint64_t value)
{
    std::ostringstream stream;
    stream << std::hex << value;
    return stream.str();
}

} // namespace

ReplyWriter::ReplyWriter(Transport& transport, const ReplyPlan& plan, Progress progress)
    : transport_(transport), plan_(plan), progress_(std::move(progress)), nextStep_(plan.steps.begin()),
      nextBodyStep_(plan.bodySteps.begin()), paceStart_(Transport::Clock::now())
{
}

ReplyWriter::Result ReplyWriter::send()
{
    if (plan_.sendBuffer > 0) {
        transport_.setSendBuffer(plan_.sendBuffer);
    }
    for (const std::string& interim : plan_.interims) {
        if (!transport_.write(interim)) {
            return Result::Broken;
        }
    }
    const bool sent =
        runSteps() && emit(plan_.head) && (plan_.endlessHeaders ? sendEndlessHeaders() : sendBody());
    if (ended_) {
        return Result::Ended;
    }
    return sent ? Result::Sent : Result::Broken;
}

bool ReplyWriter::sendEndlessHeaders()
{
    for (std::uint64_t number = 1; emit(ReplyPlan::fillerLine(number, plan_.lineEnd)); ++number) {
    }
    return false;
}

bool ReplyWriter::sendBody()
{
    if (!plan_.chunked) {
        return sendBodyPart(plan_.first, plan_.size);
    }
    std::size_t index = 0;
    for (std::uint64_t done = 0; done < plan_.size;) {
        const std::uint64_t wanted = plan_.chunkSizes[std::min(index++, plan_.chunkSizes.size() - 1)];
        const std::uint64_t chunk = std::min(wanted, plan_.size - done);
        if (chunk == 0) { // a chunk of size 0 would end the body
            continue;
        }
        if (!emit(hexadecimal(chunk) + "\r\n") || !sendBodyPart(plan_.first + done, chunk) || !emit("\r\n")) {
            return false;
        }
        done += chunk;
    }
    std::string end = "0\r\n";
    for (const std::string& line : plan_.trailers) {
        end += line + "\r\n";
    }
    return emit(end + "\r\n");
}

bool ReplyWriter::sendBodyPart(std::uint64_t from, std::uint64_t count)
{
    std::string buffer;
    while (count > 0) {
        buffer.resize(static_cast<std::size_t>(std::min<std::uint64_t>(count, bufferSize)));
        plan_.body->read(from, buffer.data(), buffer.size());
        if (!emit(buffer.data(), buffer.size(), true)) {
            return false;
        }
        from += buffer.size();
        count -= buffer.size();
    }
    return true;
}

bool ReplyWriter::emit(const char* data, std::size_t size, bool isBody)
{
    while (size > 0) {
        const std::size_t piece = nextPiece(size, isBody);
        if (!keepPace(piece) || !transport_.write(data, piece)) {
            return false;
        }
        data += piece;
        size -= piece;
        total_ += piece;
        if (isBody) {
            bodyBytes_ += piece;
            progress_(piece);
        }
        if (!runSteps()) {
            return false;
        }
    }
    return true;
}

// A piece ends at the latest where the next thing happens.
std::size_t ReplyWriter::nextPiece(std::size_t size, bool isBody) const
{
    std::uint64_t piece = size;
    if (nextStep_ != plan_.steps.end()) {
        piece = std::min(piece, nextStep_->first - total_);
    }
    if (isBody && nextBodyStep_ != plan_.bodySteps.end()) {
        piece = std::min(piece, nextBodyStep_->first - bodyBytes_);
    }
    if (plan_.pieceSize > 0) {
        piece = std::min(piece, plan_.pieceSize);
    }
    if (plan_.bytesPerSecond > 0) { // twenty times a second is smooth enough
        piece = std::min(piece, std::max<std::uint64_t>(plan_.bytesPerSecond / 20, 1));
    }
    return static_cast<std::size_t>(piece);
}

bool ReplyWriter::keepPace(std::size_t upcoming)
{
    if (plan_.bytesPerSecond == 0) {
        return true;
    }
    const double seconds = static_cast<double>(paceBytes_) / static_cast<double>(plan_.bytesPerSecond);
    paceBytes_ += upcoming;
    const auto due = paceStart_ + std::chrono::duration_cast<Transport::Clock::duration>(
                                      std::chrono::duration<double>(seconds));
    return due <= Transport::Clock::now() || pauseUntil(-1, due);
}

bool ReplyWriter::runSteps()
{
    return runSteps(nextStep_, plan_.steps.end(), total_) &&
           runSteps(nextBodyStep_, plan_.bodySteps.end(), bodyBytes_);
}

bool ReplyWriter::runSteps(Steps::const_iterator& next, Steps::const_iterator end, std::uint64_t reached)
{
    while (next != end && next->first <= reached) {
        if (!run((next++)->second)) {
            return false;
        }
    }
    return true;
}

bool ReplyWriter::run(const ReplyPlan::Step& step)
{
    switch (step.action) {
    case ReplyPlan::Action::Wait: {
        step.gate->arrive();
        const bool opened = pauseUntil(step.gate->fd(), std::nullopt);
        // What was missed at the gate is not made up for afterwards.
        paceStart_ = Transport::Clock::now();
        paceBytes_ = 0;
        return opened;
    }
    case ReplyPlan::Action::Stall:
        pauseUntil(-1, std::nullopt);
        return false;
    case ReplyPlan::Action::Close:
        transport_.close();
        ended_ = true;
        return false;
    case ReplyPlan::Action::Cut:
        transport_.close(Transport::Farewell::None);
        ended_ = true;
        return false;
    case ReplyPlan::Action::Reset:
        transport_.reset();
        ended_ = true;
        return false;
    }
    return false;
}

bool ReplyWriter::pauseUntil(int signal, std::optional<Transport::Clock::time_point> until)
{
    const Transport::Pause result = transport_.pause(signal, until);
    return result == Transport::Pause::Signalled || result == Transport::Pause::TimedOut;
}

} // namespace support
