// What a long run must notice, it notices.
#include "ledger.h"
#include "meter.h"

#include "mdc_hlp_trace.h"
#include "support/wait.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kSamples = 30;

Limits strict()
{
    Limits limits;
    limits.residentGrowth = limits.allocatedGrowth = 100'000;
    limits.residentExcess = limits.allocatedExcess = 500'000;
    limits.descriptorExcess = 4;
    return limits;
}

// One a second. Up and down a little, with a warm-up and an outlier.
std::vector<Sample> flat()
{
    std::vector<Sample> samples;
    for (int i = 0; i < kSamples; ++i) {
        Sample sample;
        sample.seconds = i;
        const std::uint64_t missing = i < 5 ? 100'000U * static_cast<std::uint64_t>(5 - i) : 0;
        const std::uint64_t wave = static_cast<std::uint64_t>(i % 3) * 20'000U + (i == 25 ? 300'000U : 0);
        sample.resting = {10'000'000 - missing + wave, 5'000'000 - missing + wave,
                          20 + static_cast<std::uint64_t>(i % 3), 12};
        sample.most = {11'000'000, 6'000'000, 50, 12};
        samples.push_back(sample);
    }
    return samples;
}

// What does not hold, joined by blanks.
std::string broken(const std::vector<Sample>& samples, const Limits& limits = strict())
{
    std::string names;
    for (const Finding& finding : judge(samples, limits)) {
        names += finding.holds ? "" : finding.what + " ";
    }
    return names;
}

template <class Change>
std::vector<Sample> changed(Change change)
{
    std::vector<Sample> samples = flat();
    for (std::size_t i = 0; i < samples.size(); ++i) {
        change(samples[i], i);
    }
    return samples;
}

} // namespace

TEST(SoakJudge, whatIsFlatHolds)
{
    EXPECT_EQ(broken(flat()), "");
}

TEST(SoakJudge, aSlowLeakIsNoticed)
{
    EXPECT_EQ(broken(changed([](Sample& s, std::size_t i) { s.resting.allocatedBytes += i * 6'000; })),
              "malloc bytes ");
    EXPECT_EQ(broken(changed([](Sample& s, std::size_t i) { s.resting.residentBytes += i * 6'000; })),
              "resident bytes ");
    EXPECT_EQ(broken(changed([](Sample& s, std::size_t i) { s.resting.descriptors += i / 4; })),
              "descriptors ");
}

TEST(SoakJudge, aJumpIsNoticed)
{
    EXPECT_EQ(
        broken(changed([](Sample& s, std::size_t i) { s.resting.allocatedBytes += i > 26 ? 600'000 : 0; })),
        "malloc bytes ");
}

TEST(SoakJudge, oneThreadMoreIsNoticedAtRestAndBetween)
{
    EXPECT_EQ(broken(changed([](Sample& s, std::size_t i) { s.resting.threads += i == 20 ? 1 : 0; })),
              "threads ");
    EXPECT_EQ(broken(changed([](Sample& s, std::size_t i) { s.most.threads += i == 20 ? 1 : 0; })),
              "threads ");
}

TEST(SoakJudge, aWarmUpIsNotJudgedAndTooFewSamplesHoldNothing)
{
    EXPECT_EQ(broken(changed([](Sample& s, std::size_t i) { s.resting.threads -= i < 5 ? 3 : 0; })), "");
    std::vector<Sample> few = flat();
    few.resize(7);
    EXPECT_EQ(broken(few), "samples ");
}

TEST(SoakMeter, memoryDescriptorsAndThreadsAreCounted)
{
    constexpr std::size_t kSize = 40'000'000;
    std::thread([] {}).join(); // a sanitizer starts one of its own with the first
    const Holding before = holdingNow();
    EXPECT_GT(before.residentBytes, 0U);
    std::vector<char> memory(kSize, 'x');
    const std::vector<int> numbers{dup(0), dup(0)};
    bool ended = false;
    std::thread thread(
        [&] { support::waitUntil([&] { return __atomic_load_n(&ended, __ATOMIC_ACQUIRE); }); });
    const Holding now = holdingNow();
    __atomic_store_n(&ended, true, __ATOMIC_RELEASE);
    thread.join();
    std::for_each(numbers.begin(), numbers.end(), close);
    EXPECT_GE(now.allocatedBytes, before.allocatedBytes + kSize);
    EXPECT_GE(now.residentBytes, before.residentBytes + kSize / 2) << memory.back();
    EXPECT_EQ(now.descriptors, before.descriptors + 2);
    EXPECT_EQ(now.threads, before.threads + 1);
}

namespace {

void trace(const std::string& text, unsigned int level = md::kTraceError)
{
    MDCH_TRACE(level, "%s\n", text.c_str());
}

} // namespace

TEST(SoakLedger, linesWithoutAFaultAreUnexplained)
{
    Ledger ledger;
    trace("f(): of nobody");
    trace("f(): got error 404 on fd 100");
    trace("f(): a notice", md::kTraceNotice);
    ledger.closeAll();
    EXPECT_EQ(ledger.unexplained(),
              (std::vector<std::string>{"f(): got error 404 on fd # (stream 100)", "f(): of nobody"}));
    EXPECT_EQ(ledger.unexplainedCount(), 2U);
}

TEST(SoakLedger, aFaultExplainsItsLinesOnce)
{
    Ledger ledger;
    {
        Fault fault(ledger, "missing");
        fault.must("f(): got error 404 on fd #")
            .may("f(): already done on fd #")
            .says("u.cpp:#:g(): no")
            .elsewhere("h(): no trust");
        std::thread([] { trace("f(): got error 404 on fd 100"); }).join();
        trace("f(): already done on fd 100");
        trace("u.cpp:12:g(): no");
        std::thread([] { trace("h(): no trust"); }).join();
        fault.settle(100);
    }
    ledger.closeAll();
    EXPECT_EQ(ledger.unexplainedCount(), 0U);
    EXPECT_EQ(ledger.counts().at("missing").caused, 1U);
    EXPECT_EQ(ledger.counts().at("missing").matched, 1U);
    trace("f(): got error 404 on fd 100");
    ledger.closeAll();
    EXPECT_EQ(ledger.unexplainedCount(), 1U);
}

TEST(SoakLedger, aFaultFindsItsStreamByTheLines)
{
    Ledger ledger;
    trace("f(): other on fd 100");
    trace("f(): got error 404 on fd 101");
    Fault(ledger, "missing").must("f(): got error 404 on fd #");
    ledger.closeAll();
    EXPECT_EQ(ledger.counts().at("missing").matched, 1U);
    EXPECT_EQ(ledger.unexplained(), (std::vector<std::string>{"f(): other on fd # (stream 100)"}));
}

TEST(SoakLedger, aLineTooManyAndOneTooFewAreNoticed)
{
    Ledger ledger;
    {
        Fault fault(ledger, "missing");
        fault.must("f(): one on fd #").says("said");
        trace("f(): one on fd 100");
        trace("f(): one on fd 100");
        trace("f(): two on fd 100");
        fault.settle(100);
    }
    EXPECT_EQ(ledger.counts().at("missing").matched, 0U);
    EXPECT_EQ(ledger.unexplained(), (std::vector<std::string>{"f(): one on fd # (fault: missing)",
                                                              "f(): two on fd # (fault: missing)",
                                                              "missing: said (fault: missing)"}));
}
