// The binary interface stays what packaging/abi says: symbols, types, name; and records mean the same on every
// machine.
#include "support_process.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using support::readFile;
using support::Result;
using support::runToEnd;
using testing::HasSubstr;

const std::string kSource = SOURCE_FOLDER;
const std::string kLibrary = LIBRARY_FILE;

Result check(const std::string& what, const std::string& reference = "")
{
    std::vector<std::string> command = {kSource + "/packaging/abi/check", what, kLibrary};
    if (!reference.empty()) {
        command.push_back(reference);
    }
    return runToEnd(command);
}

// The text with one piece exchanged, which must be there.
std::string exchanged(std::string text, const std::string& piece, const std::string& other)
{
    const std::size_t place = text.find(piece);
    if (place == std::string::npos) {
        throw std::runtime_error("no " + piece);
    }
    return text.replace(place, piece.size(), other);
}

class AbiTest : public testing::Test
{
protected:
    const support::TempDir m_folder{"abi"};
};

TEST_F(AbiTest, TheLibraryExportsWhatItsListSays)
{
    const Result result = check("symbols");
    EXPECT_EQ(result.status, 0) << result.out << result.err;
}

TEST_F(AbiTest, AMissingAndAnAdditionalSymbolAreFound)
{
    const std::string list = readFile(kSource + "/packaging/abi/mdchelper.symbols");
    const Result additional =
        check("symbols", m_folder.write("without", exchanged(list, "\nmdch_UrlRead\n", "\n")));
    EXPECT_EQ(additional.status, 1);
    EXPECT_THAT(additional.out, HasSubstr("\n+mdch_UrlRead\n"));
    EXPECT_THAT(additional.err, HasSubstr("packaging/abi/update"));

    const Result missing = check(
        "symbols", m_folder.write("with", exchanged(list, "\nmdch_UrlRead\n", "\nmdch_Url\nmdch_UrlRead\n")));
    EXPECT_EQ(missing.status, 1);
    EXPECT_THAT(missing.out, HasSubstr("\n-mdch_Url\n"));
}

TEST_F(AbiTest, NothingOfTheStandardLibraryAndOfBoostIsExported)
{
    const Result symbols = runToEnd({"nm", "-D", "-C", "--defined-only", kLibrary});
    ASSERT_EQ(symbols.status, 0);
    EXPECT_THAT(symbols.out, HasSubstr(" mdch_UrlOpen@@MDCHELPER_1\n"));
    std::istringstream lines(symbols.out);
    for (std::string line; std::getline(lines, line);) {
        const std::size_t name = line.find(' ', line.find(' ') + 1) + 1; // behind the address and a letter
        for (const char* foreign : {"std::", "boost::", "__gnu_cxx::"}) {
            for (const char* kind : {"", "typeinfo for ", "typeinfo name for ", "vtable for ", "VTT for "}) {
                EXPECT_NE(line.find(std::string(kind) + foreign, name), name) << line;
            }
        }
    }
}

TEST_F(AbiTest, TheNameOfTheLibraryCarriesTheMajorVersion)
{
    const std::string version = MDCH_VERSION;
    const std::string name = "libmdchelper.so." + version.substr(0, version.find('.'));
    EXPECT_THAT(runToEnd({"readelf", "-d", kLibrary}).out, HasSubstr("Library soname: [" + name + "]"));
    EXPECT_EQ(std::filesystem::path(kLibrary).filename(), "libmdchelper.so." + version);
    EXPECT_THAT(readFile(kSource + "/packaging/abi/mdchelper.map"),
                HasSubstr("\nMDCHELPER_" + version.substr(0, version.find('.')) + " {"));
}

#if CHECKS_TYPES

TEST_F(AbiTest, TheTypesAreThoseOfTheBaseline)
{
    const Result result = check("types");
    EXPECT_EQ(result.status, 0) << result.out << result.err;
}

// As it would be found if the baseline were that of a library that programs were built against.
TEST_F(AbiTest, ARecordOfAnotherSizeAVirtualFunctionElsewhereAndALostFunctionAreFound)
{
    const std::string baseline = readFile(kSource + "/packaging/abi/mdchelper.x86_64.abi");
    const auto changed = [&](const std::string& piece, const std::string& other) {
        return check("types", m_folder.write("changed.abi", exchanged(baseline, piece, other)));
    };
    const Result record = changed("name='mdch_UrlExtended_struct' size-in-bits='448'",
                                  "name='mdch_UrlExtended_struct' size-in-bits='384'");
    EXPECT_EQ(record.status, 1);
    EXPECT_THAT(record.out, HasSubstr("mdch_UrlExtended_struct"));
    EXPECT_THAT(record.err, HasSubstr("packaging/abi/update"));

    const Result classWithTexts =
        changed("name='PlaylistEntry' size-in-bits='1536'", "name='PlaylistEntry' size-in-bits='1280'");
    EXPECT_EQ(classWithTexts.status, 1);
    EXPECT_THAT(classWithTexts.out, HasSubstr("PlaylistEntry"));

    const Result virtualFunction = changed("vtable-offset='3'", "vtable-offset='30'");
    EXPECT_EQ(virtualFunction.status, 1);

    const Result lost = changed("elf-symbol name='mdch_UrlRead'", "elf-symbol name='mdch_UrlReadAll'");
    EXPECT_EQ(lost.status, 1);
    EXPECT_THAT(lost.out, HasSubstr("mdch_UrlReadAll"));
}

