// Opening beneath a folder: random trees and paths, by the kernel's way and by the walk.
#include "support/beneath.h"
#include "support/random.h"

#include <string>
#include <vector>

namespace {

using support::Opened;
using support::Random;
using support::Site;

template <class Item>
const Item& oneOf(Random& random, const std::vector<Item>& items)
{
    return items[random.below(items.size())];
}

// Few names, so that paths often lead somewhere.
std::string randomPath(Random& random, std::size_t mostSteps)
{
    static const std::vector<std::string> kSteps{"a", "b", "c",  "d",  "a", "b",
                                                 "c", "d", "..", "..", ".", "e"};
    static const std::vector<std::string> kSeparators{"/", "/", "/", "/", "//"};
    std::string path = oneOf(random, kSteps);
    for (std::size_t count = random.below(mostSteps); count > 0; --count) {
        path += oneOf(random, kSeparators) + oneOf(random, kSteps);
    }
    return path + (random.below(8) == 0 ? "/" : "");
}

// The same tree at both sites. Targets of links are mostly relative, now and then absolute.
void grow(Random& random, const std::array<Site, 2>& sites)
{
    std::vector<std::string> folders{"volume", "outside"};
    for (int count = 0; count < 30; ++count) {
        const std::string name = oneOf(random, folders) + "/" + std::string(1, random.oneOf("abcd"));
        std::error_code ignored;
        if (std::filesystem::exists(std::filesystem::symlink_status(sites[0].path(name), ignored))) {
            continue;
        }
        const std::size_t kind = random.below(8);
        const bool isAbsolute = random.below(8) == 0;
        const std::string target = randomPath(random, 4);
        for (const Site& site : sites) {
            if (kind < 3) {
                site.folder(name);
            } else if (kind < 5) {
                site.file(name);
            } else {
                site.link(name, isAbsolute ? site.path("volume/" + target) : target);
            }
        }
        if (kind < 3) {
            folders.push_back(name);
        }
    }
}

TEST(OpenBeneathRandomly, bothWaysAgreeAndNeitherLeadsOut)
{
    static const std::vector<int> kFlags{O_RDONLY,
                                         O_RDONLY,
                                         O_WRONLY,
                                         O_RDWR | O_APPEND,
                                         O_PATH,
                                         O_DIRECTORY,
                                         O_NOFOLLOW,
                                         O_PATH | O_NOFOLLOW,
                                         O_PATH | O_DIRECTORY,
                                         O_DIRECTORY | O_NOFOLLOW,
                                         O_WRONLY | O_CREAT,
                                         O_RDWR | O_CREAT | O_EXCL,
                                         O_RDONLY | O_CREAT | O_NOFOLLOW};
    Random random;
    int opened = 0;
    for (int tree = support::randomRounds(60); tree > 0; --tree) {
        const std::array<Site, 2> sites;
        grow(random, sites);
        const std::set<std::string> outside = sites[0].contents();
        for (int attempt = 0; attempt < 300; ++attempt) {
            const std::string path = randomPath(random, 8);
            const int flags = oneOf(random, kFlags);
            const Opened byKernel = sites[0].open(support::kWays[0], path, flags);
            const Opened byWalk = sites[1].open(support::kWays[1], path, flags);
            ASSERT_EQ(byKernel, byWalk)
                << "\"" << path << "\", flags " << flags << ", seed " << support::randomSeed();
            const bool isInside = byWalk.place == "volume" || byWalk.place.rfind("volume/", 0) == 0;
            ASSERT_TRUE(byWalk.error != 0 || isInside) << byWalk << ", seed " << support::randomSeed();
            opened += byWalk.error == 0 ? 1 : 0;
        }
        ASSERT_EQ(sites[0].contents(), sites[1].contents()) << "seed " << support::randomSeed();
        for (const std::string& line : sites[0].contents()) {
            ASSERT_TRUE(line.rfind("volume", 0) == 0 || outside.count(line) > 0)
                << "made outside: " << line << ", seed " << support::randomSeed();
        }
    }
    EXPECT_GT(opened, 0) << "nothing was compared but failures";
}

} // namespace
