// What README.md says about running, building, installing and using the library, done in a copy of the sources.
#include "support_readme.h"

#include <chrono>
#include <filesystem>
#include <gmock/gmock.h>

namespace {

using support::fenceWith;
using support::kSource;
using support::Result;
using support::theFence;
using testing::HasSubstr;

// The library and the command line are built from the start, perhaps on a busy machine.
constexpr std::chrono::minutes kDeadline{14};

// In a copy of the sources, as after a checkout, with a home of its own.
class FreshCheckoutTest : public support::PageTest
{
protected:
    FreshCheckoutTest()
    {
        namespace fs = std::filesystem;
        for (const char* name : {"CMakeLists.txt", "CMakePresets.json", "run", "test", "cmake", "common",
                                 "integrations", "packaging", "scripts", "tools"}) {
            fs::copy(kSource + "/" + name, m_folder.makeDir("project") + "/" + name,
                     fs::copy_options::recursive);
        }
        m_folder.makeDir("home");
        m_folder.makeDir("temporary");
        m_options.setting = {"HOME=" + m_folder.file("home"), "TMPDIR=" + m_folder.file("temporary")};
    }

    Result shell(const std::string& folder, const std::string& commands) const
    {
        return support::runToEnd({"bash", "-ec", "cd " + m_folder.file(folder) + "\n" + commands}, m_options,
                                 kDeadline);
    }

    support::ProcessOptions m_options;
};

TEST_F(FreshCheckoutTest, RunBuildInstallUse)
{
    ASSERT_THAT(fenceWith("README.md", "./run"), HasSubstr("./run\n"));
    const Result run = shell("project", "./run");
    EXPECT_EQ(run.status, 0) << run.out << run.err;
    EXPECT_THAT(run.out, HasSubstr("All of it worked"));
    EXPECT_TRUE(std::filesystem::is_empty(m_folder.file("temporary")));

    const Result streamed = shell("project", "./run " + m_server.url("/song.mp3"));
    EXPECT_EQ(streamed.status, 0);
    EXPECT_TRUE(streamed.out == support::content());
    EXPECT_EQ(shell("project", "./run " + m_server.url("/none")).status, 2);

    const Result installed = shell("project", fenceWith("README.md", "cmake --install"));
    ASSERT_EQ(installed.status, 0) << installed.out << installed.err;
    EXPECT_EQ(support::runToEnd({m_folder.file("home/.local/bin/mdch"), "--version"}).out,
              "mdch " MDCH_VERSION "\n");

    m_folder.write("player.c", theFence("README.md", "c"));
    const Result compiled = shell("", fenceWith("README.md", "pkg-config --cflags"));
    ASSERT_EQ(compiled.status, 0) << compiled.err;
    expectCopies();

    m_folder.write("user/player.cpp", theFence("README.md", "cpp"));
    m_folder.write("user/CMakeLists.txt",
                   "cmake_minimum_required(VERSION 3.25)\nproject(user LANGUAGES CXX)\n"
                   "add_executable(player player.cpp)\n" +
                       theFence("README.md", "cmake"));
    const Result used = shell(
        "user", "cmake -G Ninja -S . -B build -DCMAKE_PREFIX_PATH=\"$HOME/.local\"\ncmake --build build");
    ASSERT_EQ(used.status, 0) << used.out << used.err;
    expectShowsTheEnd(m_folder.file("user/build/player"));
}

} // namespace
