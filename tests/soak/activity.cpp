#include "activity.h"

#include <stdexcept>
#include <thread>

bool Beat::goOn()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_rest) {
        ++m_resting;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return !m_rest || m_end; });
        --m_resting;
    }
    return !m_end;
}

void Beat::leave()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    --m_activities;
    m_changed.notify_all();
}

bool Beat::rest(std::chrono::seconds patience)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_rest = true;
    return m_changed.wait_for(lock, patience, [this] { return m_resting == m_activities; });
}

void Beat::wakeUp()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_rest = false;
    m_changed.notify_all();
}

void Beat::end()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_end = true;
    m_changed.notify_all();
}

Activity::Activity(std::string name, const Site& site, Ledger& ledger, std::uint32_t seed)
    : m_site(site), m_name(std::move(name)), m_ledger(ledger),
      m_random(seed + std::hash<std::string>()(m_name)), m_buffer(kMost)
{
}

void Activity::run(Beat& beat)
{
    try {
        while (beat.goOn()) {
            if (m_rounds % kFaultEvery == kFaultEvery - 1 && !m_faults.empty()) {
                const auto& [kind, cause] = m_faults[m_nextFault];
                Fault caused(m_ledger, m_name + ": " + kind);
                cause(caused);
                m_nextFault = (m_nextFault + 1) % m_faults.size();
                m_hadEachFault = m_hadEachFault || m_nextFault == 0;
            } else {
                round();
            }
            ++m_rounds;
            std::this_thread::sleep_for(breath());
        }
    } catch (const std::exception& problem) {
        m_failure = m_name + ", round " + std::to_string(m_rounds) + ": " + problem.what();
        m_hasFailed = true;
    }
    beat.leave();
}

void Activity::fault(std::string kind, Fallible cause)
{
    m_faults.emplace_back(std::move(kind), std::move(cause));
}

std::uint64_t Activity::below(std::uint64_t count)
{
    return std::uniform_int_distribution<std::uint64_t>(0, count - 1)(m_random);
}

void Activity::demand(bool holds, const std::string& what)
{
    if (!holds) {
        throw std::runtime_error(what);
    }
}

void Activity::check(const support::Media& media, std::uint64_t position, const unsigned char* bytes,
                     int count)
{
    demand(count >= 0, "a read gives " + std::to_string(count));
    const auto size = static_cast<std::size_t>(count);
    demand(media.matches(position, bytes, size),
           "wrong bytes behind " + std::to_string(position) + ", from " +
               std::to_string(media.firstDifference(position, bytes, size)) + " of " + std::to_string(size));
    m_bytes += size;
}

Activities allActivities(const Site& site, Ledger& ledger, std::uint32_t seed, bool multicast)
{
    Activities all;
    addHttpActivities(all, site, ledger, seed);
    addRadioActivities(all, site, ledger, seed);
    addLocalActivities(all, site, ledger, seed);
    addNetworkActivities(all, site, ledger, seed, multicast);
    return all;
}
