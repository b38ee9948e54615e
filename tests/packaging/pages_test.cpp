// The pages about packages, versions and contributing keep their promises: what they tell to run is run here or in the
// tests beside this one, and what they point at is there.
#include "support_readme.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <gmock/gmock.h>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using support::fences;
using support::fenceWith;
using support::kSource;
using support::readFile;
using support::Result;
using support::runToEnd;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const std::vector<std::string> kPages = {"CHANGELOG.md",        "CONTRIBUTING.md",     "LICENSE.md",
                                         "SECURITY.md",         "docs/abi.md",         "docs/command-line.md",
                                         "docs/performance.md", "packaging/README.md", "README.md"};

std::string exchanged(std::string text, const std::string& piece, const std::string& other)
{
    for (std::size_t place = text.find(piece); place != std::string::npos;
         place = text.find(piece, place + other.size())) {
        text.replace(place, piece.size(), other);
    }
    return text;
}

// The targets of a page's links.
std::set<std::string> links(const std::string& page)
{
    const std::string text = readFile(kSource + "/" + page);
    std::set<std::string> found;
    for (std::size_t place = text.find("]("); place != std::string::npos;
         place = text.find("](", place + 1)) {
        found.insert(text.substr(place + 2, text.find(')', place) - place - 2));
    }
    return found;
}

// anchor: the heading in lower case, its spaces as hyphens, without any other sign.
bool hasHeading(const fs::path& file, const std::string& anchor)
{
    std::istringstream lines(readFile(file.string()));
    for (std::string line; std::getline(lines, line);) {
        std::string made;
        const std::size_t text = line.find("# ");
        for (std::size_t index = text + 2; line.rfind('#', 0) == 0 && index < line.size(); ++index) {
            const auto letter = static_cast<unsigned char>(line[index]);
            if (letter == ' ' || letter == '-' || std::isalnum(letter) != 0) {
                made += letter == ' ' ? '-' : static_cast<char>(std::tolower(letter));
            }
        }
        if (!made.empty() && made == anchor) {
            return true;
        }
    }
    return false;
}

// What stands in a page between back-quotes and begins like that; a line's end counts as a blank.
std::set<std::string> quoted(const std::string& page, const std::string& beginning)
{
    const std::string text = exchanged(readFile(kSource + "/" + page), "\n", " ");
    std::set<std::string> found;
    for (std::size_t open = text.find('`'); open != std::string::npos;) {
        const std::size_t close = text.find('`', open + 1);
        if (close == std::string::npos) {
            break;
        }
        const std::string piece = text.substr(open + 1, close - open - 1);
        if (piece.rfind(beginning, 0) == 0) {
            found.insert(piece);
        }
        open = text.find('`', close + 1);
    }
    return found;
}

class PagesTest : public testing::Test
{
protected:
    support::TempDir m_folder{"pages"};
};

TEST_F(PagesTest, LinksLeadSomewhere)
{
    std::size_t count = 0;
    for (const std::string& page : kPages) {
        for (const std::string& link : links(page)) {
            const std::size_t hash = std::min(link.find('#'), link.size());
            const fs::path file = fs::path(kSource) / fs::path(page).parent_path() / link.substr(0, hash);
            EXPECT_TRUE(fs::exists(file)) << page << ": " << link;
            if (hash < link.size()) {
                EXPECT_TRUE(hasHeading(file, link.substr(hash + 1))) << page << ": " << link;
            }
            ++count;
        }
    }
    EXPECT_GE(count, 10U);
}

