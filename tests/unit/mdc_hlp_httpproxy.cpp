// The process-wide proxy setting: complete or not used at all, replaced as a whole.
#include "mdc_hlp_httpproxy.h"

#include "support/trace_capture.h"

#include <atomic>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

constexpr const char* kConfigured =
    "mdc_hlp_httpproxy.cpp:#:setHttpProxyInfo(): got http proxy configuration\n";

md::httpProxyInfo_struct record(const std::string& host, int port, const std::string& user = "",
                                const std::string& password = "")
{
    md::httpProxyInfo_struct info;
    info.host = host;
    info.port = port;
    info.user = user;
    info.password = password;
    return info;
}

md::httpProxyInfo_struct sentinel()
{
    return record("untouched", -7, "nobody", "secret");
}

void expectSame(const md::httpProxyInfo_struct& got, const md::httpProxyInfo_struct& expected)
{
    EXPECT_EQ(got.host, expected.host);
    EXPECT_EQ(got.port, expected.port);
    EXPECT_EQ(got.user, expected.user);
    EXPECT_EQ(got.password, expected.password);
}

void expectNoProxy()
{
    md::httpProxyInfo_struct info = sentinel();
    EXPECT_FALSE(md::getHttpProxyInfo(info));
    expectSame(info, sentinel());
}

// Leaves the process without a proxy, as it was.
class Proxy : public testing::Test
{
protected:
    ~Proxy() override { md::setHttpProxyInfo({}, false, false); }
};

md::HttpProxyInfo setting(bool enabled, bool authenticate)
{
    md::HttpProxyInfo info;
    info.enabled = enabled ? 1 : 0;
    info.authenticate = authenticate ? 1 : 0;
    info.host = "proxy";
    info.port = 3128;
    info.user = "user";
    info.password = "password";
    info.availableFields = 0x3f;
    return info;
}

} // namespace

TEST_F(Proxy, withoutASettingGetReturnsFalseAndLeavesTheOutput)
{
    expectNoProxy(); // true of the start, and of the disabled setting that another test left
}

TEST_F(Proxy, enabledSettingIsHandedOut)
{
    EXPECT_TRUE(md::setHttpProxyInfo(record("proxy", 3128), true, false));
    md::httpProxyInfo_struct info = sentinel();
    EXPECT_TRUE(md::getHttpProxyInfo(info));
    expectSame(info, record("proxy", 3128));
}

TEST_F(Proxy, userAndPasswordAreEmptyWithoutAuthentication)
{
    EXPECT_TRUE(md::setHttpProxyInfo(record("proxy", 3128, "me", "word"), true, false));
    md::httpProxyInfo_struct info = sentinel();
    EXPECT_TRUE(md::getHttpProxyInfo(info));
    expectSame(info, record("proxy", 3128));
}

TEST_F(Proxy, userAndPasswordAreHandedOutWithAuthentication)
{
    EXPECT_TRUE(md::setHttpProxyInfo(record("proxy", 3128, "me", "word"), true, true));
    md::httpProxyInfo_struct info = sentinel();
    EXPECT_TRUE(md::getHttpProxyInfo(info));
    expectSame(info, record("proxy", 3128, "me", "word"));
}

TEST_F(Proxy, emptyUserAndPasswordCountAsSupplied)
{
    EXPECT_TRUE(md::setHttpProxyInfo(record("", 0), true, true));
    md::httpProxyInfo_struct info = sentinel();
    EXPECT_TRUE(md::getHttpProxyInfo(info));
    expectSame(info, record("", 0));
}

TEST_F(Proxy, disabledSettingIsNotHandedOutWhateverItHolds)
{
    for (const bool authenticate : {false, true}) {
        EXPECT_TRUE(md::setHttpProxyInfo(record("proxy", 3128, "me", "word"), false, authenticate));
        expectNoProxy();
    }
}

TEST_F(Proxy, disablingRemovesAnEarlierSetting)
{
    md::setHttpProxyInfo(record("proxy", 3128), true, false);
    md::setHttpProxyInfo(record("proxy", 3128), false, false);
    expectNoProxy();
}

