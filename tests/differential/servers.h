// The servers that the differential test reads from, honest and odd ones.
#pragma once

#include "support/media.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

// What a kind of server promises, and with it what the test may demand.
struct Kind
{
    const char* name;
    bool seekableAtFirst;
    bool ignoresRanges; // and so stops being seekable with the first restart
    bool lengthAtOnce;  // otherwise it is known after the first restart only
    bool drops;         // ends connections early, now and then
};

const std::vector<Kind>& allKinds();

// A server with one resource of known bytes.
class TestedServer
{
public:
    static constexpr std::uint64_t kSize = 1'500'000; // more than all buffers of a stream together
    static bool isThere(const Kind& kind);

    // Throws when it cannot be started.
    static std::unique_ptr<TestedServer> make(const Kind& kind, std::uint32_t seed);

    TestedServer() = default;
    virtual ~TestedServer() = default;
    TestedServer(const TestedServer&) = delete;
    TestedServer& operator=(const TestedServer&) = delete;

    virtual std::string url() const = 0;
    // How many connections were made; none where the server does not tell.
    virtual std::optional<std::size_t> connections() const = 0;

    static const support::Media& media();
};
