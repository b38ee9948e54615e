/*
 * The text of a block between the audio of an ICY stream. Pure functions: any thread.
 */
#ifndef MDC_HLP_ICY_BLOCK_H
#define MDC_HLP_ICY_BLOCK_H

#include <optional>
#include <string>
#include <string_view>

namespace md {

/* What a block says of title and URL; a value that it does not mention is not set. */
struct IcyFields
{
    std::optional<std::string> title; // as icyText gives it
    std::optional<std::string> url;
};

/*
 * Reads a block without its length byte; it ends at its first NUL byte. Takes time in proportion to its length,
 * whatever it holds. See md::IcyReader::title for what counts as a value. Throws std::bad_alloc only.
 */
IcyFields parseIcyBlock(std::string_view block);

/* A value as UTF-8 and without control characters, see md::IcyReader::title. Throws std::bad_alloc only. */
std::string icyText(std::string_view value);

} // namespace md

#endif