TEST_F(PagesTest, TheCheckOfTheBinaryInterface)
{
    std::string commands = fenceWith("docs/abi.md", "packaging/abi/check");
    commands = exchanged(commands, "build/dev/common/libmdchelper.so", LIBRARY_FILE);
    ASSERT_THAT(commands, HasSubstr("check symbols " LIBRARY_FILE "\n"));
#if !CHECKS_TYPES
    commands = exchanged(commands, "packaging/abi/check types", "true");
#endif
    const Result result = runToEnd({"bash", "-ec", "cd " + kSource + "\n" + commands});
    EXPECT_EQ(result.status, 0) << result.out << result.err;

    const Result wrong = runToEnd({kSource + "/packaging/abi/check", "none", LIBRARY_FILE});
    EXPECT_EQ(wrong.status, 2);
    EXPECT_THAT(wrong.err, HasSubstr("Usage: packaging/abi/check symbols LIBRARY"));
    EXPECT_EQ(runToEnd({kSource + "/packaging/abi/check", "symbols", m_folder.file("none")}).status, 1);
}

// In a copy, since it writes into the sources; with the library that is there.
TEST_F(PagesTest, TheUpdateOfTheBinaryInterface)
{
    ASSERT_EQ(fenceWith("docs/abi.md", "packaging/abi/update"), "packaging/abi/update\n");
    for (const char* name :
         {"packaging/abi", "scripts", "common/helper/include", "common/platform/include"}) {
        fs::create_directories(fs::path(m_folder.file(name)).parent_path());
        fs::copy(kSource + "/" + name, m_folder.file(name), fs::copy_options::recursive);
    }
    m_folder.write("packaging/abi/mdchelper.symbols", "nothing\n");
    m_folder.write("packaging/abi/mdchelper.x86_64.abi", "nothing\n");
    const Result result =
        runToEnd({"bash", "-ec", "cd " + m_folder.path() + "\npackaging/abi/update " LIBRARY_FILE}, {},
                 std::chrono::minutes(2));
    ASSERT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_EQ(readFile(m_folder.file("packaging/abi/mdchelper.symbols")),
              readFile(kSource + "/packaging/abi/mdchelper.symbols"));
#if CHECKS_TYPES
    const Result compared = runToEnd({kSource + "/packaging/abi/check", "types", LIBRARY_FILE,
                                      m_folder.file("packaging/abi/mdchelper.x86_64.abi")});
    EXPECT_EQ(compared.status, 0) << compared.out << compared.err;
    // Nothing of the folders in which it was made.
    EXPECT_EQ(readFile(m_folder.file("packaging/abi/mdchelper.x86_64.abi")).find(kSource), std::string::npos);
#endif
}

// They are run in consumer_test and debian_test.
TEST_F(PagesTest, TheCommandsAboutPackagesAreThoseThatTestsRun)
{
    EXPECT_EQ(fences("packaging/README.md", "sh").size(), 2U);
    EXPECT_EQ(fenceWith("packaging/README.md", "build-deb"), "packaging/build-deb\n");
    EXPECT_THAT(fenceWith("packaging/README.md", "pkg-config"), HasSubstr("-l:libmdchelper.a"));
    const std::string consumer = readFile(kSource + "/tests/packaging/consumer/c/CMakeLists.txt");
    const std::string example = support::theFence("packaging/README.md", "cmake");
    EXPECT_THAT(consumer, HasSubstr(example.substr(0, example.find('\n'))));
    for (const char* page : {"CONTRIBUTING.md", "SECURITY.md", "CHANGELOG.md", "LICENSE.md"}) {
        EXPECT_THAT(fences(page, "sh"), IsEmpty()) << page;
    }
}

TEST_F(PagesTest, WhatContributorsAreToldToRunIsThere)
{
    const std::string help = runToEnd({kSource + "/test", "--help"}).out;
    const std::set<std::string> tests = quoted("CONTRIBUTING.md", "./test");
    EXPECT_THAT(tests, ElementsAre("./test", "./test --asan", "./test --filter REGEX", "./test --lint",
                                   "./test --tsan"));
    const std::string all = readFile(kSource + "/.ci/run");
    for (const std::string& command : tests) {
        EXPECT_THAT(help, HasSubstr(command == "./test" ? "Usage: ./test" : command.substr(7))) << command;
        if (command != "./test --filter REGEX") {
            EXPECT_THAT(all, HasSubstr("\n" + command + "\n"));
        }
    }
    EXPECT_THAT(quoted("CONTRIBUTING.md", "cmake "),
                ElementsAre("cmake --build --preset dev --target unit_mdc_hlp_url_file"));
    for (const char* path : {"run", "test", ".ci/run", "fuzz/run", "packaging/abi/update",
                             "tests/unit/mdc_hlp_url_file.cpp", ".clang-format", ".clang-tidy"}) {
        EXPECT_TRUE(fs::exists(kSource + "/" + path)) << path;
        EXPECT_THAT(readFile(kSource + "/CONTRIBUTING.md"), HasSubstr(fs::path(path).stem().string()));
    }
}

