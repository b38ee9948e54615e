// What a page shows: its code fences in their order, and the sessions in them, command lines with what they print.
#pragma once

#include "support_readme.h"

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace support {

struct Fence
{
    std::string language;
    std::string content;
};

inline std::vector<Fence> fencesOf(const std::string& page)
{
    std::vector<Fence> found;
    std::istringstream text(readFile(kSource + "/" + page));
    bool inside = false;
    for (std::string line; std::getline(text, line);) {
        if (line.rfind("```", 0) == 0) {
            inside = !inside;
            if (inside) {
                found.push_back({line.substr(3), ""});
            }
        } else if (inside) {
            found.back().content += line + "\n";
        }
    }
    return found;
}

inline std::string replaced(std::string text, const std::string& what, const std::string& with)
{
    for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size()) {
        text.replace(at, what.size(), with);
    }
    return text;
}

struct SessionStep
{
    std::string command;
    std::string printed;
};

// "$ command" begins a step; the lines behind it are what it prints.
inline std::vector<SessionStep> sessionOf(const std::string& text)
{
    std::vector<SessionStep> steps;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("$ ", 0) == 0) {
            steps.push_back({line.substr(2), ""});
        } else if (steps.empty()) {
            throw std::runtime_error("a session that begins without a command: " + line);
        } else {
            steps.back().printed += line + "\n";
        }
    }
    if (steps.empty()) {
        throw std::runtime_error("a session without commands");
    }
    return steps;
}

} // namespace support
