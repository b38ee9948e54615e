// What README.md and docs/command-line.md promise, taken from the pages themselves.
#pragma once

#include "support_mdch.h"

#include "support/http_server.h"
#include "support/media.h"

#include <gtest/gtest.h>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace support {

inline const std::string kSource = SOURCE_FOLDER;
inline const std::string kEnding = "abcdefghij"; // what the examples show must be printable

// The contents of the page's code fences in one language.
inline std::vector<std::string> fences(const std::string& page, const std::string& language)
{
    std::vector<std::string> found;
    std::istringstream text(readFile(kSource + "/" + page));
    bool inside = false;
    bool wanted = false;
    for (std::string line; std::getline(text, line);) {
        if (line.rfind("```", 0) == 0) {
            wanted = !inside && line.substr(3) == language;
            inside = !inside;
            if (wanted) {
                found.emplace_back();
            }
        } else if (inside && wanted) {
            found.back() += line + "\n";
        }
    }
    return found;
}

inline std::string theFence(const std::string& page, const std::string& language)
{
    const std::vector<std::string> found = fences(page, language);
    if (found.size() != 1) {
        throw std::runtime_error(page + " has " + std::to_string(found.size()) + " examples in " + language);
    }
    return found.front();
}

// The one fence that has this text.
inline std::string fenceWith(const std::string& page, const std::string& part)
{
    for (const std::string& fence : fences(page, "sh")) {
        if (fence.find(part) != std::string::npos) {
            return fence;
        }
    }
    throw std::runtime_error(page + " has no commands with " + part);
}

inline std::string content()
{
    return Media(9).bytes(0, 100000) + kEnding;
}

// A server with the media that the examples are tried on, and what the examples must make of it.
class PageTest : public testing::Test
{
protected:
    PageTest() { m_server.on("/song.mp3", Reply::resource(content())); }

    void expectCopies() const
    {
        const Result good = runToEnd({m_folder.file("player"), m_server.url("/song.mp3")});
        EXPECT_EQ(good.status, 0);
        EXPECT_EQ(good.err, "100010 bytes\n");
        EXPECT_TRUE(good.out == content());
        const Result bad = runToEnd({m_folder.file("player"), m_server.url("/none")});
        EXPECT_EQ(bad.status, 1);
        EXPECT_EQ(bad.err, "cannot open the stream\n");
        EXPECT_EQ(m_server.requests().back().header("User-Agent"), "player/1.0");
    }

    void expectShowsTheEnd(const std::string& program) const
    {
        const Result good = runToEnd({program, m_server.url("/song.mp3")});
        EXPECT_EQ(good.status, 0) << good.err;
        EXPECT_EQ(good.out, "bytes 100000 to 100010: " + kEnding + "\n");
        const Result bad = runToEnd({program, m_server.url("/none")});
        EXPECT_EQ(bad.status, 1);
        EXPECT_EQ(bad.err, "cannot open the stream: error 2\n");
    }

    HttpServer m_server;
    TempDir m_folder{"readme"};
};

} // namespace support
