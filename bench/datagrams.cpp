#include "datagrams.h"

#include <cstring>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace bench {

namespace {

// Ends with the sender's end, or ends it.
class Sender
{
public:
    explicit Sender(const Options& options)
    {
        std::vector<std::string> words = {options.sender, std::to_string(portOf(options.url)),
                                          std::to_string(options.packets),
                                          std::to_string(options.packetRate)};
        std::vector<char*> arguments;
        arguments.reserve(words.size() + 1);
        for (std::string& word : words) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        if (posix_spawn(&m_process, words.front().c_str(), nullptr, nullptr, arguments.data(), environ) !=
            0) {
            throw std::runtime_error("the sender does not start: " + options.sender);
        }
    }
    ~Sender()
    {
        int status = 0;
        waitpid(m_process, &status, 0);
    }
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;

private:
    pid_t m_process = -1;
};

} // namespace

std::uint16_t portOf(const std::string& url)
{
    return static_cast<std::uint16_t>(std::stoi(url.substr(url.rfind(':') + 1)));
}

void receiveDatagrams(const Options& options, Report& report, const Receive& receive)
{
    constexpr int kMostSilence = 20;
    std::vector<unsigned char> block(65507);
    const Sender sender(options);
    double received = 0;
    for (int silence = 0; silence < kMostSilence;) {
        const std::size_t size = receive(block.data(), block.size());
        if (size == 0) {
            ++silence;
            continue;
        }
        if (received == 0) {
            report.restart();
        }
        silence = 0;
        std::uint32_t number = 0;
        std::memcpy(&number, block.data(), sizeof number);
        if (number == kLastDatagram) {
            break;
        }
        ++received;
        report.addBytes(size);
    }
    report.stop();
    report.set("packets", received);
    report.set("dropped", options.packets - received);
}

} // namespace bench
