// The recipes for Yocto and Buildroot, and Debian's files, say of version, options and dependencies what the build says.
// Neither BitBake nor Buildroot is here: this is their form and their sense, not a build.
#include "support_process.h"

#include <cctype>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using support::readFile;
using support::Result;
using support::runToEnd;
using testing::HasSubstr;
using testing::IsSubsetOf;
using testing::IsSupersetOf;
using testing::UnorderedElementsAre;

const std::string kSource = SOURCE_FOLDER;
const std::string kRecipe = kSource + "/packaging/yocto/mdchelper_" MDCH_VERSION ".bb";
const std::string kMakefile = kSource + "/packaging/buildroot/mdchelper.mk";

std::set<std::string> words(const std::string& text)
{
    std::istringstream stream(text);
    std::set<std::string> found;
    for (std::string word; stream >> word;) {
        found.insert(word);
    }
    return found;
}

// The lines of a recipe or Config.in that count: no comments; those that end in a backslash with what follows.
std::vector<std::string> lines(const std::string& path)
{
    std::istringstream text(readFile(path));
    std::vector<std::string> found;
    bool goesOn = false;
    for (std::string line; std::getline(text, line);) {
        if (goesOn) {
            found.back() += line;
        } else if (!line.empty() && line.front() != '#') {
            found.push_back(line);
        }
        goesOn = !line.empty() && line.back() == '\\' && !found.empty();
        if (goesOn) {
            found.back().pop_back();
        }
    }
    return found;
}

bool isVariable(const std::string& name)
{
    const std::string allowed = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_:[]${}-";
    return !name.empty() && name.find_first_not_of(allowed) == std::string::npos;
}

// The variables of the recipe. Throws on a line that BitBake would not take.
std::map<std::string, std::string> recipe()
{
    std::map<std::string, std::string> found;
    for (const std::string& line : lines(kRecipe)) {
        if (line.rfind("inherit ", 0) == 0) {
            found["inherit"] += line.substr(8);
            continue;
        }
        const std::size_t end = line.find(' ');
        const std::size_t open = line.find('"');
        const std::string sign = line.substr(end, open - end);
        if (!isVariable(line.substr(0, end)) || (sign != " = " && sign != " ?= " && sign != " ?\?= ") ||
            line.find('"', open + 1) != line.size() - 1) {
            throw std::runtime_error(line);
        }
        found[line.substr(0, end)] = line.substr(open + 1, line.size() - open - 2);
    }
    return found;
}

// What make makes of a variable of the Buildroot package. The package class is Buildroot's.
std::string makeVariable(const std::string& name, bool withTool)
{
    const support::TempDir folder("buildroot");
    const std::string makefile = folder.write(
        "Makefile", std::string("BR2_PACKAGE_MDCHELPER_TOOL = ") + (withTool ? "y" : "") +
                        "\ncmake-package =\ninclude " + kMakefile + "\nprint:\n\t@echo '$(" + name + ")'\n");
    const Result made = runToEnd({"make", "--warn-undefined-variables", "-s", "-f", makefile, "print"});
    EXPECT_EQ(made.status, 0) << made.err;
    EXPECT_EQ(made.err, "");
    return made.out.substr(0, made.out.find('\n'));
}

// The project's own options in a text: -DMDC_...=
std::set<std::string> options(const std::string& text)
{
    std::set<std::string> found;
    for (std::size_t place = text.find("-DMDC_"); place != std::string::npos;
         place = text.find("-DMDC_", place + 1)) {
        found.insert(text.substr(place + 2, text.find('=', place) - place - 2));
    }
    return found;
}

TEST(RecipesTest, EveryPackageHasTheProjectsVersion)
{
    EXPECT_TRUE(std::filesystem::exists(kRecipe)) << "the recipe's name carries the version";
    EXPECT_EQ(makeVariable("MDCHELPER_VERSION", false), MDCH_VERSION);
    const Result changelog = runToEnd(
        {"dpkg-parsechangelog", "-l", kSource + "/packaging/debian/changelog", "--show-field", "Version"});
    EXPECT_EQ(changelog.out, MDCH_VERSION "\n");
    EXPECT_THAT(readFile(kSource + "/CHANGELOG.md"), HasSubstr("\n## " MDCH_VERSION));
}

TEST(RecipesTest, EveryOptionExists)
{
    const std::string build =
        readFile(kSource + "/CMakeLists.txt") + readFile(kSource + "/cmake/Warnings.cmake");
    const std::string frameworks = readFile(kSource + "/integrations/CMakeLists.txt");
    std::set<std::string> used = options(readFile(kRecipe));
    used.merge(options(readFile(kMakefile)));
    used.merge(options(readFile(kSource + "/packaging/debian/rules")));
    EXPECT_THAT(used, UnorderedElementsAre("MDC_BUILD_TESTS", "MDC_BUILD_TOOLS", "MDC_FFMPEG",
                                           "MDC_GSTREAMER", "MDC_WARNINGS_AS_ERRORS"));
    for (const std::string& option : used) {
        EXPECT_TRUE(build.find("option(" + option + " ") != std::string::npos ||
                    frameworks.find("mdc_find_framework(" + option + " ") != std::string::npos)
            << option;
    }
}

