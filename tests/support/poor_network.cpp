#include "support/poor_network.h"

#include <stdexcept>

namespace support {

namespace {

// The number that stands behind a word.
std::uint64_t numberBehind(const std::string& text, const std::string& word)
{
    const std::size_t at = text.find(word);
    if (at == std::string::npos) {
        throw std::runtime_error("no '" + word + "' in: " + text);
    }
    return std::stoull(text.substr(at + word.size()));
}

} // namespace

PoorNetwork::PoorNetwork() : m_problem(m_network.problem())
{
    if (!m_problem.empty()) {
        return;
    }
    try {
        // One packet is one segment: the rules below see what a wire would.
        m_network.ip("link set lo mtu 1500 gso_max_segs 1");
        m_network.run("nft add table inet poor");
        m_network.run("nft add counter inet poor lost");
        // Where packets come in: a sender does not notice what is lost there.
        m_network.run("nft 'add chain inet poor in { type filter hook input priority 0; }'");
        lose(1);
        lose(0);
        limit(1'000'000);
        noLimit();
    } catch (const std::runtime_error& problem) {
        m_problem = std::string("the network cannot be made poor: ") + problem.what();
    }
}

void PoorNetwork::limit(std::uint64_t bytesPerSecond, std::uint64_t waiting) const
{
    m_network.run("tc qdisc replace dev lo root tbf rate " + std::to_string(bytesPerSecond) +
                  "bps burst 4kb limit " + std::to_string(waiting));
}

void PoorNetwork::noLimit() const
{
    m_network.run("tc qdisc del dev lo root");
}

void PoorNetwork::lose(int percent) const
{
    m_network.run("nft flush chain inet poor in");
    if (percent > 0) {
        const std::string some = "numgen random mod 100 '<' " + std::to_string(percent);
        m_network.run("nft add rule inet poor in " + (percent < 100 ? some : "") + " counter name lost drop");
    }
}

std::uint64_t PoorNetwork::lost() const
{
    return numberBehind(m_network.run("nft list counter inet poor lost"), "packets ");
}

std::uint64_t PoorNetwork::thrownAway() const
{
    return numberBehind(m_network.run("tc -s qdisc show dev lo"), "(dropped ");
}

} // namespace support
