// A scripted FTP server on a free port of 127.0.0.1 that takes uploads: it does what it is told at every point of
// the conversation, and tells what came. Passive mode only; with a certificate, implicit TLS on both channels.
#pragma once

#include "support/gate.h"
#include "support/tls.h"
#include "support/wait.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace support {

// What arrived over one data connection. Content is not kept, but its digest is.
struct FtpUpload
{
    std::string path;         // with the directory, from "/" on
    std::uint64_t bytes = 0;  // so far
    std::string sha256;       // hexadecimal; empty while bytes come
    bool atEnd = false;       // the client closed the connection in good order
    bool encrypted = false;   // it spoke TLS
    std::string textTransfer; // the last TYPE: "I" or "A"
};

class FtpServer
{
public:
    // Points of the conversation are the commands that arrive ("USER", "MKD", "QUIT" ...) and these.
    static constexpr const char* greeting = "greeting";        // before the first reply
    static constexpr const char* dataConnect = "data connect"; // before the data connection is accepted
    static constexpr const char* dataHandshake = "data TLS";   // before TLS on the data connection
    static constexpr const char* data = "data";                // after the first dataPoint() bytes
    static constexpr const char* finalReply = "final reply";   // all the data is there

    FtpServer();
    explicit FtpServer(Tls tls);
    ~FtpServer();
    FtpServer(const FtpServer&) = delete;
    FtpServer& operator=(const FtpServer&) = delete;

    // Scripts; all of them before the client comes.
    void account(std::string user, std::string password); // others get 530; without it everybody is let in
    void directory(std::string path);                     // exists from the start, as "/" does
    void answer(std::string point, std::string reply);    // this in place of its own, without the line end
    void stall(std::string point);                        // no more reply, no more reading
    void wait(std::string point, Gate gate);              // ... until the gate opens
    void close(std::string point);                        // ends the control and the data connection
    void reset(std::string point);                        // as close, with resets
    void dataPoint(std::uint64_t bytes);                  // where in the data the point `data` lies
    void plainDataOnly();                                 // refuses to encrypt the data connection

    std::uint16_t port() const;
    std::string host() const; // "127.0.0.1:PORT"

    // What came.
    std::vector<std::string> commands() const; // as they were sent, in order, passwords included
    bool hasCommand(const std::string& line) const;
    std::vector<FtpUpload> uploads() const;
    std::vector<std::string> directories() const; // made by the client
    std::vector<ConnectionInfo> connections() const;

    // Waits; false at the deadline.
    bool waitForPoint(const std::string& point, std::chrono::milliseconds deadline = defaultDeadline) const;
    bool waitForBytes(std::uint64_t count, std::chrono::milliseconds deadline = defaultDeadline) const;
    bool waitForOpenConnections(std::size_t count,
                                std::chrono::milliseconds deadline = defaultDeadline) const;

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

// SHA-256 in hexadecimal, to compare with FtpUpload::sha256.
class Digest
{
public:
    Digest();
    ~Digest();
    Digest(Digest&&) noexcept;
    Digest& operator=(Digest&&) noexcept;
    Digest(const Digest&) = delete;
    Digest& operator=(const Digest&) = delete;

    void add(const void* bytes, std::size_t count);
    std::string finish();

private:
    struct State;
    std::unique_ptr<State> state_;
};

std::string sha256Of(std::string_view bytes);

} // namespace support