TEST(RecipesTest, TheYoctoRecipe)
{
    std::map<std::string, std::string> values = recipe();
    EXPECT_THAT(words(values["DEPENDS"]), UnorderedElementsAre("boost", "curl", "openssl", "util-linux"));
    EXPECT_THAT(words(values["inherit"]), UnorderedElementsAre("cmake", "pkgconfig"));
    EXPECT_EQ(values["PACKAGECONFIG[tool]"],
              "-DMDC_BUILD_TOOLS=ON,-DMDC_BUILD_TOOLS=OFF,cli11 nlohmann-json");
    EXPECT_EQ(values["PACKAGECONFIG"], "tool");
    EXPECT_THAT(values["FILES:${PN}-tool"], HasSubstr("${bindir}/mdch"));
    EXPECT_EQ(values["PACKAGE_BEFORE_PN"], "${PN}-tool");
    EXPECT_EQ(values["LICENSE"], "CLOSED");
    EXPECT_THAT(values["SRC_URI"], HasSubstr("${MDCHELPER_GIT}"));
    EXPECT_EQ(values.count("MDCHELPER_GIT"), 1U);
}

TEST(RecipesTest, TheBuildrootPackage)
{
    const std::set<std::string> library = words(makeVariable("MDCHELPER_DEPENDENCIES", false));
    EXPECT_THAT(library, UnorderedElementsAre("boost", "host-pkgconf", "libcurl", "openssl", "util-linux"));
    const std::set<std::string> tool = words(makeVariable("MDCHELPER_DEPENDENCIES", true));
    EXPECT_THAT(tool, IsSupersetOf({"cli11", "json-for-modern-cpp"}));
    EXPECT_THAT(library, IsSubsetOf(tool));
    EXPECT_THAT(makeVariable("MDCHELPER_CONF_OPTS", false), HasSubstr("-DMDC_BUILD_TOOLS=OFF"));
    EXPECT_THAT(makeVariable("MDCHELPER_CONF_OPTS", true), HasSubstr("-DMDC_BUILD_TOOLS=ON"));
    EXPECT_TRUE(std::filesystem::exists(kSource + "/" + makeVariable("MDCHELPER_LICENSE_FILES", false)));

    // Whatever is waited for is selected.
    const std::string config = readFile(kSource + "/packaging/buildroot/Config.in");
    for (std::string name : tool) {
        if (name.rfind("host-", 0) != 0) {
            for (char& character : name) {
                character = character == '-' ? '_' : static_cast<char>(std::toupper(character));
            }
            EXPECT_THAT(config, HasSubstr("\tselect BR2_PACKAGE_" + name)) << name;
        }
    }
}

// Every line of Config.in begins as Kconfig wants it; what is opened is closed.
TEST(RecipesTest, TheBuildrootConfiguration)
{
    const std::set<std::string> top = {"config", "if", "endif", "comment"};
    const std::set<std::string> attributes = {"bool", "depends", "select", "help"};
    std::multiset<std::string> seen;
    for (const std::string& line : lines(kSource + "/packaging/buildroot/Config.in")) {
        std::istringstream text(line);
        std::string first;
        text >> first;
        seen.insert(first);
        if (line.front() != '\t') {
            EXPECT_EQ(top.count(first), 1U) << line;
        } else if (line.rfind("\t  ", 0) != 0) {
            EXPECT_EQ(attributes.count(first), 1U) << line;
        }
    }
    EXPECT_EQ(seen.count("if"), seen.count("endif"));
    EXPECT_EQ(seen.count("config"), seen.count("bool"));
    EXPECT_EQ(seen.count("config"), seen.count("help"));
}

// As CMakeLists.txt asks for them.
TEST(RecipesTest, EveryPackageHasEveryDependency)
{
    const std::string build = readFile(kSource + "/CMakeLists.txt") +
                              readFile(kSource + "/common/platform/platform.cmake") +
                              readFile(kSource + "/tools/mdch/CMakeLists.txt");
    std::set<std::string> asked;
    std::istringstream text(build);
    for (std::string line; std::getline(text, line);) {
        for (const char* command : {"find_package(", "pkg_check_modules("}) {
            if (line.rfind(command, 0) == 0) {
                const std::size_t name = std::string(command).size();
                asked.insert(line.substr(name, line.find_first_of(" )", name) - name));
            }
        }
    }
    // The name in Yocto, in Buildroot, in Debian.
    const std::map<std::string, std::vector<std::string>> names = {
        {"CURL", {"curl", "libcurl", "libcurl4-openssl-dev"}},
        {"OpenSSL", {"openssl", "openssl", "libssl-dev"}},
        {"Boost", {"boost", "boost", "libboost-thread-dev"}},
        {"libmount", {"util-linux", "util-linux", "libmount-dev"}},
        {"PkgConfig", {"pkgconfig", "host-pkgconf", "pkgconf"}},
        {"CLI11", {"cli11", "cli11", "libcli11-dev"}},
        {"nlohmann_json", {"nlohmann-json", "json-for-modern-cpp", "nlohmann-json3-dev"}},
        {"Threads", {"", "", ""}} // the C library's
    };
    const std::string yocto = readFile(kRecipe);
    const std::string buildroot = makeVariable("MDCHELPER_DEPENDENCIES", true);
    const std::string debian = readFile(kSource + "/packaging/debian/control");
    for (const std::string& name : asked) {
        ASSERT_EQ(names.count(name), 1U) << name << " is new: the packages must ask for it";
        EXPECT_THAT(yocto, HasSubstr(names.at(name)[0]));
        EXPECT_THAT(buildroot, HasSubstr(names.at(name)[1]));
        EXPECT_THAT(debian, HasSubstr(names.at(name)[2]));
    }
    EXPECT_EQ(asked.size(), names.size());
}

} // namespace
