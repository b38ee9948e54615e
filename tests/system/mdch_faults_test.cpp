// The command line, while one call after the other fails below it: it says so in one line, or does its work.
#include "support_mdch.h"

#include "faults/nth_call.h"
#include "support/http_server.h"
#include "support/media.h"
#include "support/temp_dir.h"

#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using faults::Kind;
using support::HttpServer;
using support::Media;
using support::Reply;
using support::Result;

const Media kMedia(31);
constexpr std::size_t kSize = 300'000;

class MdchFaults : public testing::Test
{
protected:
    MdchFaults() { m_server.on("/film", Reply::resource(kMedia, kSize)); }

    // Lets the first call of the kind fail, then that `step` further on, up to the last one.
    void check(Kind kind, long step, const std::string& command, const std::vector<std::string>& more = {})
    {
        std::vector<std::string> arguments = {command, m_server.url("/film")};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const Result healthy = support::mdch(arguments);
        ASSERT_EQ(healthy.status, 0) << healthy.err;
        int failures = 0;
        for (long n = 1;; n += step) {
            const std::string call = std::to_string(static_cast<int>(kind)) + " " + std::to_string(n);
            std::remove(m_report.c_str());
            support::ProcessOptions options;
            // The loader's word on the sanitizer's place is right, and does no harm here.
            options.setting = {"LD_PRELOAD=" PRELOAD, "FAULTS_CALL=" + call, "FAULTS_REPORT=" + m_report,
                               "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=0"};
            const Result result = support::mdch(arguments, options);
            const std::string failed = support::readFile(m_report);
            SCOPED_TRACE("kind and number " + call + ": " + failed);
            if (result.status == 0) {
                EXPECT_EQ(result.out, healthy.out);
                EXPECT_EQ(result.err, "");
            } else {
                EXPECT_LT(result.status, 10) << "no status of its own";
                EXPECT_EQ(result.err.substr(0, 6), "mdch: ");
                EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
                EXPECT_EQ(result.out, healthy.out.substr(0, result.out.size()));
                ++failures;
            }
            if (failed.empty() || HasFailure()) {
                break;
            }
        }
        EXPECT_GT(failures, 0) << "nothing ever failed";
    }

    HttpServer m_server;
    support::TempDir m_folder;
    std::string m_report = m_folder.file("report");
};

TEST_F(MdchFaults, ofCat)
{
    check(Kind::kMemory, 3, "cat");
    check(Kind::kCurlMemory, 17, "cat");
    check(Kind::kCurl, 5, "cat");
    check(Kind::kDescriptor, 1, "cat");
    check(Kind::kThread, 1, "cat");
}

TEST_F(MdchFaults, ofInfo)
{
    check(Kind::kMemory, 5, "info");
    check(Kind::kCurl, 7, "info");
    check(Kind::kDescriptor, 1, "info");
}

} // namespace
