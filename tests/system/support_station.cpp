#include "support_station.h"

#include <array>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <unistd.h>

namespace support {

namespace {

struct InterfaceDrops
{
    std::uint64_t received = 0;
    std::uint64_t sent = 0;
};

// Of the network in which the thread is.
InterfaceDrops interfaceDrops(const std::string& name)
{
    std::ifstream table("/proc/thread-self/net/dev");
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string interface;
        std::array<std::uint64_t, 12> numbers{};
        fields >> interface;
        for (std::uint64_t& number : numbers) {
            fields >> number;
        }
        if (fields && interface == name + ":") {
            return {numbers[3], numbers[11]};
        }
    }
    throw std::runtime_error("no interface " + name);
}

// A field of the UDP line in /proc/net/snmp: one line of names, one of numbers.
std::uint64_t udpCounter(const std::string& wanted)
{
    std::ifstream table("/proc/thread-self/net/snmp");
    std::string names;
    for (std::string line; std::getline(table, line);) {
        if (line.compare(0, 5, "Udp: ") != 0) {
            continue;
        }
        if (names.empty()) {
            names = line;
            continue;
        }
        std::istringstream nameFields(names);
        std::istringstream numberFields(line);
        std::string name;
        std::string number;
        while (nameFields >> name && numberFields >> number) {
            if (name == wanted) {
                return std::stoull(number);
            }
        }
    }
    throw std::runtime_error("no counter " + wanted);
}

} // namespace

TwoNetworks::TwoNetworks() = default;

void TwoNetworks::connect(const std::string& name, int number) const
{
    const std::string network = "10." + std::to_string(number) + ".0.";
    m_here.ip("link add " + name + " type veth peer name " + name + " netns " + m_there.name());
    m_here.ip("address add " + network + "1/24 dev " + name);
    m_there.ip("address add " + network + "2/24 dev " + name);
    m_here.ip("link set " + name + " up");
    m_there.ip("link set " + name + " up");
}

void TwoNetworks::routeMulticast(const std::string& name) const
{
    m_here.ip("route replace 224.0.0.0/4 dev " + name);
    m_there.ip("route replace 224.0.0.0/4 dev " + name);
}

std::uint64_t TwoNetworks::droppedBetween(const std::string& name) const
{
    const std::uint64_t here = interfaceDrops(name).received;
    const NetworkNamespace::Visit visit(m_there);
    return here + interfaceDrops(name).sent;
}

std::uint64_t TwoNetworks::sentThere() const
{
    const NetworkNamespace::Visit visit(m_there);
    return udpCounter("OutDatagrams");
}

std::uint64_t droppedAt(int fd)
{
    std::array<char, 64> target{};
    if (readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target.data(), target.size() - 1) < 0) {
        throw std::runtime_error("no descriptor " + std::to_string(fd));
    }
    std::ifstream table("/proc/thread-self/net/udp");
    for (std::string line; std::getline(table, line);) {
        // sl, addresses, state, queues, timers, retransmits, user, time-out, inode, users, pointer, drops
        constexpr std::size_t kInode = 9;
        constexpr std::size_t kDrops = 12;
        std::istringstream fields(line);
        std::array<std::string, kDrops + 1> words;
        for (std::string& word : words) {
            fields >> word;
        }
        if ("socket:[" + words[kInode] + "]" == target.data()) {
            return std::stoull(words[kDrops]);
        }
    }
    throw std::runtime_error("no UDP socket " + std::to_string(fd));
}

Station::Station() : m_film(m_folder.file("film.ts"))
{
    const std::string rate = std::to_string(kBitsPerSecond / 10 * 9);
    const Result made = runToEnd({"ffmpeg",   "-nostdin",   "-v",       "error",
                                  "-f",       "lavfi",      "-i",       "testsrc2=size=1280x720:rate=25",
                                  "-t",       "2",          "-vf",      "noise=alls=40:allf=t",
                                  "-c:v",     "mpeg2video", "-b:v",     rate,
                                  "-minrate", rate,         "-maxrate", rate,
                                  "-bufsize", "2000000",    m_film});
    if (made.status != 0) {
        throw std::runtime_error("ffmpeg makes no film: " + made.err);
    }
}

void Station::start(const TwoNetworks& networks, const std::string& group, std::uint16_t port, int seconds)
{
    ProcessOptions options;
    options.standardError = m_folder.file("log");
    // Paced by the bit (with the headers a little more than the MPEG-TS), as a broadcaster's multiplexer does:
    // FFmpeg's own beat is the frame, with a burst at the start that no receiver's buffer takes.
    const NetworkNamespace::Visit visit(networks.there());
    m_process = std::make_unique<Process>(
        std::vector<std::string>{
            "ffmpeg",
            "-nostdin",
            "-v",
            "error",
            "-re",
            "-stream_loop",
            "-1",
            "-i",
            m_film,
            "-t",
            std::to_string(seconds),
            "-c",
            "copy",
            "-f",
            "rtp_mpegts",
            "-mpegts_muxer_options",
            "muxrate=" + std::to_string(kBitsPerSecond),
            "-rtp_muxer_options",
            "seq=0:rtpflags=skip_rtcp",
            "udp://" + group + ":" + std::to_string(port) + "?pkt_size=" + std::to_string(kDatagramBytes) +
                "&bitrate=" + std::to_string(kBitsPerSecond / 1000 * 1015) + "&burst_bits=40000"},
        options);
}

std::string Station::end(std::chrono::milliseconds deadline)
{
    const std::optional<int> status = m_process->wait(deadline);
    if (status == 0) {
        return {};
    }
    return "status " + std::to_string(status.value_or(-1)) + ": " + readFile(m_folder.file("log"));
}

} // namespace support
