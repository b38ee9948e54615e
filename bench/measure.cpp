#include "measure.h"

#include <cstdio>
#include <fstream>
#include <limits>
#include <stdexcept>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

namespace bench {

namespace {

double secondsOf(const timeval& time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

// The scheduler's own count in nanoseconds, where the kernel keeps one.
bool scheduledNanoseconds(const std::string& folder, double& nanoseconds)
{
    std::ifstream file(folder + "/schedstat");
    return static_cast<bool>(file >> nanoseconds) && nanoseconds > 0;
}

// User and system time of /proc/PID/stat, in ticks: its 14th and 15th field, counted behind the name's parenthesis.
double tickedSeconds(const std::string& folder)
{
    std::ifstream file(folder + "/stat");
    file.ignore(std::numeric_limits<std::streamsize>::max(), ')');
    std::string skipped;
    for (int field = 3; field < 14; ++field) {
        file >> skipped;
    }
    double user = 0;
    double system = 0;
    if (!(file >> user >> system)) {
        throw std::runtime_error("no CPU time in " + folder);
    }
    return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

double cpuOf(pid_t process)
{
    const std::string folder = "/proc/" + std::to_string(process);
    double nanoseconds = 0;
    return scheduledNanoseconds(folder, nanoseconds) ? nanoseconds * 1e-9 : tickedSeconds(folder);
}

} // namespace

Counters countersNow(const std::vector<pid_t>& servers)
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    Counters now;
    now.wall = std::chrono::duration<double>(Clock::now().time_since_epoch()).count();
    now.user = secondsOf(usage.ru_utime);
    now.system = secondsOf(usage.ru_stime);
    now.voluntary = static_cast<double>(usage.ru_nvcsw);
    now.involuntary = static_cast<double>(usage.ru_nivcsw);
    for (const pid_t server : servers) {
        now.servers += cpuOf(server);
    }
    return now;
}

Counters difference(const Counters& later, const Counters& earlier)
{
    Counters both = later;
    both.wall -= earlier.wall;
    both.user -= earlier.user;
    both.system -= earlier.system;
    both.servers -= earlier.servers;
    both.voluntary -= earlier.voluntary;
    both.involuntary -= earlier.involuntary;
    return both;
}

long statusFigure(const char* name)
{
    std::ifstream file("/proc/self/status");
    for (std::string line; std::getline(file, line);) {
        if (line.rfind(std::string(name) + ":", 0) == 0) {
            return std::stol(line.substr(line.find(':') + 1));
        }
    }
    return -1;
}

} // namespace bench
