// Opening beneath a folder while somebody exchanges what lies on the way: no file outside is ever opened.
#include "support/beneath.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <map>
#include <thread>
#include <utility>
#include <vector>

namespace {

using support::Site;

// Exchanges two things again and again while it lives.
class Flipper
{
public:
    Flipper(const Site& site, const std::string& first, const std::string& second)
        : m_thread([this, one = site.path(first), other = site.path(second)] {
              while (!m_stop) {
                  if (renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) != 0) {
                      m_error = errno;
                      return;
                  }
                  ++m_count;
              }
          })
    {
    }
    ~Flipper()
    {
        m_stop = true;
        m_thread.join();
    }
    Flipper(const Flipper&) = delete;
    Flipper& operator=(const Flipper&) = delete;

    int count() const { return m_count; }
    int error() const { return m_error; }

private:
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_count{0};
    std::atomic<int> m_error{0};
    std::thread m_thread;
};

// Files keep their number while their folders move.
ino_t numberOf(const std::string& path)
{
    struct stat facts = {};
    EXPECT_EQ(stat(path.c_str(), &facts), 0) << path;
    return facts.st_ino;
}

class OpenBeneathRace : public testing::TestWithParam<support::Way>
{
protected:
    using Texts = std::vector<std::string>;

    OpenBeneathRace() { know("outside/secret"); }

    // A file that may be opened; attempts tell its name.
    void know(const std::string& name) { m_names[numberOf(site.path(name))] = name; }

    std::string attempt(const std::string& path, int flags) const
    {
        const int result = GetParam().open(site.root(), path.c_str(), flags, 0600);
        if (result < 0) {
            return std::generic_category().message(-result);
        }
        const MdpDescriptor file(result);
        struct stat facts = {};
        EXPECT_EQ(fstat(file.get(), &facts), 0);
        const auto known = m_names.find(facts.st_ino);
        return known != m_names.end() ? known->second : "something unknown";
    }

    // Opens the path thousands of times while two things change places. All that is expected must come, and nothing
    // else but what is tolerated.
    void race(const std::pair<std::string, std::string>& exchanged, const std::string& path, int flags,
              const Texts& expected, const Texts& tolerated = {}) const
    {
        constexpr int kAttempts = 3000;
        constexpr int kMostAttempts = 300000; // on a machine that lets the other thread run but seldom
        const Flipper flipper(site, exchanged.first, exchanged.second);
        std::map<std::string, int> seen;
        for (int count = 0; count < kAttempts || (count < kMostAttempts && !sawAll(seen, expected));
             ++count) {
            const std::string result = attempt(path, flags);
            ASSERT_TRUE(isOneOf(result, expected) || isOneOf(result, tolerated))
                << result << " at attempt " << count;
            ++seen[result];
        }
        EXPECT_EQ(flipper.error(), 0);
        for (const std::string& one : expected) {
            EXPECT_GT(seen[one], 0) << "never: " << one << ", after " << flipper.count() << " exchanges";
        }
    }

    static bool isOneOf(const std::string& text, const Texts& texts)
    {
        return std::find(texts.begin(), texts.end(), text) != texts.end();
    }
    static bool sawAll(const std::map<std::string, int>& seen, const Texts& expected)
    {
        return std::all_of(expected.begin(), expected.end(),
                           [&seen](const std::string& one) { return seen.count(one) > 0; });
    }

    Site site;
    const std::string refused = std::generic_category().message(EACCES);

private:
    std::map<ino_t, std::string> m_names;
};

TEST_P(OpenBeneathRace, aFolderOnTheWayTurnsIntoALinkToOutside)
{
    site.file("volume/way/secret");
    site.link("volume/other", "../outside");
    know("volume/way/secret");
    race({"volume/way", "volume/other"}, "way/secret", O_RDONLY, {"volume/way/secret", refused});
}

TEST_P(OpenBeneathRace, aFolderOnTheWayTurnsIntoAnAbsoluteLinkToOutside)
{
    site.file("volume/way/secret");
    site.link("volume/other", site.path("outside"));
    know("volume/way/secret");
    race({"volume/way", "volume/other"}, "way/secret", O_WRONLY, {"volume/way/secret", refused});
}

TEST_P(OpenBeneathRace, theFileTurnsIntoALinkToOutside)
{
    site.file("volume/file");
    site.link("volume/other", "../outside/secret");
    know("volume/file");
    race({"volume/file", "volume/other"}, "file", O_RDONLY, {"volume/file", refused});
}

TEST_P(OpenBeneathRace, theFileToWriteTurnsIntoALinkToOutside)
{
    site.file("volume/file");
    site.link("volume/other", "../outside/secret");
    know("volume/file");
    race({"volume/file", "volume/other"}, "file", O_WRONLY | O_CREAT | O_TRUNC, {"volume/file", refused});
    EXPECT_EQ(std::filesystem::file_size(site.path("outside/secret")), 6U) << "was written to";
}

TEST_P(OpenBeneathRace, theFileTurnsIntoALinkInside)
{
    site.file("volume/file");
    site.file("volume/goal");
    site.link("volume/other", "goal");
    know("volume/file");
    know("volume/goal");
    race({"volume/file", "volume/other"}, "file", O_RDONLY, {"volume/file", "volume/goal"});
}

TEST_P(OpenBeneathRace, theFileThatIsPointedAtTurnsIntoALinkInside)
{
    site.file("volume/file");
    site.file("volume/goal");
    site.link("volume/other", "goal");
    know("volume/file");
    know("volume/goal");
    race({"volume/file", "volume/other"}, "file", O_PATH, {"volume/file", "volume/goal"});
}

TEST_P(OpenBeneathRace, aLinkOnTheWayTurnsFromInsideToOutside)
{
    site.file("volume/goal/secret");
    site.link("volume/way", "goal");
    site.link("volume/other", "../outside");
    know("volume/goal/secret");
    race({"volume/way", "volume/other"}, "way/secret", O_RDONLY, {"volume/goal/secret", refused});
}

TEST_P(OpenBeneathRace, aFolderOnTheWayTurnsIntoAFile)
{
    site.file("volume/way/secret");
    site.file("volume/other");
    know("volume/way/secret");
    race({"volume/way", "volume/other"}, "way/secret", O_RDONLY,
         {"volume/way/secret", std::generic_category().message(ENOTDIR)});
}

TEST_P(OpenBeneathRace, aFolderMovesOutWhileStepsUpLeaveIt)
{
    site.file("volume/secret");
    site.folder("volume/way/down");
    site.folder("outside/other/down");
    know("volume/secret");
    // The kernel may notice that the steps up would end outside.
    race({"volume/way", "outside/other"}, "way/down/../../secret", O_RDONLY, {"volume/secret"}, {refused});
}

} // namespace

INSTANTIATE_TEST_SUITE_P(BothWays, OpenBeneathRace, testing::ValuesIn(support::kWays),
                         [](const auto& way) { return std::string(way.param.name); });
