// The pages in docs/ keep their promises. Each example in C or C++ is built, and run with the command lines that
// stand in the "text" fence behind it; what it prints must be what the page shows. Commands in "sh" fences are run.
//
// The addresses of the pages are those of servers here: media.example (http, https), members.example (https, wants a
// client certificate), old.example (https, TLS 1.2 with an EC key), proxy.example:3128 (wants a log-in) and
// nobody.example:3128.
#include "support_docs.h"

#include "support/certificates.h"
#include "support/http_proxy.h"
#include "support/sockets.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <utility>

namespace {

namespace fs = std::filesystem;

using support::certificates;
using support::Fence;
using support::fencesOf;
using support::HttpProxy;
using support::HttpServer;
using support::kSource;
using support::Media;
using support::replaced;
using support::Reply;
using support::Result;
using support::runToEnd;
using support::Tls;

// Its example needs another build of the library: platform_test.cpp.
constexpr const char* kPorting = "porting.md";

bool isProgram(const Fence& fence)
{
    return fence.language == "c" || fence.language == "cpp";
}

// The pages that have examples.
std::vector<std::string> pages()
{
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(kSource + "/docs")) {
        const std::string name = entry.path().filename();
        if (entry.path().extension() != ".md" || name == kPorting) {
            continue;
        }
        const std::vector<Fence> fences = fencesOf("docs/" + name);
        if (std::any_of(fences.begin(), fences.end(), isProgram)) {
            names.push_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

// A metadata block of a radio station: its length, in units of 16 bytes, and the padded text.
std::string titleBlock(std::string text)
{
    text.resize((text.size() + 15) / 16 * 16, '\0');
    return static_cast<char>(text.size() / 16) + text;
}

class DocsTest : public testing::TestWithParam<std::string>
{
protected:
    DocsTest()
    {
        const std::string song = Media(9).bytes(0, 100000) + support::kEnding;
        serveMedia(song);
        serveStations();
        m_secure.on("/song.mp3", Reply::resource(song));
        m_members.on("/song.mp3", Reply::resource(song));
        m_old.on("/song.mp3", Reply::resource(song));
        m_proxy.requireBasic("player", "secret");
        m_folder.write("media/song.mp3", song);
        m_folder.write("trusted/root.pem", support::toPem(certificates().ca.certificate));
        fs::copy(certificates().clientFiles.p12, m_folder.file("client.p12"));
    }

    void serveMedia(const std::string& song)
    {
        m_server.on("/song.mp3", Reply::resource(song));
        m_server.on("/moved", Reply::redirect("/song.mp3"));
        m_server.on("/breaks-off.mp3", Reply::resource(song).close(support::At::body(40000)));
        m_server.on("/stalls.mp3", Reply().body("hello world").stall(support::At::body(5)));
        m_server.on("/silent", Reply::silence());
        m_server.on("/endless", Reply::endless());
        m_server.on("/words", Reply().closeDelimited().body("onceupon"));
        m_server.on("/film.ts",
                    Reply::timeSeekResource(Media(), 120000, 2000)
                        .contentFeatures(
                            "DLNA.ORG_OP=11;DLNA.ORG_CI=0;DLNA.ORG_FLAGS=01700000000000000000000000000000"));
        m_server.on("/interactive-only.jpg", Reply::error(406));
        // Larger than the receive buffer: the open is over before the transfer breaks.
        const Reply large = Reply::resource(Media(), 4000000);
        m_server.onSequence("/flaky.ts",
                            {Reply(large).close(support::At::body(3000000)), Reply::error(503), large});
    }

    void serveStations()
    {
        const std::string audio(16, 'a');
        m_server.on("/live", Reply::icy("Radio", 16)
                                 .body(audio + titleBlock("StreamTitle='Artist - Title';") + audio + '\0' +
                                       audio.substr(8)));
        m_server.on("/station.m3u", Reply()
                                        .contentType("audio/x-mpegurl")
                                        .body("#EXTM3U\n#EXTINF:-1,Radio\n" + m_server.url("/live") + "\n"));
    }

    // The page's addresses, and where they lead here.
    std::vector<std::pair<std::string, std::string>> addresses() const
    {
        const auto local = [](unsigned port) { return "127.0.0.1:" + std::to_string(port); };
        return {{"http://media.example", "http://" + local(m_server.port())},
                {"https://media.example", "https://" + local(m_secure.port())},
                {"https://members.example", "https://" + local(m_members.port())},
                {"https://old.example", "https://" + local(m_old.port())},
                {"proxy.example:3128", local(m_proxy.port())},
                {"nobody.example:3128", local(m_nobody.port())}};
    }

    Result shell(std::string commands) const
    {
        for (const auto& [shown, real] : addresses()) {
            commands = replaced(commands, shown, real);
        }
        const std::string program = MDCH_BINARY;
        support::ProcessOptions options;
        options.setting = {"PATH=" + m_folder.path() + ":" + program.substr(0, program.rfind('/')) +
                           ":/usr/bin:/bin"};
        Result result =
            runToEnd({"bash", "-c", "cd " + m_folder.path() + "; exec 2>&1; " + commands}, options);
        for (const auto& [shown, real] : addresses()) {
            result.out = replaced(result.out, real, shown);
        }
        return result;
    }

    void compile(const Fence& example) const
    {
        const bool isC = example.language == "c";
        const std::string source = m_folder.write(isC ? "player.c" : "player.cpp", example.content);
        const std::string command = std::string(isC ? C_COMPILER " -std=c11" : CXX_COMPILER " -std=c++17") +
                                    " -Wall -Wextra -pedantic -Werror " SANITIZER_FLAGS " -I" + kSource +
                                    "/common/helper/include -I" PLATFORM_FOLDER "/include " + source +
                                    " -L" LIBRARY_FOLDER " -lmdchelper -lpthread -Wl,-rpath," LIBRARY_FOLDER
                                    " -o " +
                                    m_folder.file("player");
        const Result result = runToEnd({"bash", "-c", command});
        ASSERT_EQ(result.status, 0) << command << "\n" << result.err;
    }

    // Runs the command lines of a session, and compares what each prints.
    void expectSession(const std::string& session) const
    {
        for (const support::SessionStep& step : support::sessionOf(session)) {
            EXPECT_EQ(shell(step.command).out, step.printed) << step.command;
        }
    }

    HttpServer m_server;
    HttpServer m_secure{Tls()};
    HttpServer m_members{Tls().requireClientSignedBy(certificates().ca.certificate)};
    HttpServer m_old{Tls().versions(0, TLS1_2_VERSION)}; // whose key is none of the list's
    HttpProxy m_proxy;
    support::LoopbackPort m_nobody = support::closedPort();
    support::TempDir m_folder{"docs"};
};

TEST_P(DocsTest, ItsExamplesPrintWhatItShows)
{
    const std::vector<Fence> fences = fencesOf("docs/" + GetParam());
    for (std::size_t i = 0; i < fences.size(); ++i) {
        const Fence& fence = fences[i];
        if (isProgram(fence)) {
            ASSERT_TRUE(i + 1 < fences.size() && fences[i + 1].language == "text")
                << "an example that nobody runs";
            ASSERT_NO_FATAL_FAILURE(compile(fence));
        } else if (fence.language == "text") {
            ASSERT_TRUE(i > 0 && isProgram(fences[i - 1]));
            expectSession(fence.content);
        } else {
            ASSERT_EQ(fence.language, "sh");
            const Result result = shell("set -e; " + fence.content);
            EXPECT_EQ(result.status, 0) << fence.content << result.out;
        }
    }
}

std::string testName(const testing::TestParamInfo<std::string>& page)
{
    return page.param.substr(0, page.param.find('.'));
}

INSTANTIATE_TEST_SUITE_P(Pages, DocsTest, testing::ValuesIn(pages()), testName);

// Every link between the pages leads somewhere: to a file, and to a heading in it.
std::string anchorOf(const std::string& heading)
{
    std::string anchor;
    for (const char letter : heading) {
        if (std::isalnum(static_cast<unsigned char>(letter)) != 0 || letter == '-') {
            anchor += static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
        } else if (letter == ' ') {
            anchor += '-';
        }
    }
    return anchor;
}

bool hasHeading(const std::string& file, const std::string& anchor)
{
    std::istringstream lines(support::readFile(file));
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind('#', 0) == 0 && anchorOf(line.substr(line.find_first_not_of('#') + 1)) == anchor) {
            return true;
        }
    }
    return false;
}

void expectLinksLead(const std::string& file)
{
    const std::string text = support::readFile(file);
    for (std::size_t at = 0; (at = text.find("](", at)) != std::string::npos; ++at) {
        const std::string link = text.substr(at + 2, text.find(')', at) - at - 2);
        if (link.find("://") != std::string::npos) {
            continue;
        }
        const std::size_t hash = link.find('#');
        const fs::path folder = fs::path(file).parent_path();
        const std::string target = hash == 0 ? file : (folder / link.substr(0, hash)).string();
        EXPECT_TRUE(fs::exists(target)) << file << ": " << link;
        if (hash != std::string::npos) {
            EXPECT_TRUE(hasHeading(target, link.substr(hash + 1))) << file << ": " << link;
        }
    }
}

TEST(DocsLinksTest, EveryLinkLeadsToAFileAndAHeading)
{
    expectLinksLead(kSource + "/README.md");
    for (const fs::directory_entry& entry : fs::directory_iterator(kSource + "/docs")) {
        if (entry.path().extension() == ".md") {
            expectLinksLead(entry.path());
        }
    }
}

TEST(DocsLinksTest, TheReadmeLeadsToEveryPage)
{
    const std::string readme = support::readFile(kSource + "/README.md");
    std::vector<std::string> listed = pages();
    EXPECT_GE(listed.size(), 10U);
    listed.insert(listed.end(), {kPorting, "server-matrix.md"});
    for (const std::string& page : listed) {
        EXPECT_NE(readme.find("(docs/" + page + ")"), std::string::npos) << page;
    }
}

} // namespace
