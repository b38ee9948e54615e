// Opening beneath a folder: each path gives the same by the kernel's way and by the walk, and none leads out.
#include "support/beneath.h"
#include "support/failing_call.h"

#include "support/ordinary_user.h"

#include <cerrno>
#include <functional>
#include <memory>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <vector>

namespace {

using support::failed;
using support::Opened;
using support::openedAt;
using support::Site;

struct Case
{
    std::string path;
    int flags;
    Opened expected;
};

void fill(const Site& site)
{
    site.file("volume/f");
    site.file("volume/dir/f");
    site.file("volume/dir/sub/f");
    site.folder("volume/empty");
    for (const auto& [name, target] : std::vector<std::pair<std::string, std::string>>{
             {"to-f", "f"},
             {"to-dir", "dir"},
             {"to-dir-slash", "dir/"},
             {"to-f-slash", "f/"},
             {"to-deep", "dir/sub/f"},
             {"to-deep-odd", "./dir//sub/../sub/./f"},
             {"to-here", "."},
             {"to-root", "dir/.."},
             {"dir/up", "../f"},
             {"dir/up-dir", ".."},
             {"dir/sub/up-up", "../../f"},
             {"dir/sub/out", "../../../outside/secret"},
             {"out", "../outside/secret"},
             {"out-dir", "../outside"},
             {"out-and-in", "../volume/f"},
             {"out-late", "dir/../../outside/secret"},
             {"parent", ".."},
             {"absolute-out", site.path("outside/secret")},
             {"absolute-in", site.path("volume/f")},
             {"absolute-dir", site.path("outside")},
             {"slash", "/"},
             {"slashes", "///"},
             {"dangling", "new"},
             {"dangling-deep", "dir/new"},
             {"dangling-nowhere", "nowhere/new"},
             {"dangling-slash", "new/"},
             {"dangling-out", "../outside/new"},
             {"dangling-absolute", site.path("outside/new")},
             {"loop", "loop"},
             {"ping", "pong"},
             {"pong", "ping"},
             {"loop-dir", "dir/../loop-dir/f"},
             {"via-out", "out-dir/secret"},
         }) {
        site.link("volume/" + name, target);
    }
    site.link("volume/chain-1", "f");
    site.link("volume/chain-dir-1", "dir");
    site.link("volume/chain-new-1", "new");
    for (int count = 2; count <= 41; ++count) {
        for (const std::string chain : {"chain-", "chain-dir-", "chain-new-"}) {
            site.link("volume/" + chain + std::to_string(count), chain + std::to_string(count - 1));
        }
    }
}

// Runs each case both ways, each on a tree of its own, and compares what is there afterwards.
void check(const std::vector<Case>& cases, const std::function<void(const Site&)>& fillSite = fill)
{
    std::array<std::unique_ptr<Site>, 2> sites;
    for (const Case& one : cases) {
        for (std::size_t index = 0; index < sites.size(); ++index) {
            if (sites[index] == nullptr || (one.flags & O_CREAT) != 0) {
                sites[index] = std::make_unique<Site>();
                fillSite(*sites[index]);
            }
            const support::Way& way = support::kWays[index];
            EXPECT_EQ(sites[index]->open(way, one.path, one.flags), one.expected)
                << way.name << ": \"" << one.path << "\", flags " << one.flags;
        }
        EXPECT_EQ(sites[0]->contents(), sites[1]->contents()) << one.path;
    }
}

std::string repeated(const std::string& text, int count)
{
    std::string all;
    for (int index = 0; index < count; ++index) {
        all += text;
    }
    return all;
}

TEST(OpenBeneath, plainPathsLeadToTheirFiles)
{
    check({{"f", O_RDONLY, openedAt("volume/f")},
           {"f", O_WRONLY, openedAt("volume/f", O_WRONLY)},
           {"f", O_RDWR | O_APPEND, openedAt("volume/f", O_RDWR | O_APPEND)},
           {"f", O_RDONLY | O_NONBLOCK, openedAt("volume/f", O_NONBLOCK)},
           {"f", O_PATH, openedAt("volume/f", O_PATH)},
           {"dir/f", O_RDONLY, openedAt("volume/dir/f")},
           {"dir/sub/f", O_RDONLY, openedAt("volume/dir/sub/f")},
           {"dir", O_RDONLY, openedAt("volume/dir")},
           {"dir", O_DIRECTORY, openedAt("volume/dir")},
           {"f", O_DIRECTORY, failed(ENOTDIR)},
           {"dir", O_WRONLY, failed(EISDIR)},
           {"missing", O_RDONLY, failed(ENOENT)},
           {"missing/f", O_RDONLY, failed(ENOENT)},
           {"f/f", O_RDONLY, failed(ENOTDIR)},
           {"f/missing", O_RDONLY | O_CREAT, failed(ENOTDIR)},
           {"", O_RDONLY, failed(ENOENT)},
           {"", O_WRONLY | O_CREAT, failed(ENOENT)}});
}

TEST(OpenBeneath, oddSeparatorsAndDotsCountNothing)
{
    check({{"./f", O_RDONLY, openedAt("volume/f")},
           {"././/./f", O_RDONLY, openedAt("volume/f")},
           {"dir//f", O_RDONLY, openedAt("volume/dir/f")},
           {"dir/./sub///f", O_RDONLY, openedAt("volume/dir/sub/f")},
           {".", O_RDONLY, openedAt("volume")},
           {"./", O_RDONLY, openedAt("volume")},
           {"././.", O_RDONLY, openedAt("volume")},
           {"dir/.", O_RDONLY, openedAt("volume/dir")},
           {"f/.", O_RDONLY, failed(ENOTDIR)},
           {"...", O_RDONLY, failed(ENOENT)},
           {".f", O_RDONLY, failed(ENOENT)},
           {" ", O_RDONLY, failed(ENOENT)},
           {"dir\\f", O_RDONLY, failed(ENOENT)}});
}

TEST(OpenBeneath, stepsUpEndAtTheRoot)
{
    check({{"..", O_RDONLY, failed(EACCES)},
           {"../", O_RDONLY, failed(EACCES)},
           {"..", O_PATH, failed(EACCES)},
           {"..", O_WRONLY | O_CREAT, failed(EACCES)},
           {"../f", O_RDONLY, failed(EACCES)},
           {"../volume/f", O_RDONLY, failed(EACCES)},
           {"../outside/secret", O_RDONLY, failed(EACCES)},
           {"../outside/new", O_WRONLY | O_CREAT, failed(EACCES)},
           {"./../outside/secret", O_RDONLY, failed(EACCES)},
           {"dir/../../outside/secret", O_RDONLY, failed(EACCES)},
           {"dir/sub/../../..", O_RDONLY, failed(EACCES)},
           {"dir/sub/../../../volume/f", O_RDONLY, failed(EACCES)},
           {"dir/../f", O_RDONLY, openedAt("volume/f")},
           {"dir/sub/../../f", O_RDONLY, openedAt("volume/f")},
           {"dir/..", O_RDONLY, openedAt("volume")},
           {"dir/../", O_RDONLY, openedAt("volume")},
           {"dir/sub/..", O_RDONLY, openedAt("volume/dir")},
           {"dir/sub/..", O_PATH, openedAt("volume/dir", O_PATH)},
           {"dir/..", O_WRONLY | O_CREAT, failed(EISDIR)},
           {"missing/..", O_RDONLY, failed(ENOENT)},
           {"f/..", O_RDONLY, failed(ENOTDIR)},
           {"f/../f", O_RDONLY, failed(ENOTDIR)}});
}

TEST(OpenBeneath, absolutePathsLeadOut)
{
    check({{"/", O_RDONLY, failed(EACCES)},
           {"//", O_RDONLY, failed(EACCES)},
           {"/f", O_RDONLY, failed(EACCES)},
           {"/etc/passwd", O_RDONLY, failed(EACCES)},
           {"/tmp/new", O_WRONLY | O_CREAT, failed(EACCES)}});
}

TEST(OpenBeneath, linksInsideAreFollowed)
{
    check({{"to-f", O_RDONLY, openedAt("volume/f")},
           {"to-f", O_WRONLY, openedAt("volume/f", O_WRONLY)},
           {"to-f", O_PATH, openedAt("volume/f", O_PATH)},
           {"to-f", O_WRONLY | O_CREAT, openedAt("volume/f", O_WRONLY)},
           {"to-f", O_WRONLY | O_CREAT | O_EXCL, failed(EEXIST)},
           {"to-f", O_NOFOLLOW, failed(ELOOP)},
           {"to-f", O_PATH | O_NOFOLLOW, openedAt("volume/to-f", O_PATH)},
           {"to-f", O_DIRECTORY, failed(ENOTDIR)},
           {"to-f", O_PATH | O_DIRECTORY, failed(ENOTDIR)},
           {"to-dir", O_RDONLY, openedAt("volume/dir")},
           {"to-dir", O_DIRECTORY, openedAt("volume/dir")},
           {"to-dir", O_DIRECTORY | O_NOFOLLOW, failed(ENOTDIR)},
           {"to-dir", O_PATH | O_DIRECTORY, openedAt("volume/dir", O_PATH)},
           {"to-dir/f", O_RDONLY, openedAt("volume/dir/f")},
           {"to-dir/f", O_NOFOLLOW, openedAt("volume/dir/f")},
           {"to-dir-slash/f", O_RDONLY, openedAt("volume/dir/f")},
           {"to-f/f", O_RDONLY, failed(ENOTDIR)},
           {"to-f-slash", O_RDONLY, failed(ENOTDIR)},
           {"to-deep", O_RDONLY, openedAt("volume/dir/sub/f")},
           {"to-deep-odd", O_RDONLY, openedAt("volume/dir/sub/f")},
           {"to-here", O_RDONLY, openedAt("volume")},
           {"to-here/f", O_RDONLY, openedAt("volume/f")},
           {"to-root/f", O_RDONLY, openedAt("volume/f")},
           {"to-root", O_RDONLY, openedAt("volume")},
           {"dir/up", O_RDONLY, openedAt("volume/f")},
           {"dir/up-dir", O_RDONLY, openedAt("volume")},
           {"dir/up-dir/f", O_RDONLY, openedAt("volume/f")},
           {"dir/sub/up-up", O_RDONLY, openedAt("volume/f")},
           {"to-dir/sub/../f", O_RDONLY, openedAt("volume/dir/f")},
           {"to-dir/..", O_RDONLY, openedAt("volume")},
           {"dir/up-dir/dir/up-dir/dir/f", O_RDONLY, openedAt("volume/dir/f")}});
}

TEST(OpenBeneath, linksThatLeadOutAreRefused)
{
    check({{"out", O_RDONLY, failed(EACCES)},
           {"out", O_WRONLY | O_TRUNC, failed(EACCES)},
           {"out", O_PATH, failed(EACCES)},
           {"out", O_NOFOLLOW, failed(ELOOP)},
           {"out-dir", O_RDONLY, failed(EACCES)},
           {"out-dir/", O_RDONLY, failed(EACCES)},
           {"out-dir/secret", O_RDONLY, failed(EACCES)},
           {"out-dir/new", O_WRONLY | O_CREAT, failed(EACCES)},
           {"out-dir/../volume/f", O_RDONLY, failed(EACCES)},
           {"out-and-in", O_RDONLY, failed(EACCES)},
           {"out-late", O_RDONLY, failed(EACCES)},
           {"dir/sub/out", O_RDONLY, failed(EACCES)},
           {"dir/up-dir/out", O_RDONLY, failed(EACCES)},
           {"dir/up-dir/..", O_RDONLY, failed(EACCES)},
           {"dir/up-dir/../outside/secret", O_RDONLY, failed(EACCES)},
           {"parent", O_RDONLY, failed(EACCES)},
           {"parent/outside/secret", O_RDONLY, failed(EACCES)},
           {"via-out", O_RDONLY, failed(EACCES)},
           {"to-dir/../out", O_RDONLY, failed(EACCES)},
           {"absolute-out", O_RDONLY, failed(EACCES)},
           {"absolute-in", O_RDONLY, failed(EACCES)},
           {"absolute-in", O_PATH, failed(EACCES)},
           {"absolute-dir/secret", O_RDONLY, failed(EACCES)},
           {"absolute-dir/new", O_WRONLY | O_CREAT, failed(EACCES)},
           {"slash", O_RDONLY, failed(EACCES)},
           {"slash/etc/passwd", O_RDONLY, failed(EACCES)},
           {"slashes", O_RDONLY, failed(EACCES)}});
}

TEST(OpenBeneath, fortyLinksAreFollowedAndNoMore)
{
    check({{"chain-39", O_RDONLY, openedAt("volume/f")},
           {"chain-40", O_RDONLY, openedAt("volume/f")},
           {"chain-41", O_RDONLY, failed(ELOOP)},
           {"chain-40", O_PATH, openedAt("volume/f", O_PATH)},
           {"chain-41", O_PATH, failed(ELOOP)},
           {"chain-dir-39/f", O_RDONLY, openedAt("volume/dir/f")},
           {"chain-dir-40/f", O_RDONLY, openedAt("volume/dir/f")},
           {"chain-dir-41/f", O_RDONLY, failed(ELOOP)},
           {"chain-dir-39/up", O_RDONLY, openedAt("volume/f")},
           {"chain-dir-40/up", O_RDONLY, failed(ELOOP)},
           {"chain-dir-20/../chain-20", O_RDONLY, openedAt("volume/f")},
           {"chain-dir-20/../chain-21", O_RDONLY, failed(ELOOP)},
           {"chain-new-40", O_WRONLY | O_CREAT, openedAt("volume/new", O_WRONLY)},
           {"chain-new-41", O_WRONLY | O_CREAT, failed(ELOOP)}});
}

TEST(OpenBeneath, linksInACircleEnd)
{
    check({{"loop", O_RDONLY, failed(ELOOP)},
           {"loop", O_WRONLY | O_CREAT, failed(ELOOP)},
           {"loop", O_PATH, failed(ELOOP)},
           {"loop/f", O_RDONLY, failed(ELOOP)},
           {"ping", O_RDONLY, failed(ELOOP)},
           {"ping/..", O_RDONLY, failed(ELOOP)},
           {"loop-dir", O_RDONLY, failed(ELOOP)}});
}

TEST(OpenBeneath, newFilesAreMadeInsideOnly)
{
    check({{"new", O_WRONLY | O_CREAT, openedAt("volume/new", O_WRONLY)},
           {"new", O_RDWR | O_CREAT | O_EXCL, openedAt("volume/new", O_RDWR)},
           {"dir/new", O_WRONLY | O_CREAT, openedAt("volume/dir/new", O_WRONLY)},
           {"to-dir/new", O_WRONLY | O_CREAT, openedAt("volume/dir/new", O_WRONLY)},
           {"dir/../new", O_WRONLY | O_CREAT, openedAt("volume/new", O_WRONLY)},
           {"dir/up-dir/new", O_WRONLY | O_CREAT, openedAt("volume/new", O_WRONLY)},
           {"missing/new", O_WRONLY | O_CREAT, failed(ENOENT)},
           {"f", O_WRONLY | O_CREAT | O_TRUNC, openedAt("volume/f", O_WRONLY)},
           {"f", O_WRONLY | O_CREAT | O_EXCL, failed(EEXIST)},
           {"dir", O_WRONLY | O_CREAT, failed(EISDIR)},
           {"dir", O_RDONLY | O_CREAT, failed(EISDIR)},
           {".", O_RDONLY | O_CREAT, failed(EISDIR)},
           {"to-dir", O_WRONLY | O_CREAT, failed(EISDIR)},
           {"to-here", O_WRONLY | O_CREAT, failed(EISDIR)}});
}

TEST(OpenBeneath, linksWithoutAGoalMakeItInsideOnly)
{
    check({{"dangling", O_RDONLY, failed(ENOENT)},
           {"dangling", O_PATH, failed(ENOENT)},
           {"dangling/f", O_RDONLY, failed(ENOENT)},
           {"dangling", O_WRONLY | O_CREAT, openedAt("volume/new", O_WRONLY)},
           {"dangling", O_WRONLY | O_CREAT | O_EXCL, failed(EEXIST)},
           {"dangling-deep", O_WRONLY | O_CREAT, openedAt("volume/dir/new", O_WRONLY)},
           {"dangling-nowhere", O_WRONLY | O_CREAT, failed(ENOENT)},
           {"dangling-slash", O_WRONLY | O_CREAT, failed(EISDIR)},
           {"dangling-slash", O_RDONLY, failed(ENOENT)},
           {"dangling-out", O_RDONLY, failed(EACCES)},
           {"dangling-out", O_WRONLY | O_CREAT, failed(EACCES)},
           {"dangling-out", O_WRONLY | O_CREAT | O_EXCL, failed(EEXIST)},
           {"dangling-absolute", O_WRONLY | O_CREAT, failed(EACCES)}});
}

TEST(OpenBeneath, aSlashAtTheEndAsksForAFolder)
{
    check({{"dir/", O_RDONLY, openedAt("volume/dir")},
           {"dir///", O_RDONLY, openedAt("volume/dir")},
           {"dir/", O_PATH, openedAt("volume/dir", O_PATH)},
           {"dir/", O_WRONLY, failed(EISDIR)},
           {"f/", O_RDONLY, failed(ENOTDIR)},
           {"f/", O_WRONLY, failed(ENOTDIR)},
           {"f/", O_PATH, failed(ENOTDIR)},
           {"f/", O_WRONLY | O_CREAT, failed(EISDIR)},
           {"dir/", O_WRONLY | O_CREAT, failed(EISDIR)},
           {"new/", O_WRONLY | O_CREAT, failed(EISDIR)},
           {"new/", O_RDONLY, failed(ENOENT)},
           {"missing/new/", O_WRONLY | O_CREAT, failed(ENOENT)},
           {"f/new/", O_WRONLY | O_CREAT, failed(ENOTDIR)},
           {"to-dir/", O_RDONLY, openedAt("volume/dir")},
           {"to-dir/", O_NOFOLLOW, openedAt("volume/dir")},
           {"to-dir/", O_PATH | O_NOFOLLOW, openedAt("volume/dir", O_PATH)},
           {"to-f/", O_RDONLY, failed(ENOTDIR)},
           {"to-f/", O_PATH, failed(ENOTDIR)},
           {"to-f/", O_WRONLY | O_CREAT, failed(EISDIR)},
           {"dangling/", O_WRONLY | O_CREAT, failed(EISDIR)},
           {"dangling-out/", O_WRONLY | O_CREAT, failed(EISDIR)},
           {"out/", O_RDONLY, failed(EACCES)},
           {"loop/", O_RDONLY, failed(ELOOP)},
           {"to-dir-slash/", O_RDONLY, openedAt("volume/dir")},
           {"dir/../", O_WRONLY | O_CREAT, failed(EISDIR)}});
}

TEST(OpenBeneath, namesAndPathsMayBeAsLongAsTheSystemAllows)
{
    const std::string longest(NAME_MAX, 'n');
    const std::string most = repeated("./", (PATH_MAX - 2) / 2) + "f"; // 4095 bytes
    check({{longest, O_WRONLY | O_CREAT, openedAt("volume/" + longest, O_WRONLY)},
           {longest + "n", O_WRONLY | O_CREAT, failed(ENAMETOOLONG)},
           {longest + "n", O_RDONLY, failed(ENAMETOOLONG)},
           {longest + "n/f", O_RDONLY, failed(ENAMETOOLONG)},
           {"dir/" + longest + "n/../f", O_RDONLY, failed(ENAMETOOLONG)},
           {"missing/" + longest + "n", O_RDONLY, failed(ENOENT)},
           {most, O_RDONLY, openedAt("volume/f")},
           {"/" + most, O_RDONLY, failed(ENAMETOOLONG)},
           {most + "/", O_RDONLY, failed(ENAMETOOLONG)},
           {std::string(1000000, 'a'), O_RDONLY, failed(ENAMETOOLONG)},
           {repeated("../", 2000), O_RDONLY, failed(ENAMETOOLONG)},
           {repeated("../", 1365), O_RDONLY, failed(EACCES)},
           {repeated("dir/../", 500) + "f", O_RDONLY, openedAt("volume/f")}});
}

TEST(OpenBeneath, linksMayMakeAPathLongerThanOneCanBe)
{
    const auto fillWithLongLinks = [](const Site& site) {
        fill(site);
        const std::string detour = repeated("dir/../", 500);
        site.link("volume/long-1", detour + "f");
        site.link("volume/long-2", detour + "long-1");
        site.link("volume/long-3", detour + "long-2");
    };
    check({{"long-3", O_RDONLY, openedAt("volume/f")}}, fillWithLongLinks);
}

TEST(OpenBeneath, deepTreesAreNoObstacle)
{
    const std::string steps = repeated("d/", 200);
    const auto fillDeep = [&steps](const Site& site) { site.file("volume/" + steps + "f"); };
    check({{steps + "f", O_RDONLY, openedAt("volume/" + steps + "f")},
           {steps + repeated("../", 200) + steps + "f", O_RDONLY, openedAt("volume/" + steps + "f")},
           {steps + repeated("../", 201), O_RDONLY, failed(EACCES)}},
          fillDeep);
}

TEST(OpenBeneath, pipesAndSocketsInThePathAreNoFolders)
{
    const auto fillSpecial = [](const Site& site) {
        ASSERT_EQ(mkfifo(site.path("volume/pipe").c_str(), 0600), 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string name = site.path("volume/socket");
        ASSERT_LT(name.size(), sizeof(address.sun_path));
        name.copy(address.sun_path, name.size());
        const MdpDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        ASSERT_EQ(bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    };
    check({{"pipe/f", O_RDONLY, failed(ENOTDIR)},
           {"pipe/", O_RDONLY, failed(ENOTDIR)},
           {"pipe", O_RDONLY | O_NONBLOCK, openedAt("volume/pipe", O_NONBLOCK)},
           {"pipe", O_WRONLY | O_NONBLOCK, failed(ENXIO)},
           {"pipe", O_PATH, openedAt("volume/pipe", O_PATH)},
           {"socket", O_RDONLY, failed(ENXIO)},
           {"socket/..", O_RDONLY, failed(ENOTDIR)}},
          fillSpecial);
}

TEST(OpenBeneath, aRootThatIsNoFolderOrNoDescriptorIsRefused)
{
    const Site site;
    site.file("volume/f");
    const MdpDescriptor file(open(site.path("volume/f").c_str(), O_RDONLY | O_CLOEXEC));
    for (const support::Way& way : support::kWays) {
        EXPECT_EQ(way.open(file.get(), "f", O_RDONLY, 0), -ENOTDIR) << way.name;
        EXPECT_EQ(way.open(file.get(), "..", O_RDONLY, 0), -ENOTDIR) << way.name;
        EXPECT_EQ(way.open(-1, "f", O_RDONLY, 0), -EBADF) << way.name;
    }
}

TEST(OpenBeneath, permissionsOfTheFoldersOnTheWayHold)
{
    const auto fillLocked = [](const Site& site) {
        for (const auto& [name, mode] : std::vector<std::pair<std::string, mode_t>>{
                 {"locked", 0}, {"search", 0111}, {"list", 0444}, {"closed-file", 0755}}) {
            site.file("volume/" + name + "/f");
            site.folder("volume/" + name + "/dir");
            ASSERT_EQ(chmod(site.path("volume/" + name).c_str(), mode), 0);
        }
        ASSERT_EQ(chmod(site.path("volume/closed-file/f").c_str(), 0), 0);
        ASSERT_EQ(chmod(site.path("volume").c_str(), 0755), 0);
        site.file("volume/f");
        site.link("volume/link", "locked/f");
    };
    const std::vector<Case> cases{{"f", O_RDONLY, openedAt("volume/f")},
                                  {"locked/f", O_RDONLY, failed(EACCES)},
                                  {"locked/missing", O_RDONLY, failed(EACCES)},
                                  {"locked/.", O_PATH, failed(EACCES)},
                                  {"locked/./f", O_RDONLY, failed(EACCES)},
                                  {"locked/..", O_RDONLY, failed(EACCES)},
                                  {"locked/../f", O_RDONLY, failed(EACCES)},
                                  {"locked", O_RDONLY, failed(EACCES)},
                                  {"locked", O_PATH, openedAt("volume/locked", O_PATH)},
                                  {"locked/", O_PATH, openedAt("volume/locked", O_PATH)},
                                  {"link", O_RDONLY, failed(EACCES)},
                                  {"search/f", O_RDONLY, openedAt("volume/search/f")},
                                  {"search/../f", O_RDONLY, openedAt("volume/f")},
                                  {"search/", O_RDONLY, failed(EACCES)},
                                  {"list/", O_RDONLY, openedAt("volume/list")},
                                  {"list/.", O_RDONLY, failed(EACCES)},
                                  {"list/f", O_RDONLY, failed(EACCES)},
                                  {"closed-file/f", O_RDONLY, failed(EACCES)},
                                  {"closed-file/f", O_PATH, openedAt("volume/closed-file/f", O_PATH)}};
    const Site site;
    fillLocked(site);
    support::asOrdinaryUser([&] {
        for (const Case& one : cases) {
            for (const support::Way& way : support::kWays) {
                EXPECT_EQ(site.open(way, one.path, one.flags), one.expected) << way.name << ": " << one.path;
            }
        }
        for (const support::Way& way : support::kWays) {
            EXPECT_EQ(site.open(way, "list/new/", O_WRONLY | O_CREAT), failed(EACCES)) << way.name;
            EXPECT_EQ(site.open(way, "search/new/", O_WRONLY | O_CREAT), failed(EISDIR)) << way.name;
        }
    });
    for (const char* name : {"locked", "search", "list"}) { // so that they can be removed
        ASSERT_EQ(chmod(site.path(std::string("volume/") + name).c_str(), 0755), 0);
    }
}

TEST(OpenBeneath, aSystemThatDoesNotKnowTheCallIsWalked)
{
#ifdef SYS_openat2
    const Site site;
    fill(site);
    const support::Way& kernel = support::kWays[0];
    for (const int error : {ENOSYS, EPERM}) { // filters of system calls answer the latter
        const std::string problem = support::whileFailing({SYS_openat2, {}}, error, [&] {
            EXPECT_EQ(site.open(kernel, "to-deep", O_RDONLY), openedAt("volume/dir/sub/f"));
            EXPECT_EQ(site.open(kernel, "out", O_RDONLY), failed(EACCES));
            EXPECT_EQ(site.open(kernel, "dir/../../outside/secret", O_RDONLY), failed(EACCES));
            EXPECT_EQ(site.open(kernel, "missing", O_RDONLY), failed(ENOENT));
        });
        if (!problem.empty()) {
            GTEST_SKIP() << problem;
        }
    }
#else
    GTEST_SKIP() << "this system's headers do not know the call: the walk is the only way";
#endif
}

TEST(OpenBeneath, aSystemThatAsksForAnotherTryWithoutEndIsWalked)
{
#ifdef SYS_openat2
    const Site site;
    fill(site);
    const std::string problem = support::whileFailing({SYS_openat2, {}}, EAGAIN, [&] {
        EXPECT_EQ(site.open(support::kWays[0], "dir/../f", O_RDONLY), openedAt("volume/f"));
        EXPECT_EQ(site.open(support::kWays[0], "out", O_RDONLY), failed(EACCES));
    });
    if (!problem.empty()) {
        GTEST_SKIP() << problem;
    }
#else
    GTEST_SKIP() << "this system's headers do not know the call: the walk is the only way";
#endif
}

TEST(OpenBeneath, withoutDescriptorsItFailsAndGivesBackThoseThatItTook)
{
    const Site site;
    const std::string steps = repeated("d/", 100);
    site.file("volume/" + steps + "f");
    rlimit former{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &former), 0);
    rlimit few = former;
    few.rlim_cur = 60;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    const int result = nvol2WalkBeneath(site.root(), (steps + "f").c_str(), O_RDONLY, 0);
    const MdpDescriptor next(open("/dev/null", O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &former), 0);
    EXPECT_EQ(result, -EMFILE);
    EXPECT_EQ(next.get(), site.root() + 1);
}

} // namespace
