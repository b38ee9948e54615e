// Why a transfer failed, more closely than the library's error code tells: its trace lines say it.
#pragma once

#include <mutex>
#include <string>
#include <string_view>

namespace mdch {

struct Cause
{
    int code = 0;            // the library's error code that it stands behind; 0: nothing was told
    int result = 0;          // libcurl's
    std::string certificate; // what is wrong with the server's certificate, if that was told
};

// Listens while it lives; one at a time. Any thread.
class CauseListener
{
public:
    CauseListener();
    ~CauseListener();
    CauseListener(const CauseListener&) = delete;
    CauseListener& operator=(const CauseListener&) = delete;

    // The latest.
    Cause cause() const;

private:
    void listen(std::string_view line);

    mutable std::mutex m_mutex; // guards the cause
    Cause m_cause;
};

} // namespace mdch
