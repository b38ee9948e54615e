// Programs that a test starts, and that end with it.
#pragma once

#include "support/temp_dir.h"
#include "support/wait.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace support {

struct ProcessOptions
{
    std::string standardOutput = "/dev/null"; // files; an empty name: the test's own
    std::string standardError = "/dev/null";
    std::string standardInput = "/dev/null";
    int standardErrorFd = -1; // in place of the file, if not negative
    int terminalFd = -1; // if not negative: a terminal that controls it, its input and its standard error
    bool withoutPrivileges = false;   // when the test is root's: as user nobody
    std::vector<std::string> unset;   // environment variables that it does not get
    std::vector<std::string> setting; // ... and gets, "NAME=value"
};

// One running program in a process group of its own. The destructor kills the group; so does the end of the
// test's process, whatever its reason. The program is looked up along PATH and in the folders of servers.
class Process
{
public:
    explicit Process(std::vector<std::string> command, const ProcessOptions& options = {});
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    bool isRunning();
    void signal(int number) const;

    // Whether it, or another of its group, listens on that port of 127.0.0.1, or of ::1. One that a program with the same
    // idea of a free port took does not count. Makes no connection: some servers do not survive one that ends without a
    // word while they start.
    bool listens(unsigned short port) const;
    bool listensIpv6(unsigned short port) const;

    // Waits for the end: the exit status, 128 plus the signal that ended it, or nothing at the deadline.
    std::optional<int> wait(std::chrono::milliseconds deadline = std::chrono::seconds(60));

private:
    pid_t m_pid = -1;
    std::optional<int> m_status;
};

// What a finished program left.
struct Result
{
    int status = -1;
    std::string out;
    std::string err;
};

// Runs a program to its end; status -1 when it does not come before the deadline.
Result runToEnd(std::vector<std::string> command, ProcessOptions options = {},
                std::chrono::milliseconds deadline = std::chrono::seconds(60));

std::string readFile(const std::string& path);

// Gives a folder and what is in it to user nobody, when the test is root's.
void giveAway(const std::string& path);

} // namespace support
