// An upload to the scripted FTP server, on a thread of its own where a test wants to look at it under way.
#ifndef SUPPORT_FTP_UPLOAD_H
#define SUPPORT_FTP_UPLOAD_H

#include "mdc_hlp_upload.h"
#include "support/descriptors.h"
#include "support/ftp_server.h"
#include "support/wait.h"

#include <atomic>
#include <filesystem>
#include <future>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

namespace support {

/* Ready to go to "in/a.bin". */
inline md::FtpAccess uploadTo(const FtpServer& server, const std::string& file)
{
    md::FtpAccess access;
    access.setServerUrl(server.host());
    access.setServerPath("in");
    access.setSourceFile(file);
    access.setUploadedFile("a.bin");
    return access;
}

/* upload() on another thread. The destructor cancels and waits, so that a failed test ends. */
class RunningUpload
{
public:
    explicit RunningUpload(const md::FtpAccess& access)
        : m_access(access), m_result(std::async(std::launch::async, [this] { return m_access.upload(); }))
    {
    }
    ~RunningUpload()
    {
        if (m_result.valid()) {
            m_access.cancel();
        }
    }
    RunningUpload(const RunningUpload&) = delete;
    RunningUpload& operator=(const RunningUpload&) = delete;

    md::FtpAccess& access() { return m_access; }

    bool isRunning() const
    {
        return m_result.valid() && m_result.wait_for(std::chrono::seconds(0)) != std::future_status::ready;
    }

    /* The result; none when it has not come at the deadline. */
    std::optional<int> result(std::chrono::milliseconds deadline = defaultDeadline)
    {
        if (m_result.wait_for(deadline) != std::future_status::ready) {
            return std::nullopt;
        }
        return m_result.get();
    }

private:
    md::FtpAccess m_access; // shares the upload with the test's
    std::future<int> m_result;
};

/*
 * Cancels an upload after its first progress call, the next one after its second, and so on, from this thread: one
 * of them meets every step of the way. The number of those that ended neither well nor cancelled.
 */
template <typename Prepare>
int cancelAfterEachCall(const Prepare& prepare, int rounds)
{
    int failures = 0;
    for (int round = 0; round < rounds; ++round) {
        std::atomic<int> calls{0};
        md::FtpAccess access = prepare();
        access.setProgressCallback(&calls, [](void* user, long long /*total*/, long long /*now*/) {
            ++*static_cast<std::atomic<int>*>(user);
        });
        RunningUpload upload(access);
        while (calls <= round && upload.isRunning()) {
            std::this_thread::yield();
        }
        upload.access().cancel();
        const std::optional<int> result = upload.result();
        failures += result == 0 || result == -5 ? 0 : 1;
    }
    return failures;
}

/*
 * Stops an upload in its first progress call, the next one in its second, and so on, up to the one that has no more
 * calls and succeeds. The number of stopped ones; none when one ended otherwise, or did not end.
 */
template <typename Prepare>
std::optional<int> stopInEachCall(const Prepare& prepare)
{
    for (int stopped = 0;; ++stopped) {
        int left = stopped;
        md::FtpAccess access = prepare();
        access.setProgressCallback(&left, [](void* user, long long /*total*/, long long /*now*/) {
            if ((*static_cast<int*>(user))-- == 0) {
                throw std::runtime_error("no more");
            }
        });
        RunningUpload upload(access);
        const std::optional<int> result = upload.result();
        if (result == 0) {
            return stopped;
        }
        if (result != -5) {
            return std::nullopt;
        }
    }
}

} // namespace support

#endif
