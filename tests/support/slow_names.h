/*
 * A name whose look-up lasts as long as a test wants: "slow.test", as with a dead name server.
 *
 * Takes the place of the C library's getaddrinfo: include it in one file of a program.
 */
#ifndef SUPPORT_SLOW_NAMES_H
#define SUPPORT_SLOW_NAMES_H

#include "support/wait.h"

#include <condition_variable>
#include <dlfcn.h>
#include <mutex>
#include <netdb.h>
#include <string>

namespace support {

class SlowNames
{
public:
    static SlowNames& instance()
    {
        static auto* names = new SlowNames; // the resolver's thread may outlive the test
        return *names;
    }
    void hold(bool on)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_held = on;
        m_changed.notify_all();
    }
    void lookUp()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        ++m_lookUps;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return !m_held; });
        --m_lookUps;
        m_changed.notify_all();
    }
    /* Whether a look-up is under way. */
    bool waitForLookUps(bool any)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, defaultDeadline, [this, any] { return (m_lookUps > 0) == any; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_held = false;
    int m_lookUps = 0;
};

} // namespace support

// In place of the C library's, which it calls.
extern "C" int getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** result)
{
    if (name != nullptr && std::string(name) == "slow.test") {
        support::SlowNames::instance().lookUp();
        return EAI_NONAME;
    }
    using Function = int(const char*, const char*, const addrinfo*, addrinfo**);
    static auto* real = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "getaddrinfo"));
    return real(name, service, hints, result);
}

#endif
