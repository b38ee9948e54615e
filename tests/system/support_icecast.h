// An internet-radio station of its own for a test: Icecast on a free port of 127.0.0.1, with a source that plays in
// real time and without end.
#pragma once

#include "support/temp_dir.h"
#include "support_process.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace support {

class Icecast
{
public:
    enum class Program
    {
        kMp3, // a tone, 320 kbit/s
        kOgg, // noise in Vorbis, about as much
        kNone // files alone
    };
    explicit Icecast(Program program = Program::kMp3);
    ~Icecast();

    std::string url(const std::string& path) const;
    std::string station() const { return url(m_mount); } // on air when the constructor returns
    std::uint16_t port() const { return m_port; }

    // Puts a file where the server finds it.
    void addFile(const std::string& name, const std::string& content) const;

    // Announces the song of a mount, as whoever runs the station does. query: "song=..." and what else the
    // interface takes, percent-encoded. False when the station refuses.
    bool announce(const std::string& mount, const std::string& query) const;

    // A mount that sends its titles in UTF-8; all others send ISO 8859-1. Nobody plays there yet.
    static constexpr const char* utf8Mount = "/utf8.mp3";
    // What a source shows to play: user and password for "Authorization: Basic".
    static constexpr const char* sourceCredentials = "c291cmNlOnRvbmU=";

private:
    bool start();
    std::string configuration() const;
    std::vector<std::string> sourceOf(Program program) const;
    bool isOnAir() const;

    TempDir m_folder{"icecast"};
    std::string m_mount;
    std::uint16_t m_port = 0;
    std::unique_ptr<Process> m_server;
    std::unique_ptr<Process> m_source;
};

} // namespace support
