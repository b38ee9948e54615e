// Programs in C and in C++ are built against an installed tree, by CMake's find_package and by pkg-config, with the
// shared library and with the static one.
#include "support_readme.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <set>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using support::Reply;
using support::Result;
using support::runToEnd;
using testing::HasSubstr;
using testing::Not;

const std::string kConsumers = SOURCE_FOLDER "/tests/packaging/consumer";
const std::string kWarnings = " -Wall -Wextra -Wpedantic -Werror" INSTRUMENTATION_FLAGS " ";

// A tree that was installed here and moved afterwards.
class ConsumerTest : public testing::Test
{
protected:
    void SetUp() override
    {
        const Result installed =
            runToEnd({CMAKE_PROGRAM, "--install", BINARY_FOLDER, "--prefix", m_folder.file("first")});
        ASSERT_EQ(installed.status, 0) << installed.out << installed.err;
        fs::rename(m_folder.file("first"), m_tree);
        m_server.on("/list.m3u", Reply::resource("#EXTM3U\n#EXTINF:1,A - B\nhttp://a.example/b c\n#end"));
    }

    Result shell(const std::string& commands) const
    {
        return runToEnd(
            {"bash", "-ec",
             "cd " + m_folder.path() + "\nexport PKG_CONFIG_PATH=" + m_libraries + "/pkgconfig\n" + commands},
            {}, std::chrono::minutes(4));
    }

    void build(const std::string& commands) const
    {
        const Result built = shell(commands);
        ASSERT_EQ(built.status, 0) << commands << "\n" << built.out << built.err;
    }

    // Configures and builds the program in `language`; the programs lie in with/ then.
    void buildByCMake(const std::string& language, const std::string& options) const
    {
        build(CMAKE_PROGRAM " -G Ninja -S " + kConsumers + "/" + language +
              " -B with -DCMAKE_C_COMPILER=" C_COMPILER " -DCMAKE_CXX_COMPILER=" CXX_COMPILER
              " -DCMAKE_C_FLAGS='" INSTRUMENTATION_FLAGS "' -DCMAKE_CXX_FLAGS='" INSTRUMENTATION_FLAGS
              "' -DCMAKE_PREFIX_PATH=" +
              m_tree + " " + options + "\n" CMAKE_PROGRAM " --build with");
    }

    static std::string needed(const std::string& program) { return runToEnd({"readelf", "-d", program}).out; }

    void expectShared(const std::string& program) const
    {
        EXPECT_THAT(needed(program), HasSubstr("[libmdchelper.so.1]"));
        EXPECT_THAT(needed(program), Not(HasSubstr("[libcurl.so")));
    }

    void expectStatic(const std::string& program) const
    {
        EXPECT_THAT(needed(program), Not(HasSubstr("[libmdchelper.so")));
        EXPECT_THAT(needed(program), HasSubstr("[libcurl.so"));
    }

    void expectWorksInC(const std::string& program) const
    {
        const Result result = runToEnd({program, m_server.url("/list.m3u")});
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.out, "consumer/1.0: 49 bytes, ending with #end\n");
        EXPECT_EQ(m_server.requests().back().header("User-Agent"), "consumer/1.0");
        EXPECT_EQ(runToEnd({program, m_server.url("/none")}).status, 2);
    }

    void expectWorksInCpp(const std::string& program) const
    {
        const std::string item = "B at http://a.example/b%20c\n";
        const Result byHttp = runToEnd({program, m_server.url("/list.m3u")});
        EXPECT_EQ(byHttp.status, 0) << byHttp.err;
        EXPECT_EQ(byHttp.out, "HTTP, 49 bytes\n" + item);
        const std::string file = m_folder.write("list.m3u", "#EXTINF:1,A - B\nhttp://a.example/b c\n");
        const Result ofFile = runToEnd({program, file});
        EXPECT_EQ(ofFile.status, 0) << ofFile.err;
        EXPECT_EQ(ofFile.out, "file, 37 bytes\n" + item);
    }

    support::HttpServer m_server;
    const support::TempDir m_folder{"consumer"};
    const std::string m_tree = m_folder.file("moved");
    const std::string m_libraries = m_tree + "/" INSTALL_LIBDIR;
};

