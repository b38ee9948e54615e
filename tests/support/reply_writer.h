// Sends a planned reply: byte by byte at the pace it was scripted for, with whatever happens on the way.
#pragma once

#include "support/reply_plan.h"
#include "support/transport.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

namespace support {

class ReplyWriter
{
public:
    enum class Result
    {
        Sent,  // to its end
        Ended, // where its script ended it; the connection is closed
        Broken // the peer left, or the server ends
    };
    using Progress = std::function<void(std::uint64_t bodyBytes)>;

    // `progress` hears of every body byte that was sent.
    ReplyWriter(Transport& transport, const ReplyPlan& plan, Progress progress);

    Result send();

private:
    using Steps = std::multimap<std::uint64_t, ReplyPlan::Step>;

    bool sendEndlessHeaders();
    bool sendBody();
    bool sendBodyPart(std::uint64_t from, std::uint64_t count);
    bool emit(const char* data, std::size_t size, bool isBody);
    bool emit(const std::string& bytes) { return emit(bytes.data(), bytes.size(), false); }
    std::size_t nextPiece(std::size_t size, bool isBody) const;
    bool keepPace(std::size_t upcoming);
    bool runSteps();
    bool runSteps(Steps::const_iterator& next, Steps::const_iterator end, std::uint64_t reached);
    bool run(const ReplyPlan::Step& step);
    bool pauseUntil(int signal, std::optional<Transport::Clock::time_point> until);

    Transport& transport_;
    const ReplyPlan& plan_;
    Progress progress_;
    std::uint64_t total_ = 0;
    std::uint64_t bodyBytes_ = 0;
    Steps::const_iterator nextStep_;
    Steps::const_iterator nextBodyStep_;
    bool ended_ = false;
    Transport::Clock::time_point paceStart_;
    std::uint64_t paceBytes_ = 0;
};

} // namespace support
