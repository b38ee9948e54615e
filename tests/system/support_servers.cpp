#include "support_servers.h"

#include "support/sockets.h"

#include <algorithm>

namespace support {

std::string unpackedFile(const std::string& path)
{
    return SERVER_FOLDER + path;
}

std::string LocalServer::url(const std::string& path, std::size_t port) const
{
    return "http://" + address() + ":" + std::to_string(m_ports.at(port)) + path;
}

void LocalServer::start(std::size_t portCount, const ProcessOptions& options)
{
    // Another program may take a port between its choice and the start: then others are tried.
    constexpr int kAttempts = 10;
    constexpr std::chrono::seconds kStartDeadline{60};
    ProcessOptions own = options;
    own.standardOutput = m_folder.file("output.log");
    own.standardError = m_folder.file("error.log");
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        m_ports.clear();
        {
            // All held until the last is chosen, so that they differ.
            const std::vector<LoopbackPort> held(portCount);
            for (const LoopbackPort& port : held) {
                m_ports.push_back(port.port());
            }
        }
        const std::vector<std::string> words = command();
        if (options.withoutPrivileges) {
            giveAway(m_folder.path());
        }
        m_process = std::make_unique<Process>(words, own);
        waitUntil([this] { return !m_process->isRunning() || isReady(); }, kStartDeadline);
        if (m_process->isRunning()) {
            if (isReady()) {
                return;
            }
            break; // it was not the port
        }
    }
    throw std::runtime_error(m_name + " does not start: " + complaint());
}

bool LocalServer::isReady()
{
    return std::all_of(m_ports.begin(), m_ports.end(),
                       [this](std::uint16_t port) { return m_process->listens(port); });
}

std::string LocalServer::complaint() const
{
    return readFile(m_folder.file("output.log")) + readFile(m_folder.file("error.log"));
}

} // namespace support
