// docs/porting.md keeps its promise: the library is built with the platform layer of examples/platform-memory, as the
// page says, and the page's program streams from memory and traces to the system log.
#include "support_docs.h"

#include <chrono>
#include <filesystem>
#include <gmock/gmock.h>

namespace {

using support::Fence;
using support::kSource;
using support::Result;
using testing::HasSubstr;
using testing::Not;

constexpr std::chrono::minutes kDeadline{
    14}; // the library is built from the start, perhaps on a busy machine

// In place of the C library's function: prints what would be logged.
constexpr const char* kPrintingSyslog = R"(
#include <stdarg.h>
#include <stdio.h>
#include <syslog.h>
void syslog(int priority, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    printf("%s", priority == (LOG_USER | LOG_ERR) ? "user.err: " : "another priority: ");
    vprintf(format, arguments);
    printf("\n");
    va_end(arguments);
}
)";

class PlatformTest : public testing::Test
{
protected:
    PlatformTest()
    {
        namespace fs = std::filesystem;
        for (const char* name : {"CMakeLists.txt", "CMakePresets.json", "cmake", "common", "examples",
                                 "integrations", "packaging"}) {
            if (fs::exists(kSource + "/" + name)) {
                fs::copy(kSource + "/" + name, m_folder.makeDir("project") + "/" + name,
                         fs::copy_options::recursive);
            }
        }
        for (Fence& fence : support::fencesOf("docs/porting.md")) {
            (fence.language == "sh"  ? m_build
             : fence.language == "c" ? m_program
                                     : m_session) += fence.content;
        }
    }

    static Result shell(const std::string& folder, const std::string& commands)
    {
        return support::runToEnd({"bash", "-ec", "cd " + folder + "\n" + commands}, {}, kDeadline);
    }

    // A program of these sources with the library that was built.
    void link(const std::string& name, const std::string& sources) const
    {
        const std::string project = m_folder.file("project");
        const std::string library = project + "/build/memory/common";
        const Result result =
            shell(m_folder.path(), C_COMPILER " -std=c11 -Wall -Wextra -Werror -I" + project +
                                       "/common/helper/include -I" + project + "/common/platform/include " +
                                       sources + " -L" + library + " -lmdchelper -Wl,-rpath," + library +
                                       " -o " + name);
        ASSERT_EQ(result.status, 0) << result.err;
    }

    support::TempDir m_folder{"platform"};
    std::string m_build;
    std::string m_program;
    std::string m_session;
};

TEST_F(PlatformTest, TheLibraryStreamsFromMemoryAndTracesToTheSystemLog)
{
    const Result built = shell(m_folder.file("project"), m_build);
    ASSERT_EQ(built.status, 0) << built.out << built.err;
    const Result needed =
        shell(m_folder.file("project"), "objdump -p build/memory/common/libmdchelper.so | grep NEEDED");
    EXPECT_THAT(needed.out, HasSubstr("libcurl"));
    EXPECT_THAT(needed.out, Not(HasSubstr("libmount")));

    m_folder.write("player.c", m_program);
    m_folder.write("syslog.c", kPrintingSyslog);
    ASSERT_NO_FATAL_FAILURE(link("player", "player.c"));
    ASSERT_NO_FATAL_FAILURE(link("logging-player", "player.c syslog.c"));
    const std::vector<support::SessionStep> steps = support::sessionOf(m_session);
    ASSERT_EQ(steps.size(), 2U);
    EXPECT_EQ(steps[0].command, "player");
    EXPECT_EQ(shell(m_folder.path(), "./player 2>&1").out, steps[0].printed);
    EXPECT_EQ(steps[1].command, "player syslog");
    EXPECT_EQ(shell(m_folder.path(), "./logging-player 2>&1").out, steps[1].printed);
}

} // namespace
