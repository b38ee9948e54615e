// README.md and docs/command-line.md keep their promises: every example and every command in them is run, here
// and in checkout_test.cpp.
#include "support_readme.h"

#include <gmock/gmock.h>
#include <iterator>
#include <set>
#include <sstream>

namespace {

using support::fenceWith;
using support::kSource;
using support::Result;
using support::runToEnd;
using support::theFence;
using testing::HasSubstr;
using testing::StartsWith;

class ReadmeTest : public support::PageTest
{
protected:
    // Against the library as it was built here.
    void compile(const std::string& compiler, const std::string& standard, const std::string& source) const
    {
        const std::string command =
            compiler + " " + standard + " -Wall -Wextra -pedantic -Werror " SANITIZER_FLAGS " -I" + kSource +
            "/common/helper/include -I" PLATFORM_FOLDER "/include " + source +
            " -L" LIBRARY_FOLDER " -lmdchelper -Wl,-rpath," LIBRARY_FOLDER " -o " + m_folder.file("player");
        const Result result = runToEnd({"bash", "-c", command});
        ASSERT_EQ(result.status, 0) << command << "\n" << result.err;
    }
};

TEST_F(ReadmeTest, TheExampleInC)
{
    const std::string source = m_folder.write("player.c", theFence("README.md", "c"));
    ASSERT_NO_FATAL_FAILURE(compile(C_COMPILER, "-std=c11", source));
    expectCopies();
}

TEST_F(ReadmeTest, TheExampleInCpp)
{
    const std::string source = m_folder.write("player.cpp", theFence("README.md", "cpp"));
    ASSERT_NO_FATAL_FAILURE(compile(CXX_COMPILER, "-std=c++17", source));
    expectShowsTheEnd(m_folder.file("player"));
}

TEST_F(ReadmeTest, TheCommandLine)
{
    std::string commands = fenceWith("README.md", "mdch info");
    const std::string host = "http://media.example";
    for (std::size_t place = 0; (place = commands.find(host)) != std::string::npos;) {
        commands.replace(place, host.size(), m_server.url(""));
    }
    const std::string program = MDCH_BINARY;
    const std::string folder = program.substr(0, program.rfind('/'));
    const Result result = runToEnd(
        {"bash", "-c", "set -e; cd " + m_folder.path() + "; PATH=" + folder + ":$PATH\n" + commands});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr("Length        100010 bytes"));
    EXPECT_TRUE(support::readFile(m_folder.file("song.mp3")) == support::content());
}

// The manual shows every help text behind the command that prints it.
TEST_F(ReadmeTest, TheHelpTextsStandInTheManual)
{
    std::set<std::string> shown;
    for (const std::string& fence : support::fences("docs/command-line.md", "text")) {
        const std::size_t end = fence.find('\n');
        ASSERT_THAT(fence, StartsWith("$ mdch"));
        shown.insert(fence.substr(2, end - 2));
        std::istringstream words(fence.substr(2, end - 2));
        const std::vector<std::string> command{std::istream_iterator<std::string>(words), {}};
        EXPECT_EQ(fence.substr(end + 1), support::mdch({command.begin() + 1, command.end()}).out);
    }
    EXPECT_EQ(shown.count("mdch --help"), 1U);
    for (const std::string& name : support::mdchCommands()) {
        EXPECT_EQ(shown.count("mdch " + name + " --help"), 1U) << name;
    }
}

TEST_F(ReadmeTest, TheTestCommandsOptions)
{
    const Result help = runToEnd({kSource + "/test", "--help"});
    EXPECT_EQ(help.status, 0);
    const std::string page = support::readFile(kSource + "/README.md");
    for (const char* option :
         {"--asan", "--tsan", "--release", "--coverage", "--lint", "--target armhf", "--filter REGEX"}) {
        EXPECT_THAT(help.out, HasSubstr(option));
        EXPECT_THAT(page, HasSubstr(option));
    }
    const Result wrong = runToEnd({kSource + "/test", "--none"});
    EXPECT_EQ(wrong.status, 2);
    EXPECT_EQ(wrong.out, "");
    EXPECT_THAT(wrong.err, HasSubstr("unknown option --none"));
    EXPECT_EQ(runToEnd({kSource + "/test", "--target", "none"}).status, 2);
    EXPECT_EQ(runToEnd({kSource + "/run", "--none"}).status, 2);
}

} // namespace
