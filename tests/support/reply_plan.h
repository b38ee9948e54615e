// A reply made concrete for one request: the very bytes of its head, the part of the body that goes out, and
// what happens at which byte.
#pragma once

#include "support/body_source.h"
#include "support/reply.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace support {

class ReplyPlan
{
public:
    using Action = Reply::Action;
    struct Step
    {
        Action action;
        std::optional<Gate> gate;
    };

    ReplyPlan(const Reply& reply, const Request& request);

    // Of the filler header lines, which all have the same length.
    static std::string fillerLine(std::uint64_t number, const std::string& lineEnd);

    std::vector<std::string> interims;
    std::string head; // without the empty line when header lines follow without end
    bool endlessHeaders = false;
    std::string lineEnd;

    std::shared_ptr<const BodySource> body;
    std::uint64_t first = 0; // position of the first body byte
    std::uint64_t size = 0;  // body bytes to send
    bool chunked = false;
    std::vector<std::uint64_t> chunkSizes;
    std::vector<std::string> trailers;

    std::multimap<std::uint64_t, Step> steps;     // by offset in the whole reply, then in the script's order
    std::multimap<std::uint64_t, Step> bodySteps; // by offset in the body, above 0
    std::uint64_t pieceSize = 0;
    std::uint64_t bytesPerSecond = 0;
    int sendBuffer = 0;
    bool keepOpen = true;

private:
    struct Selection; // what part of the body under which status

    void planRaw(const Reply& reply);
    void planHead(const Reply& reply, const Request& request);
    void planSteps(const Reply& reply);
    static Selection select(const Reply& reply, const Request& request);
    static Selection selectRange(const Reply& reply, std::string_view range);
    static Selection selectTime(const Reply& reply, std::uint64_t milliseconds);
    std::uint64_t offsetOfHeaderLine(std::uint64_t lines) const;

    std::vector<std::uint64_t> lineOffsets_; // behind the status line and each header line
};

} // namespace support
