// What a scripted FTP server was told, and what it has seen: shared by its conversations.
#pragma once

#include "support/ftp_server.h"

#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <string>

namespace support {

class FtpScript
{
public:
    enum class Action
    {
        GoOn,
        Wait, // at the step's gate
        Close,
        Reset
    };
    struct Step
    {
        Action action = Action::GoOn;
        Gate gate; // never opened: a stall
        std::optional<std::string> reply;
    };

    template <typename Change>
    void change(const Change& change)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        change(*this);
        changed_.notify_all();
    }

    template <typename Look>
    auto look(const Look& look) const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return look(*this);
    }

    template <typename Predicate>
    bool waitFor(const Predicate& predicate, std::chrono::milliseconds deadline) const
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, deadline, [&] { return predicate(*this); });
    }

    // Notes that the conversation has come to the point; what to do there.
    Step arriveAt(const std::string& point)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        points.insert(point);
        changed_.notify_all();
        const auto found = steps.find(point);
        return found != steps.end() ? found->second : Step();
    }

    // Guarded by the mutex: use change and look.
    std::map<std::string, Step> steps;
    std::string user; // empty: everybody
    std::string password;
    std::uint64_t dataPoint = 0;
    bool plainDataOnly = false;
    std::set<std::string> directories{"/"};

    std::set<std::string> points;
    std::vector<std::string> commands;
    std::vector<std::string> made;
    std::vector<FtpUpload> uploads;

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
};

} // namespace support
