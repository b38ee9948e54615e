// Where the bytes of a body come from.
#pragma once

#include "support/media.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

namespace support {

class BodySource
{
public:
    // The size of a body without end.
    static constexpr std::uint64_t unlimited = UINT64_MAX;

    virtual ~BodySource() = default;
    virtual std::uint64_t size() const = 0;
    // Writes the `n` bytes from `pos` on; all of them lie inside the body.
    virtual void read(std::uint64_t pos, char* buffer, std::size_t n) const = 0;
};

class TextBody : public BodySource
{
public:
    explicit TextBody(std::string text) : text_(std::move(text)) {}
    std::uint64_t size() const override { return text_.size(); }
    void read(std::uint64_t pos, char* buffer, std::size_t n) const override
    {
        text_.copy(buffer, n, static_cast<std::size_t>(pos));
    }

private:
    std::string text_;
};

class MediaBody : public BodySource
{
public:
    MediaBody(Media media, std::uint64_t size) : media_(media), size_(size) {}
    std::uint64_t size() const override { return size_; }
    void read(std::uint64_t pos, char* buffer, std::size_t n) const override { media_.fill(pos, buffer, n); }

private:
    Media media_;
    std::uint64_t size_;
};

} // namespace support
