// Trace lines of the worked platform layer go to the system log, whose function is replaced here.
#include "mdp_debug.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <syslog.h>
#include <utility>
#include <vector>

namespace {

using Message = std::pair<int, std::string>; // priority and text

std::vector<Message>& messages()
{
    static std::vector<Message> all;
    return all;
}

} // namespace

// In place of the C library's.
extern "C" void syslog(int priority, const char* format, ...)
{
    std::array<char, 4096> text{};
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    messages().emplace_back(priority, text.data());
}

namespace {

constexpr unsigned int kModule = 0x68U << 16U;

class SystemLog : public testing::Test
{
protected:
    SystemLog() { messages().clear(); }
    ~SystemLog() override { mdpDebugSetSeverity(1000); }
};

TEST_F(SystemLog, SeveritiesBecomePriorities)
{
    mdpDebugSetSeverity(5000);
    for (const unsigned int severity : {1000U, 3000U, 4000U, 5000U}) {
        mdpDebugPrintf(kModule | severity, "severity %u\n", severity);
    }
    EXPECT_EQ(messages(), (std::vector<Message>{{LOG_USER | LOG_CRIT, "severity 1000"},
                                                {LOG_USER | LOG_ERR, "severity 3000"},
                                                {LOG_USER | LOG_NOTICE, "severity 4000"},
                                                {LOG_USER | LOG_DEBUG, "severity 5000"}}));
}

TEST_F(SystemLog, WhatDoesNotPassIsNotLogged)
{
    mdpDebugSetSeverity(3000);
    mdpDebugPrintf(kModule | 4000U, "a notice\n");
    EXPECT_TRUE(messages().empty());
}

TEST_F(SystemLog, TextIsNeverAFormat)
{
    mdpDebugPrintf(kModule | 1000U, "%s", "100%s %n\n");
    EXPECT_EQ(messages(), (std::vector<Message>{{LOG_USER | LOG_CRIT, "100%s %n"}}));
}

TEST_F(SystemLog, EmptyLinesAreNotLogged)
{
    mdpDebugPrintf(kModule | 1000U, "\n");
    EXPECT_TRUE(messages().empty());
}

TEST_F(SystemLog, ANullSinkRestoresIt)
{
    std::string kept;
    mdpDebugSetSink([](void* context, unsigned int /*level*/,
                       const char* text) { *static_cast<std::string*>(context) += text; },
                    &kept);
    mdpDebugPrintf(kModule | 1000U, "to the sink\n");
    mdpDebugSetSink(nullptr, nullptr);
    mdpDebugPrintf(kModule | 1000U, "to the log\n");
    EXPECT_EQ(kept, "to the sink\n");
    EXPECT_EQ(messages(), (std::vector<Message>{{LOG_USER | LOG_CRIT, "to the log"}}));
}

} // namespace
