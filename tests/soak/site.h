// What the activities connect to. The servers are a process of their own, so that only the library, and not what serves
// it, counts.
#pragma once

#include "support/sockets.h"

#include <cstdint>
#include <string>

#include <sys/types.h>

class Site
{
public:
    // Starts the servers. The process has one thread only.
    Site();
    ~Site();
    Site(const Site&) = delete;
    Site& operator=(const Site&) = delete;

    std::string http;    // "http://127.0.0.1:PORT"
    std::string https;   // signed by whom caFolder has
    std::string refused; // as http, where nobody listens
    std::string caFolder;
    std::string otherFolder; // does not have the signer
    std::string ftp;         // "127.0.0.1:PORT" of a server that takes uploads,
    std::string ftpRefusing; // one that has no room,
    std::string ftpBreaking; // and one that ends the connection after 1000 bytes

    // Resources of http and https, sizes and places in bytes:
    //   /film/SIZE       known bytes, seekable
    //   /slow/SIZE       the same at 200,000 bytes a second
    //   /cut/SIZE/AT     ends in order there
    //   /reset/SIZE/AT   ends with a reset there
    //   /stall/SIZE/AT   stops there
    //   /shifted/SIZE    ranges are answered from 5 bytes further on
    //   /status/CODE     that status
    //   /hangup          the connection ends without an answer
    //   /silent          no answer
    //   /radio           titles every kInterval bytes of sound, "Title 0" and so on, kTitles of them
    //   /list.m3u, /station.m3u, /station.asx
    //   /uploaded/NAME   "BYTES SHA256" of an upload to ftp
    static constexpr int kInterval = 8192;
    static constexpr int kTitles = 24;
    static std::uint64_t seedOf(std::uint64_t size) { return size + 7; }
    static constexpr std::uint64_t kSoundSeed = 3;

private:
    void serve(const support::UniqueFd& in, support::UniqueFd out);
    void take(const std::string& text);

    support::UniqueFd m_end; // closing it ends the servers
    pid_t m_process = -1;
};