TEST_F(ConsumerTest, FindPackageInC)
{
    ASSERT_NO_FATAL_FAILURE(buildByCMake("c", "-DWITH_STATIC=ON"));
    expectShared(m_folder.file("with/with_helper"));
    expectWorksInC(m_folder.file("with/with_helper"));
    expectStatic(m_folder.file("with/with_helper_static"));
    expectWorksInC(m_folder.file("with/with_helper_static"));
}

TEST_F(ConsumerTest, FindPackageInCpp)
{
    ASSERT_NO_FATAL_FAILURE(buildByCMake("cpp", "-DWITH_STATIC=ON"));
    expectShared(m_folder.file("with/with_helper"));
    expectWorksInCpp(m_folder.file("with/with_helper"));
    expectStatic(m_folder.file("with/with_helper_static"));
    expectWorksInCpp(m_folder.file("with/with_helper_static"));
}

TEST_F(ConsumerTest, FindPackageForTheSharedLibraryNeedsNothingOfWhatItLinks)
{
    ASSERT_NO_FATAL_FAILURE(
        buildByCMake("cpp", "-DCMAKE_DISABLE_FIND_PACKAGE_CURL=ON -DCMAKE_DISABLE_FIND_PACKAGE_OpenSSL=ON"
                            " -DCMAKE_DISABLE_FIND_PACKAGE_PkgConfig=ON"));
    expectWorksInCpp(m_folder.file("with/with_helper"));
}

#if MDC_HAS_AVIO
TEST_F(ConsumerTest, FindPackageOfFfmpegsInput)
{
    m_folder.write("player/CMakeLists.txt",
                   "cmake_minimum_required(VERSION 3.16)\nproject(player LANGUAGES C CXX)\n"
                   "find_package(mdchavio 1.0 REQUIRED)\n"
                   "pkg_check_modules(codec REQUIRED IMPORTED_TARGET libavcodec libavutil)\n"
                   "add_executable(player " SOURCE_FOLDER "/examples/ffmpeg/probe_decode.c)\n"
                   "target_link_libraries(player PRIVATE mdc::avio PkgConfig::codec)\n");
    build(CMAKE_PROGRAM " -G Ninja -S player -B with -DCMAKE_C_COMPILER=" C_COMPILER
                        " -DCMAKE_C_FLAGS='" INSTRUMENTATION_FLAGS "' -DCMAKE_PREFIX_PATH=" +
          m_tree + "\n" CMAKE_PROGRAM " --build with");
    const Result refused = runToEnd({m_folder.file("with/player"), m_server.url("/none")});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "failed: Server returned 404 Not Found\n");
}
#endif

TEST_F(ConsumerTest, FindPackageRefusesAnotherMajorVersion)
{
    m_folder.write("user/CMakeLists.txt",
                   "cmake_minimum_required(VERSION 3.16)\nproject(user LANGUAGES NONE)\n"
                   "find_package(mdchelper 2.0 REQUIRED)\n");
    const Result refused = shell(CMAKE_PROGRAM " -S user -B with -DCMAKE_PREFIX_PATH=" + m_tree);
    EXPECT_NE(refused.status, 0);
    EXPECT_THAT(refused.err, HasSubstr("mdchelperConfig.cmake, version: " MDCH_VERSION));
}

TEST_F(ConsumerTest, PkgConfigInC)
{
    const std::string compiler = C_COMPILER " -std=c11" + kWarnings + kConsumers + "/c/main.c ";
    ASSERT_NO_FATAL_FAILURE(
        build(compiler + "$(pkg-config --cflags --libs mdchelper) -Wl,-rpath," + m_libraries + " -o shared"));
    expectShared(m_folder.file("shared"));
    expectWorksInC(m_folder.file("shared"));
}

