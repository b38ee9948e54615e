// Runs a harness over files instead of a fuzzer's inventions: seeds as a test, a finding under a debugger.
#include "harness.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> filesAt(const fs::path& place)
{
    if (!fs::is_directory(place)) {
        return {place};
    }
    std::vector<fs::path> files;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(place)) {
        if (entry.is_regular_file()) {
            files.push_back(entry.path());
        }
    }
    if (files.empty()) {
        throw std::runtime_error("no files in " + place.string());
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::vector<std::uint8_t> contentOf(const fs::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        throw std::runtime_error("cannot read " + file.string());
    }
    const std::string text{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    return std::vector<std::uint8_t>(text.begin(), text.end()); // exact size, unlike a string's memory
}

void replay(const fs::path& file)
{
    const std::vector<std::uint8_t> content = contentOf(file);
    std::printf("%s, %zu bytes\n", file.c_str(), content.size());
    std::fflush(stdout); // the name of the last one tells what ended the program
    LLVMFuzzerTestOneInput(content.data(), content.size());
}

} // namespace

int main(int argc, char** argv)
{
    const std::vector<std::string> places(argv + 1, argv + argc);
    if (places.empty()) {
        std::fprintf(stderr, "usage: %s FILE-OR-FOLDER...\n", argv[0]);
        return 2;
    }
    try {
        LLVMFuzzerTestOneInput(nullptr, 0); // as a fuzzer does first
        for (const std::string& place : places) {
            for (const fs::path& file : filesAt(place)) {
                replay(file);
            }
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    return 0;
}
