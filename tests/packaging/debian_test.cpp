// The Debian packages are built by their one command, installed by dpkg into a root of their own, used from there, and
// removed. What dpkg knows to be installed is what is installed on this machine, so that the packages' dependencies
// have to be met; the libraries that they depend on are this machine's.
#include "support_process.h"

#include "support/http_server.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using support::readFile;
using support::Reply;
using support::Result;
using support::runToEnd;
using testing::HasSubstr;
using testing::Not;

const std::string kSource = SOURCE_FOLDER;
const std::string kPackages = BINARY_FOLDER "/deb";

// Each behind those that it depends on.
const std::vector<std::string> kNames = {"libmdchelper1", "libmdchelper-dev", "mdch",
                                         "libmdchavio1",  "libmdchavio-dev",  "gstreamer1.0-mdch"};

// All of it is compiled, perhaps on a busy machine.
constexpr std::chrono::minutes kDeadline{14};

class DebianTest : public testing::Test
{
protected:
    DebianTest()
    {
        m_root.makeDir("var/lib/dpkg/info");
        m_root.makeDir("var/lib/dpkg/updates");
        m_root.makeDir("var/lib/dpkg/triggers");
        m_root.write("var/lib/dpkg/status", readFile("/var/lib/dpkg/status"));
        m_root.write("var/lib/dpkg/available", "");
        const Result architecture = runToEnd({"dpkg-architecture", "-q", "DEB_HOST_MULTIARCH"});
        m_libraries = m_root.path() + "/usr/lib/" + architecture.out.substr(0, architecture.out.find('\n'));
    }

    // dpkg in the root; fakeroot lets it give files to root without being root.
    Result dpkg(std::vector<std::string> arguments) const
    {
        std::vector<std::string> command = {"fakeroot", "dpkg", "--root=" + m_root.path(),
                                            "--log=" + m_root.file("log")};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return runToEnd(command);
    }

    static std::string package(const std::string& name)
    {
        for (const auto& entry : fs::directory_iterator(kPackages)) {
            if (entry.path().filename().string().rfind(name + "_" MDCH_VERSION "_", 0) == 0) {
                return entry.path();
            }
        }
        return "no package " + name;
    }

    static std::string field(const std::string& name, const std::string& which)
    {
        return runToEnd({"dpkg-deb", "--field", package(name), which}).out;
    }

    // The files below usr, without documentation.
    std::set<std::string> files() const
    {
        std::set<std::string> found;
        if (fs::exists(m_root.file("usr"))) {
            for (const auto& entry : fs::recursive_directory_iterator(m_root.file("usr"))) {
                if (!fs::is_directory(entry.symlink_status())) {
                    found.insert(entry.path().lexically_relative(m_root.path()));
                }
            }
        }
        return found;
    }

    void expectDependencies() const
    {
        EXPECT_THAT(field("libmdchelper1", "Depends"), HasSubstr("libcurl4 (>= 7.88)"));
        EXPECT_THAT(field("libmdchelper1", "Depends"), HasSubstr("libssl"));
        EXPECT_THAT(field("libmdchelper1", "Depends"), HasSubstr("libmount1"));
        EXPECT_THAT(field("libmdchelper1", "Depends"), Not(HasSubstr("-dev")));
        EXPECT_THAT(field("libmdchelper-dev", "Depends"), HasSubstr("libmdchelper1 (= " MDCH_VERSION ")"));
        EXPECT_THAT(field("libmdchelper-dev", "Depends"), HasSubstr("libboost-dev"));
        EXPECT_THAT(field("libmdchelper-dev", "Depends"), Not(HasSubstr("libcurl")));
        EXPECT_THAT(field("mdch", "Depends"), HasSubstr("libmdchelper1 (>= "));
        EXPECT_THAT(field("libmdchavio1", "Depends"), HasSubstr("libmdchelper1 (>= "));
        EXPECT_THAT(field("libmdchavio1", "Depends"), HasSubstr("libavformat"));
        EXPECT_THAT(field("libmdchavio1", "Depends"), Not(HasSubstr("-dev")));
        EXPECT_THAT(field("libmdchavio-dev", "Depends"), HasSubstr("libmdchavio1 (= " MDCH_VERSION ")"));
        EXPECT_THAT(field("libmdchavio-dev", "Depends"), HasSubstr("libmdchelper-dev (= " MDCH_VERSION ")"));
        EXPECT_THAT(field("libmdchavio-dev", "Depends"), HasSubstr("libavformat-dev"));
        EXPECT_THAT(field("gstreamer1.0-mdch", "Depends"), HasSubstr("libmdchelper1 (>= "));
        EXPECT_THAT(field("gstreamer1.0-mdch", "Depends"), HasSubstr("libgstreamer1.0-0 (>= "));
    }

    void expectCommandLineWorks() const
    {
        support::ProcessOptions options;
        options.setting = {"LD_LIBRARY_PATH=" + m_libraries};
        const std::string program = m_root.file("usr/bin/mdch");
        EXPECT_EQ(runToEnd({program, "--version"}, options).out, "mdch " MDCH_VERSION "\n");
        support::HttpServer server;
        server.on("/a", Reply::resource("from the package"));
        EXPECT_EQ(runToEnd({program, "cat", server.url("/a")}, options).out, "from the package");
        EXPECT_THAT(runToEnd({"readelf", "-d", program}).out, Not(HasSubstr("runpath")));
    }

