// A whole response as it stands on the wire, and what a client must have of it after any number of its bytes.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace support {

enum class Framing
{
    Length,
    Chunked,
    ToTheEnd // of the connection
};

class Wire
{
public:
    // `chunks`: sizes of the chunks in turn, the last one for all further ones. `before`: what comes ahead of the
    // response's own status line, an interim response for one.
    static Wire make(Framing framing, std::string body, const std::string& headerLines = "",
                     std::vector<std::size_t> chunks = {16}, std::string before = "")
    {
        Wire wire;
        wire.framing_ = framing;
        wire.text_ = std::move(before);
        wire.status_ = wire.text_.size();
        wire.text_ += "HTTP/1.1 200 OK\r\n" + headerLines;
        if (framing == Framing::Length) {
            wire.text_ += "Content-Length: " + std::to_string(body.size()) + "\r\n";
        } else if (framing == Framing::Chunked) {
            wire.text_ += "Transfer-Encoding: chunked\r\n";
        }
        wire.text_ += "\r\n";
        wire.head_ = wire.text_.size();
        wire.body_ = std::move(body);
        wire.addBody(chunks);
        return wire;
    }

    const std::string& text() const { return text_; }
    std::size_t size() const { return text_.size(); }
    Framing framing() const { return framing_; }
    const std::string& body() const { return body_; }
    std::size_t headSize() const { return head_; }
    std::size_t statusStart() const { return status_; } // of the response's own status line
    // Not one line has come whole of the response that these bytes end in.
    bool isInStatusLine(std::size_t sent) const
    {
        const std::size_t start = sent < status_ ? 0 : status_;
        return sent <= text_.find('\n', start);
    }
    bool hasHead(std::size_t sent) const { return sent >= head_; }

    // Bytes of the body among the first `sent` of the response.
    std::size_t bodyIn(std::size_t sent) const
    {
        std::size_t count = 0;
        for (const Piece& piece : pieces_) {
            count += sent > piece.at ? std::min(sent - piece.at, piece.size) : 0;
        }
        return count;
    }
    // The other way round: how much of the response holds `count` bytes of the body, and nothing behind them.
    std::size_t upToBody(std::size_t count) const
    {
        for (const Piece& piece : pieces_) {
            if (count <= piece.size) {
                return piece.at + count;
            }
            count -= piece.size;
        }
        return text_.size();
    }
    // Whether a client knows behind that many bytes that it has everything.
    bool tellsItsEnd(std::size_t sent) const { return framing_ != Framing::ToTheEnd && sent >= text_.size(); }

private:
    struct Piece
    {
        std::size_t at;
        std::size_t size;
    };

    void add(std::size_t from, std::size_t size)
    {
        pieces_.push_back({text_.size(), size});
        text_ += body_.substr(from, size);
    }

    void addBody(const std::vector<std::size_t>& chunks)
    {
        if (framing_ != Framing::Chunked) {
            add(0, body_.size());
            return;
        }
        for (std::size_t done = 0, index = 0; done < body_.size(); ++index) {
            const std::size_t size =
                std::min(chunks[std::min(index, chunks.size() - 1)], body_.size() - done);
            std::ostringstream line;
            line << std::hex << size << "\r\n";
            text_ += line.str();
            add(done, size);
            text_ += "\r\n";
            done += size;
        }
        text_ += "0\r\n\r\n";
    }

    std::string text_;
    std::string body_;
    std::vector<Piece> pieces_;
    Framing framing_ = Framing::Length;
    std::size_t status_ = 0;
    std::size_t head_ = 0;
};

} // namespace support