// What a width that depends on the machine's time does to two builds; the system's timeval may differ.
TEST_F(AbiTest, BuildsWithRecordsOfDifferentWidthAreFound)
{
    const auto build = [&](const std::string& name, const std::string& record, const std::string& width) {
        const std::string text = "struct " + record + " { " + width + " field; };\nint use(struct " + record +
                                 "* record) { return (int)record->field; }\n";
        const std::string library = m_folder.file(name + ".so");
        const Result built = runToEnd(
            {C_COMPILER, "-g", "-shared", "-fPIC", "-o", library, m_folder.write(name + ".c", text)});
        EXPECT_EQ(built.status, 0) << built.err;
        return library;
    };
    const auto same = [](const std::string& one, const std::string& other) {
        return runToEnd({kSource + "/packaging/abi/check", "same", one, other});
    };
    const std::string narrow = build("narrow", "Record", "int");
    EXPECT_EQ(same(narrow, narrow).status, 0);
    const Result different = same(narrow, build("wide", "Record", "long long"));
    EXPECT_EQ(different.status, 1);
    EXPECT_THAT(different.out, HasSubstr("struct Record"));
    const Result time = same(build("time32", "timeval", "int"), build("time64", "timeval", "long long"));
    EXPECT_EQ(time.status, 0) << time.out;
}

#endif

// A source without its comments. It has none in texts.
std::string withoutComments(const std::string& text)
{
    std::string rest;
    for (std::size_t place = 0; place < text.size();) {
        const std::size_t comment = std::min(text.find("/*", place), text.find("//", place));
        rest += text.substr(place, comment - place) + " ";
        if (comment == std::string::npos) {
            break;
        }
        place = text[comment + 1] == '*' ? text.find("*/", comment + 2) : text.find('\n', comment);
        place += place == std::string::npos ? 0 : 2;
    }
    return rest;
}

// Words, and every other character that is not a blank by itself.
std::vector<std::string> tokens(const std::string& text)
{
    std::vector<std::string> found;
    bool inWord = false;
    for (const char character : text) {
        const bool isWord = std::isalnum(static_cast<unsigned char>(character)) != 0 || character == '_';
        if (isWord && inWord) {
            found.back() += character;
        } else if (std::isspace(static_cast<unsigned char>(character)) == 0) {
            found.emplace_back(1, character);
        }
        inWord = isWord;
    }
    return found;
}

// The first type in a header whose width differs between machines, or nothing.
std::string typeOfVaryingWidth(const std::string& header)
{
    std::vector<std::string> words = tokens(withoutComments(header));
    words.emplace_back();
    for (std::size_t place = 0; place + 1 < words.size(); ++place) {
        const std::string& word = words[place];
        const std::string& next = words[place + 1];
        if (word == "long" && next == "long") {
            ++place;
            continue;
        }
        const bool isNumber = word == "long" || word == "time_t" || word == "off_t" || word == "off64_t";
        // By reference, it is the caller's as the system's headers make it.
        const bool isRecord =
            (word == "timeval" || word == "timespec" || word == "stat") && next != "*" && next != "&";
        if (isNumber || isRecord) {
            return word;
        }
    }
    return "";
}

TEST_F(AbiTest, PublicHeadersHaveNoTypeWhoseWidthDependsOnTheMachinesTimeAndFileSizes)
{
    int headers = 0;
    for (const char* folder : {"/common/helper/include", "/common/platform/include"}) {
        for (const auto& entry : std::filesystem::directory_iterator(kSource + folder)) {
            EXPECT_EQ(typeOfVaryingWidth(readFile(entry.path())), "") << entry.path();
            ++headers;
        }
    }
    EXPECT_GE(headers, 20);

    EXPECT_EQ(typeOfVaryingWidth("struct A { long size; };"), "long");
    EXPECT_EQ(typeOfVaryingWidth("struct A { unsigned  long int size; };"), "long");
    EXPECT_EQ(typeOfVaryingWidth("struct A { std::time_t when; };"), "time_t");
    EXPECT_EQ(typeOfVaryingWidth("struct A { timeval when; };"), "timeval");
    EXPECT_EQ(typeOfVaryingWidth("int a; // b\n/* c */ off_t d;"), "off_t");
    EXPECT_EQ(typeOfVaryingWidth("/* long * ** */ long long f(timeval* t); // off_t"), "");
}

} // namespace