    void expectProgramsCanBeBuilt() const
    {
        const std::string program = m_root.file("program");
        const Result built = runToEnd(
            {"bash", "-ec",
             "export PKG_CONFIG_PATH=" + m_libraries + "/pkgconfig\n" C_COMPILER " -std=c11 " + kSource +
                 "/tests/packaging/consumer/c/main.c $(pkg-config --cflags --libs mdchelper) -o " + program});
        ASSERT_EQ(built.status, 0) << built.err;
        support::ProcessOptions options;
        options.setting = {"LD_LIBRARY_PATH=" + m_libraries};
        EXPECT_EQ(runToEnd({program, m_root.write("media", "0123456789")}, options).out,
                  "consumer/1.0: 10 bytes, ending with 6789\n");
    }

    // The example of docs/players.md, as its first lines say it is built.
    void expectFfmpegPlaysThroughIt() const
    {
        const std::string program = m_root.file("probe_decode");
        const Result built = runToEnd({"bash", "-ec",
                                       "export PKG_CONFIG_PATH=" + m_libraries +
                                           "/pkgconfig\n" C_COMPILER " -std=c11 " + kSource +
                                           "/examples/ffmpeg/probe_decode.c $(pkg-config --cflags --libs "
                                           "mdchavio libavcodec libavutil) -o " +
                                           program});
        ASSERT_EQ(built.status, 0) << built.err;
        support::ProcessOptions options;
        options.setting = {"LD_LIBRARY_PATH=" + m_libraries};
        const std::string sound =
            "RIFF" + std::string("\x34\0\0\0", 4) + "WAVEfmt " +
            std::string("\x10\0\0\0\x01\0\x01\0\x40\x1f\0\0\x40\x1f\0\0\x01\0\x08\0", 20) + "data" +
            std::string("\x10\0\0\0", 4) + std::string(16, 'a');
        const Result played = runToEnd({program, m_root.write("sound.wav", sound)}, options);
        EXPECT_EQ(played.status, 0) << played.err;
        EXPECT_THAT(played.out, HasSubstr("stream 0: pcm_u8\nstream 0: 1 frames, checksum "));
    }

    void expectPluginIsFound() const
    {
        support::ProcessOptions options;
        options.setting = {"LD_LIBRARY_PATH=" + m_libraries,
                           "GST_PLUGIN_PATH=" + m_libraries + "/gstreamer-1.0",
                           "GST_REGISTRY=" + m_root.file("registry")};
        EXPECT_THAT(runToEnd({"gst-inspect-1.0", "mdchsrc"}, options).out, HasSubstr("mdchelper source"));
        const std::string plugin = m_libraries + "/gstreamer-1.0/libgstmdch.so";
        EXPECT_THAT(runToEnd({"readelf", "-d", plugin}).out, Not(HasSubstr("runpath")));
    }

    const support::TempDir m_root{"debian"};
    std::string m_libraries;
};

TEST_F(DebianTest, BuildInstallUseRemove)
{
    const Result built = runToEnd({kSource + "/packaging/build-deb", kPackages}, {}, kDeadline);
    ASSERT_EQ(built.status, 0) << built.out << built.err;
    expectDependencies();

    // The command line needs the library, and cannot be configured without it.
    EXPECT_NE(dpkg({"--install", package("mdch")}).status, 0);
    std::vector<std::string> install = {"--install"};
    for (const std::string& name : kNames) {
        install.push_back(package(name));
    }
    const Result installed = dpkg(install);
    ASSERT_EQ(installed.status, 0) << installed.out << installed.err;
    EXPECT_TRUE(fs::is_symlink(m_libraries + "/libmdchelper.so.1"));
    EXPECT_TRUE(fs::exists(m_root.file("usr/share/man/man3/mdchelper.3.gz")));
    // The command line's, when the build makes them.
    EXPECT_EQ(fs::exists(m_root.file("usr/share/man/man1/mdch.1.gz")), MDCH_HAS_PAGES != 0);
    EXPECT_EQ(fs::exists(m_root.file("usr/share/bash-completion/completions/mdch")), MDCH_HAS_PAGES != 0);
    for (const std::string& name : kNames) {
        const std::string folder = m_root.file("usr/share/doc/" + name);
        EXPECT_EQ(readFile(folder + "/copyright"), readFile(kSource + "/LICENSE.md")) << name;
    }
    expectCommandLineWorks();
    expectProgramsCanBeBuilt();
    expectFfmpegPlaysThroughIt();
    expectPluginIsFound();

    std::vector<std::string> purge = {"--purge"};
    purge.insert(purge.end(), kNames.rbegin(), kNames.rend());
    const Result removed = dpkg(purge);
    EXPECT_EQ(removed.status, 0) << removed.err;
    EXPECT_EQ(files(), std::set<std::string>{});
}

} // namespace
