// What servers that a test starts have in common: free ports of 127.0.0.1, a folder for all their files, one process.
#pragma once

#include "support/temp_dir.h"
#include "support_process.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace support {

// A server that cannot run on this machine, and why: for GTEST_SKIP.
class Unavailable : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

// A file of a package that ./test unpacked; path begins with a slash.
std::string unpackedFile(const std::string& path);

class LocalServer
{
public:
    virtual ~LocalServer() = default;
    LocalServer(const LocalServer&) = delete;
    LocalServer& operator=(const LocalServer&) = delete;

    std::uint16_t port(std::size_t number = 0) const { return m_ports.at(number); }

    // What it is called by in a URL.
    virtual std::string address() const { return "127.0.0.1"; }
    std::string url(const std::string& path, std::size_t port = 0) const;

protected:
    // The name is that of its folder, and of its complaints.
    explicit LocalServer(const std::string& name) : m_name(name), m_folder(name) {}

    // Tries other ports until the server is ready; throws when it does not come up.
    void start(std::size_t portCount, const ProcessOptions& options = {});

    // Its command line, for these ports; writes its configuration.
    virtual std::vector<std::string> command() = 0;

    // Whether it serves by now: it listens on all ports, unless told otherwise.
    virtual bool isReady();

    // What it says when it does not come up.
    virtual std::string complaint() const;

    const TempDir& folder() const { return m_folder; }

private:
    std::string m_name;
    TempDir m_folder;
    std::vector<std::uint16_t> m_ports;
    std::unique_ptr<Process> m_process;
};

} // namespace support
