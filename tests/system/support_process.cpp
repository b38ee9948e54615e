#include "support_process.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iterator>
#include <pwd.h>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace support {

namespace {

constexpr int kSignalStatus = 128;
constexpr int kNotStarted = 127;

std::string findProgram(const std::string& name)
{
    if (name.find('/') != std::string::npos) {
        return name;
    }
    const char* path = std::getenv("PATH");
    std::istringstream folders(std::string(path != nullptr ? path : "/usr/bin:/bin") + ":/usr/sbin:/sbin");
    for (std::string folder; std::getline(folders, folder, ':');) {
        const std::string candidate = folder + "/" + name;
        if (access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    throw std::runtime_error(name + " is not installed");
}

bool names(const std::vector<std::string>& list, const std::string& entry)
{
    return std::any_of(list.begin(), list.end(), [&entry](const std::string& text) {
        return entry.compare(0, entry.find('='), text, 0, text.find('=')) == 0;
    });
}

std::vector<std::string> environmentFor(const ProcessOptions& options)
{
    std::vector<std::string> result = options.setting;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (!names(options.unset, *entry) && !names(options.setting, *entry)) {
            result.emplace_back(*entry);
        }
    }
    return result;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

// Prepared before the fork: the child of a program with threads may do very little.
struct Launch
{
    std::string program;
    char* const* arguments;
    char* const* environment;
    const char* in;
    const char* out;
    const char* err;
    int errFd;
    int terminal;
    bool dropPrivileges;
    uid_t user;
    gid_t group;
    pid_t parent;
};

bool redirect(const char* path, int fd)
{
    if (*path == '\0') {
        return true;
    }
    constexpr mode_t kPermissions = 0644;
    const int opened = open(path, O_WRONLY | O_CREAT | O_TRUNC, kPermissions);
    return opened >= 0 && dup2(opened, fd) == fd && (opened == fd || close(opened) == 0);
}

[[noreturn]] void runChild(const Launch& launch)
{
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    const int input = launch.terminal >= 0 ? launch.terminal : open(launch.in, O_RDONLY);
    bool ok = launch.terminal >= 0 ? setsid() >= 0 && ioctl(launch.terminal, TIOCSCTTY, 0) == 0
                                   : setpgid(0, 0) == 0;
    ok = ok && dup2(input, STDIN_FILENO) == STDIN_FILENO;
    ok = ok && redirect(launch.out, STDOUT_FILENO);
    const int errors = launch.terminal >= 0 ? launch.terminal : launch.errFd;
    ok = ok &&
         (errors >= 0 ? dup2(errors, STDERR_FILENO) == STDERR_FILENO : redirect(launch.err, STDERR_FILENO));
    if (ok && launch.dropPrivileges) {
        ok = setgid(launch.group) == 0 && setuid(launch.user) == 0;
    }
    // Behind the change of user, which forgets it.
    ok = ok && prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && getppid() == launch.parent;
    if (ok) {
        execve(launch.program.c_str(), launch.arguments, launch.environment);
    }
    _exit(kNotStarted);
}

// The link's text of the socket that listens there, "socket:[12345]", or nothing. address: as the kernel's table has
// it.
std::string listeningSocket(const char* file, const char* address, unsigned short port)
{
    std::ostringstream wanted;
    wanted << address << ':' << std::hex << std::uppercase << std::setw(4) << std::setfill('0') << port;
    std::ifstream table(file);
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        const std::vector<std::string> words{std::istream_iterator<std::string>(fields), {}};
        constexpr std::size_t kLocal = 1;
        constexpr std::size_t kState = 3;
        constexpr std::size_t kInode = 9;
        if (words.size() > kInode && words[kLocal] == wanted.str() && words[kState] == "0A") {
            return "socket:[" + words[kInode] + "]";
        }
    }
    return {};
}

pid_t groupOf(const std::filesystem::path& process)
{
    const std::string all = readFile(process / "stat");
    std::istringstream behindTheName(all.substr(std::min(all.rfind(')') + 1, all.size())));
    std::string state;
    pid_t parent = 0;
    pid_t group = 0;
    behindTheName >> state >> parent >> group;
    return group;
}

// What ends while it is looked at holds nothing.
bool holds(const std::filesystem::path& process, const std::string& socket)
{
    std::error_code gone;
    std::filesystem::directory_iterator entry(process / "fd", gone);
    for (; !gone && entry != std::filesystem::directory_iterator(); entry.increment(gone)) {
        std::error_code closed;
        if (std::filesystem::read_symlink(entry->path(), closed) == socket) {
            return true;
        }
    }
    return false;
}

bool groupHolds(pid_t group, const std::string& socket)
{
    if (socket.empty()) {
        return false;
    }
    const std::filesystem::directory_iterator processes("/proc");
    return std::any_of(begin(processes), end(processes), [&](const std::filesystem::directory_entry& entry) {
        const std::string name = entry.path().filename();
        return std::isdigit(static_cast<unsigned char>(name.front())) != 0 &&
               groupOf(entry.path()) == group && holds(entry.path(), socket);
    });
}

} // namespace

Process::Process(std::vector<std::string> command, const ProcessOptions& options)
{
    std::vector<std::string> environment = environmentFor(options);
    const std::string program = findProgram(command.at(0));
    const std::vector<char*> arguments = pointersTo(command);
    const std::vector<char*> settings = pointersTo(environment);
    Launch launch{program,
                  arguments.data(),
                  settings.data(),
                  options.standardInput.c_str(),
                  options.standardOutput.c_str(),
                  options.standardError.c_str(),
                  options.standardErrorFd,
                  options.terminalFd,
                  options.withoutPrivileges && geteuid() == 0,
                  0,
                  0,
                  getpid()};
    if (launch.dropPrivileges) {
        const passwd* nobody = getpwnam("nobody");
        if (nobody == nullptr) {
            throw std::runtime_error("there is no user nobody");
        }
        launch.user = nobody->pw_uid;
        launch.group = nobody->pw_gid;
    }
    m_pid = fork();
    if (m_pid < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (m_pid == 0) {
        runChild(launch);
    }
    if (options.terminalFd < 0) {
        setpgid(m_pid, m_pid); // on both sides, for whoever comes first
    }
}

Process::~Process()
{
    ::kill(-m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
}

bool Process::isRunning()
{
    if (m_status) {
        return false;
    }
    // Left to the destructor: until then its number, which is its group's as well, goes to nobody else.
    siginfo_t end{};
    if (waitid(P_PID, static_cast<id_t>(m_pid), &end, WEXITED | WNOHANG | WNOWAIT) != 0 ||
        end.si_pid != m_pid) {
        return true;
    }
    m_status = end.si_code == CLD_EXITED ? end.si_status : kSignalStatus + end.si_status;
    return false;
}

void Process::signal(int number) const
{
    ::kill(m_pid, number);
}

bool Process::listens(unsigned short port) const
{
    return groupHolds(m_pid, listeningSocket("/proc/net/tcp", "0100007F", port));
}

bool Process::listensIpv6(unsigned short port) const
{
    return groupHolds(m_pid, listeningSocket("/proc/net/tcp6", "00000000000000000000000001000000", port));
}

std::optional<int> Process::wait(std::chrono::milliseconds deadline)
{
    waitUntil([this] { return !isRunning(); }, deadline);
    return m_status;
}

Result runToEnd(std::vector<std::string> command, ProcessOptions options, std::chrono::milliseconds deadline)
{
    const TempDir folder("output");
    const ProcessOptions defaults;
    if (options.standardOutput == defaults.standardOutput) {
        options.standardOutput = folder.file("out");
    }
    if (options.standardError == defaults.standardError) {
        options.standardError = folder.file("err");
    }
    Process process(std::move(command), options);
    Result result;
    result.status = process.wait(deadline).value_or(-1);
    const auto contentOf = [&folder](const std::string& path) {
        return path.compare(0, folder.path().size(), folder.path()) == 0 ? readFile(path) : std::string();
    };
    result.out = contentOf(options.standardOutput);
    result.err = contentOf(options.standardError);
    return result;
}

std::string readFile(const std::string& path)
{
    std::ifstream stream(path, std::ios::binary);
    std::ostringstream content;
    content << stream.rdbuf();
    return content.str();
}

void giveAway(const std::string& path)
{
    const passwd* nobody = getpwnam("nobody");
    if (geteuid() != 0 || nobody == nullptr) {
        return;
    }
    bool ok = chown(path.c_str(), nobody->pw_uid, nobody->pw_gid) == 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(path)) {
        ok = chown(entry.path().c_str(), nobody->pw_uid, nobody->pw_gid) == 0 && ok;
    }
    if (!ok) {
        throw std::system_error(errno, std::generic_category(), path);
    }
}

} // namespace support