TEST_F(ConsumerTest, PkgConfigInCpp)
{
    const std::string compiler = CXX_COMPILER " -std=c++17" + kWarnings + kConsumers + "/cpp/main.cpp ";
    ASSERT_NO_FATAL_FAILURE(
        build(compiler + "$(pkg-config --cflags --libs mdchelper) -Wl,-rpath," + m_libraries + " -o shared"));
    expectShared(m_folder.file("shared"));
    expectWorksInCpp(m_folder.file("shared"));
}

// Beside the shared library, the archive is asked for by name; otherwise the linker prefers the former.
TEST_F(ConsumerTest, PkgConfigAndTheArchiveBesideTheSharedLibrary)
{
    std::string command = support::fenceWith("packaging/README.md", "pkg-config --cflags --static");
    ASSERT_EQ(command.rfind("gcc -std=c11 player.c ", 0), 0U);
    command.replace(0, 3, C_COMPILER INSTRUMENTATION_FLAGS);
    fs::copy_file(kConsumers + "/c/main.c", m_folder.file("player.c"));
    ASSERT_NO_FATAL_FAILURE(build(command));
    expectStatic(m_folder.file("player"));
    expectWorksInC(m_folder.file("player"));
}

// As in a system that is built with static libraries.
TEST_F(ConsumerTest, PkgConfigAndTheArchiveAlone)
{
    ASSERT_NO_FATAL_FAILURE(build("rm " + m_libraries + "/libmdchelper.so*"));
    const std::string flags = " $(pkg-config --cflags --static --libs mdchelper) -o ";
    ASSERT_NO_FATAL_FAILURE(build(C_COMPILER " -std=c11" + kWarnings + kConsumers + "/c/main.c" + flags +
                                  "c\n" + CXX_COMPILER " -std=c++17" + kWarnings + kConsumers +
                                  "/cpp/main.cpp" + flags + "cpp"));
    expectStatic(m_folder.file("c"));
    expectWorksInC(m_folder.file("c"));
    expectStatic(m_folder.file("cpp"));
    expectWorksInCpp(m_folder.file("cpp"));
}

TEST_F(ConsumerTest, PkgConfigTellsTheVersion)
{
    EXPECT_EQ(shell("pkg-config --modversion mdchelper").out, MDCH_VERSION "\n");
    EXPECT_EQ(shell("pkg-config --exists 'mdchelper >= 1.0'").status, 0);
}

TEST_F(ConsumerTest, EveryHeaderCompilesByItselfWithoutHeadersOfLibcurlAndOpenSsl)
{
    const std::set<std::string> inC = {"mdc_hlp_url.h",       "mdc_hlp_url_types.h", "mdc_hlp_url_encode.h",
                                       "mdc_hlp_url_patch.h", "mdp_debug.h",         "nvol2.h"};
    std::size_t seenInC = 0;
    for (const auto& entry : fs::directory_iterator(m_tree + "/include/mdchelper")) {
        const std::string name = entry.path().filename();
        const std::string command =
            "-Wall -Wextra -Wpedantic -Werror -fsyntax-only -MD -MF used $(pkg-config --cflags mdchelper) ";
        m_folder.write("one.cpp", "#include <" + name + ">\n");
        ASSERT_NO_FATAL_FAILURE(build(CXX_COMPILER " -std=c++17 " + command + "one.cpp"));
        const std::string used = support::readFile(m_folder.file("used"));
        EXPECT_THAT(used, HasSubstr(name));
        EXPECT_THAT(used, Not(HasSubstr("/curl/"))) << name;
        EXPECT_THAT(used, Not(HasSubstr("/openssl/"))) << name;
        if (inC.count(name) != 0) {
            m_folder.write("one.c", "#include <" + name + ">\nint unused;\n");
            ASSERT_NO_FATAL_FAILURE(build(C_COMPILER " -std=c11 " + command + "one.c"));
            ++seenInC;
        }
    }
    EXPECT_EQ(seenInC, inC.size());
}

} // namespace