TEST_F(Proxy, everySetReplacesTheWholeSetting)
{
    md::setHttpProxyInfo(record("first", 1, "me", "word"), true, true);
    md::setHttpProxyInfo(record("second", 2), true, true);
    md::httpProxyInfo_struct info = sentinel();
    EXPECT_TRUE(md::getHttpProxyInfo(info));
    expectSame(info, record("second", 2));
}

TEST_F(Proxy, setTracesOnceAsANotice)
{
    const support::TraceCapture traces;
    md::setHttpProxyInfo(record("proxy", 3128, "me", "word"), true, true);
    EXPECT_EQ(traces.count(kConfigured), 1U);
    EXPECT_EQ(traces.severityOf(kConfigured), 4000U);
    EXPECT_EQ(traces.lines().size(), 1U);
    EXPECT_EQ(traces.lines().at(0).level >> 16U, 0x68U);
}

TEST_F(Proxy, getTracesNothing)
{
    md::setHttpProxyInfo(record("proxy", 3128), true, false);
    const support::TraceCapture traces;
    md::httpProxyInfo_struct info;
    md::getHttpProxyInfo(info);
    EXPECT_TRUE(traces.lines().empty());
}

TEST_F(Proxy, settingsFromManyThreadsAreNeverMixed)
{
    constexpr int kWriters = 3;
    constexpr int kRounds = 3000;
    std::atomic<int> writing{kWriters};
    std::vector<std::thread> threads;
    for (int writer = 0; writer < kWriters; ++writer) {
        threads.emplace_back([writer, &writing] {
            for (int i = 0; i < kRounds; ++i) {
                const int port = writer * kRounds + i;
                const std::string tag = std::to_string(port);
                md::setHttpProxyInfo(
                    record("a host name beyond any small text " + tag, port, "u" + tag, "p" + tag), true,
                    true);
            }
            --writing;
        });
    }
    long seen = 0;
    while (writing > 0) {
        md::httpProxyInfo_struct info;
        if (md::getHttpProxyInfo(info)) {
            const std::string tag = std::to_string(info.port);
            ASSERT_EQ(info.host, "a host name beyond any small text " + tag);
            ASSERT_EQ(info.user, "u" + tag);
            ASSERT_EQ(info.password, "p" + tag);
            ++seen;
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    md::httpProxyInfo_struct last;
    ASSERT_TRUE(md::getHttpProxyInfo(last));
    EXPECT_EQ(last.port % kRounds, kRounds - 1) << "the last setting is not the last of any thread";
    RecordProperty("settings_read", std::to_string(seen));
}

TEST(ProxyRecord, hasItsDefaults)
{
    const md::HttpProxyInfo info;
    EXPECT_EQ(info.enabled, 0);
    EXPECT_EQ(info.port, 80);
    EXPECT_EQ(info.host, "");
    EXPECT_EQ(info.authenticate, 0);
    EXPECT_EQ(info.user, "");
    EXPECT_EQ(info.password, "");
    EXPECT_EQ(info.availableFields, 0U);
    static_assert(sizeof(info.enabled) == 4 && sizeof(info.port) == 4 && sizeof(info.authenticate) == 4 &&
                  sizeof(info.availableFields) == 4);
}

TEST(ProxyRecord, fieldsStandInTheirOrder)
{
    const md::HttpProxyInfo info;
    const auto at = [](const auto& field) { return reinterpret_cast<const char*>(&field); };
    EXPECT_LT(at(info.enabled), at(info.port));
    EXPECT_LT(at(info.port), at(info.host));
    EXPECT_LT(at(info.host), at(info.authenticate));
    EXPECT_LT(at(info.authenticate), at(info.user));
    EXPECT_LT(at(info.user), at(info.password));
    EXPECT_LT(at(info.password), at(info.availableFields));
    const md::httpProxyInfo_struct plain;
    EXPECT_LT(at(plain.port), at(plain.host));
    EXPECT_LT(at(plain.host), at(plain.user));
    EXPECT_LT(at(plain.user), at(plain.password));
}

TEST(ProxyRecord, copyHoldsEveryFieldAndTheBits)
{
    md::HttpProxyInfo original = setting(true, true);
    original.availableFields = 0x15;
    const md::HttpProxyInfo copy(original);
    EXPECT_EQ(copy.enabled, 1);
    EXPECT_EQ(copy.port, 3128);
    EXPECT_EQ(copy.host, "proxy");
    EXPECT_EQ(copy.authenticate, 1);
    EXPECT_EQ(copy.user, "user");
    EXPECT_EQ(copy.password, "password");
    EXPECT_EQ(copy.availableFields, 0x15U);
}

TEST(ProxyRecord, setFieldAvailableSetsAndClearsTheBitsOfItsMask)
{
    md::HttpProxyInfo info;
    info.setFieldAvailable(0x05, true);
    EXPECT_EQ(info.availableFields, 0x05U);
    info.setFieldAvailable(0x3a, true);
    EXPECT_EQ(info.availableFields, 0x3fU);
    info.setFieldAvailable(0x11, false);
    EXPECT_EQ(info.availableFields, 0x2eU);
    info.setFieldAvailable(0, true);
    info.setFieldAvailable(0, false);
    EXPECT_EQ(info.availableFields, 0x2eU);
}

TEST(ProxyRecord, isCompleteFollowsFlagsAndBitsInEveryCombination)
{
    for (unsigned int bits = 0; bits <= 0x3f; ++bits) {
        for (const bool enabled : {false, true}) {
            for (const bool authenticate : {false, true}) {
                md::HttpProxyInfo info = setting(enabled, authenticate);
                info.availableFields = bits;
                bool expected = (bits & 0x01) != 0;
                if (expected && enabled) {
                    expected = (bits & 0x0e) == 0x0e && (!authenticate || (bits & 0x30) == 0x30);
                }
                EXPECT_EQ(info.isComplete(), expected)
                    << "bits " << bits << ", enabled " << enabled << ", authenticate " << authenticate;
            }
        }
    }
}

TEST(ProxyRecord, enabledWithoutTheAuthenticationBitIsNotComplete)
{
    md::HttpProxyInfo info;
    info.enabled = 1;
    info.setFieldAvailable(0x01 | 0x02 | 0x04, true);
    EXPECT_FALSE(info.isComplete());
}

TEST(ProxyRecord, twoDisabledSettingsAreEqualWhateverTheyHold)
{
    md::HttpProxyInfo other = setting(false, false);
    other.host = "elsewhere";
    other.port = 1;
    other.availableFields = 0;
    EXPECT_TRUE(setting(false, true).isEqual(other));
}

TEST(ProxyRecord, enabledAndDisabledAreNotEqual)
{
    EXPECT_FALSE(setting(true, false).isEqual(setting(false, false)));
    EXPECT_FALSE(setting(false, false).isEqual(setting(true, false)));
}

TEST(ProxyRecord, enabledSettingsCompareEveryFieldThatCounts)
{
    for (const bool authenticate : {false, true}) {
        const md::HttpProxyInfo one = setting(true, authenticate);
        EXPECT_TRUE(one.isEqual(setting(true, authenticate)));
        EXPECT_FALSE(one.isEqual(setting(true, !authenticate)));

        md::HttpProxyInfo other = one;
        other.port = 3129;
        EXPECT_FALSE(one.isEqual(other));
        other = one;
        other.host = "proxy2";
        EXPECT_FALSE(one.isEqual(other));
        other = one;
        other.host = "Proxy";
        EXPECT_FALSE(one.isEqual(other)) << "hosts compare with regard to case";
        other = one;
        other.user = "another";
        EXPECT_EQ(one.isEqual(other), !authenticate);
        other = one;
        other.password = "another";
        EXPECT_EQ(one.isEqual(other), !authenticate);
        other = one;
        other.availableFields = 0;
        EXPECT_TRUE(one.isEqual(other)) << "the bits do not count";
    }
}

TEST(ProxyRecord, hostsCompareAsCStrings)
{
    md::HttpProxyInfo one = setting(true, false);
    md::HttpProxyInfo other = one;
    one.host = std::string("proxy\0one", 9);
    other.host = std::string("proxy\0two", 9);
    EXPECT_TRUE(one.isEqual(other));
}