// The benchmark is not built here: its own preset tests that it does what the page says.
TEST_F(PagesTest, TheBenchmarkHasTheOptionsThatItsPageTells)
{
    const std::string help = runToEnd({kSource + "/bench/run", "--help"}).out;
    std::size_t options = 0;
    for (const std::string& fence : fences("docs/performance.md", "sh")) {
        std::istringstream lines(fence);
        for (std::string line; std::getline(lines, line);) {
            std::istringstream words(line);
            std::string word;
            words >> word;
            EXPECT_EQ(word, "bench/run");
            while (words >> word) {
                if (word.rfind("--", 0) == 0) {
                    EXPECT_THAT(help, HasSubstr("\n  " + word + " ")) << line;
                    ++options;
                }
            }
        }
    }
    EXPECT_GE(options, 4U);
    for (const std::string& command : quoted("docs/performance.md", "bench/run --")) {
        EXPECT_THAT(help, HasSubstr("\n  " + command.substr(10) + " ")) << command;
    }
    for (const char* made : {"targets", "figures"}) {
        const std::string page = readFile(kSource + "/docs/performance.md");
        const std::size_t begin = page.find("<!-- made: " + std::string(made) + " -->");
        EXPECT_LT(begin, page.find("<!-- end: " + std::string(made) + " -->")) << made;
    }
}

// The locks in the order of the page that describes them.
TEST_F(PagesTest, TheOrderOfLocksIsThatOfTheArchitecture)
{
    const std::string contributing = readFile(kSource + "/CONTRIBUTING.md");
    const std::string architecture = readFile(kSource + "/docs/architecture.md");
    std::size_t here = contributing.find("## Locks");
    std::size_t there = architecture.find("| order | lock |");
    ASSERT_NE(here, std::string::npos);
    ASSERT_NE(there, std::string::npos);
    for (const char* lock : {"engine", "registry", "descriptor", "select\nwaiter", "wake-up pipe"}) {
        here = contributing.find(lock, here);
        there = architecture.find("| " + exchanged(lock, "\n", " "), there);
        EXPECT_NE(here, std::string::npos) << lock;
        EXPECT_NE(there, std::string::npos) << lock;
    }
}

TEST_F(PagesTest, TheManualIsWellFormedAndHasEveryFunctionForCCallers)
{
    const std::string page = BINARY_FOLDER "/packaging/mdchelper.3";
    const Result formatted = runToEnd({"groff", "-man", "-Tutf8", "-ww", "-z", page});
    EXPECT_EQ(formatted.status, 0);
    EXPECT_EQ(formatted.err, "");
    const std::string manual = readFile(page);
    EXPECT_THAT(manual, HasSubstr("mdchelper " MDCH_VERSION));
    const std::string header = readFile(kSource + "/common/helper/include/mdc_hlp_url.h");
    std::size_t functions = 0;
    for (std::size_t place = header.find("\nMDCH_API "); place != std::string::npos;
         place = header.find("\nMDCH_API ", place + 1)) {
        const std::size_t end = header.find('(', place);
        const std::size_t begin = header.find_last_of(" *", end) + 1;
        EXPECT_THAT(manual, HasSubstr(header.substr(begin, end - begin) + "("));
        ++functions;
    }
    EXPECT_GE(functions, 19U);
}

} // namespace
