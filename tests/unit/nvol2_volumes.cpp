// Volumes of the media file-system service: registering them, their media IDs and their records.
#include "nvol2.h"

#include "support/volume.h"

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <sys/statvfs.h>
#include <unistd.h>
#include <vector>

namespace {

using support::TempDir;
using support::Volume;

std::vector<int> presentIds()
{
    std::vector<int> ids(static_cast<std::size_t>(std::max(nvol2MediaIDList(nullptr, 0), 0)));
    const int count = nvol2MediaIDList(ids.data(), static_cast<int>(ids.size()));
    EXPECT_EQ(count, static_cast<int>(ids.size()));
    return ids;
}

bool isPresent(int id)
{
    const std::vector<int> ids = presentIds();
    return std::count(ids.begin(), ids.end(), id) == 1;
}

int idOf(const std::string& uuid)
{
    return nvol2MediaIDGetByUUID(uuid.c_str());
}

TEST(Volumes, aRegisteredFolderIsKnownByItsUuid)
{
    EXPECT_EQ(idOf("1234-ABCD"), -ENODEV);
    {
        const Volume volume("1234-ABCD");
        EXPECT_GE(volume.id(), 1);
        EXPECT_EQ(idOf("1234-ABCD"), volume.id());
        EXPECT_TRUE(isPresent(volume.id()));
    }
    EXPECT_EQ(idOf("1234-ABCD"), -ENODEV);
}

TEST(Volumes, uuidsCompareWithoutRegardToCase)
{
    const Volume volume("0aBc-DeF9");
    for (const char* uuid : {"0aBc-DeF9", "0ABC-DEF9", "0abc-def9", "0AbC-dEf9"}) {
        EXPECT_EQ(idOf(uuid), volume.id()) << uuid;
        EXPECT_EQ(nvol2VolumeAdd(uuid, volume.accessPath().c_str()), -EEXIST) << uuid;
    }
    EXPECT_EQ(nvol2VolumeRemove("0ABC-def9"), 0);
    EXPECT_EQ(idOf("0aBc-DeF9"), -ENODEV);
}

TEST(Volumes, onlyTheWholeUuidCounts)
{
    const Volume volume("1234-ABCD");
    for (const char* uuid : {"", " ", "1234", "1234-ABC", "1234-ABCDE", " 1234-ABCD", "1234-ABCD ",
                             "1234ABCD", "1234_ABCD", "%s%n", "../1234-ABCD"}) {
        EXPECT_EQ(idOf(uuid), -ENODEV) << uuid;
    }
    EXPECT_EQ(idOf(std::string(1000000, 'a')), -ENODEV);
}

// Capitals differ by language: in Turkish, the small letter of "I" is none of ASCII.
TEST(Volumes, theLanguageOfTheProcessDoesNotMatter)
{
    const TempDir locales;
    const std::string command =
        "localedef -i tr_TR -f ISO-8859-9 " + locales.file("tr_TR") + " >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0) {
        GTEST_SKIP() << "this machine cannot make a Turkish locale (package locales)";
    }
    setenv("LOCPATH", locales.path().c_str(), 1);
    const Volume volume("INTERNAL");
    const char* former = setlocale(LC_ALL, "tr_TR");
    ASSERT_NE(former, nullptr);
    ASSERT_NE(std::tolower('I'), 'i');
    EXPECT_EQ(idOf("internal"), volume.id());
    EXPECT_EQ(idOf("INTERNAL"), volume.id()) << "registered in another language";
    setlocale(LC_ALL, "C");
    unsetenv("LOCPATH");
}

TEST(Volumes, anyTextWithoutSlashIsAUuid)
{
    for (const std::string uuid :
         {"a", " ", "a b", "%s%n%d", "\xc3\xa4\xff\x01", "..", ".", "a\\b", "a:b", "a\nb"}) {
        const Volume volume(uuid);
        EXPECT_EQ(idOf(uuid), volume.id()) << uuid;
    }
}

TEST(Volumes, mediaIdsStayWithTheirUuidAndAreNeverShared)
{
    const TempDir dir;
    const int first = nvol2VolumeAdd("first", dir.path().c_str());
    ASSERT_GE(first, 1);
    EXPECT_EQ(nvol2VolumeRemove("first"), 0);
    std::set<int> ids{first};
    for (int count = 0; count < 100; ++count) {
        const std::string uuid = "other-" + std::to_string(count);
        const int id = nvol2VolumeAdd(uuid.c_str(), dir.path().c_str());
        EXPECT_GE(id, 1);
        EXPECT_TRUE(ids.insert(id).second) << "given twice: " << id;
        EXPECT_EQ(nvol2VolumeRemove(uuid.c_str()), 0);
    }
    EXPECT_EQ(nvol2VolumeAdd("FIRST", dir.path().c_str()), first);
    EXPECT_EQ(nvol2VolumeRemove("first"), 0);
    for (int count = 0; count < 100; ++count) {
        const std::string uuid = "OTHER-" + std::to_string(count);
        const int id = nvol2VolumeAdd(uuid.c_str(), dir.path().c_str());
        EXPECT_EQ(ids.count(id), 1U);
        EXPECT_EQ(nvol2VolumeRemove(uuid.c_str()), 0);
    }
}

TEST(Volumes, askingForAnUnknownUuidTakesNoMediaId)
{
    const TempDir dir;
    const int first = nvol2VolumeAdd("before", dir.path().c_str());
    for (int count = 0; count < 10; ++count) {
        EXPECT_EQ(idOf("unknown-" + std::to_string(count)), -ENODEV);
    }
    EXPECT_EQ(nvol2VolumeAdd("behind", dir.path().c_str()), first + 1);
    EXPECT_EQ(nvol2VolumeRemove("before"), 0);
    EXPECT_EQ(nvol2VolumeRemove("behind"), 0);
}

TEST(Volumes, severalAreThereAtOnce)
{
    const Volume one("1111-0001");
    const Volume two("1111-0002");
    const Volume three("1111-0003");
    EXPECT_EQ((std::set<int>{one.id(), two.id(), three.id()}.size()), 3U);
    for (const Volume* volume : {&one, &two, &three}) {
        EXPECT_EQ(idOf(volume->uuid()), volume->id());
        EXPECT_TRUE(isPresent(volume->id()));
        nvol2Media_struct record{};
        EXPECT_EQ(nvol2MediaGet(volume->id(), &record), 0);
        EXPECT_EQ(record.accessPath, volume->accessPath());
    }
}

TEST(Volumes, oneFolderMayBeSeveralVolumes)
{
    const TempDir dir;
    const int one = nvol2VolumeAdd("one", dir.path().c_str());
    const int two = nvol2VolumeAdd("two", dir.path().c_str());
    EXPECT_GE(one, 1);
    EXPECT_GE(two, 1);
    EXPECT_NE(one, two);
    EXPECT_EQ(nvol2VolumeRemove("one"), 0);
    EXPECT_EQ(idOf("two"), two);
    EXPECT_EQ(nvol2VolumeRemove("two"), 0);
}

TEST(Volumes, theListHoldsTheRegisteredOnesAndNoOther)
{
    const std::vector<int> before = presentIds(); // what is mounted on this machine
    Volume one("1111-0001");
    const Volume two("1111-0002");
    std::vector<int> after = presentIds();
    EXPECT_EQ(after.size(), before.size() + 2);
    EXPECT_TRUE(isPresent(one.id()) && isPresent(two.id()));
    EXPECT_EQ(one.remove(), 0);
    EXPECT_FALSE(isPresent(one.id()));
    EXPECT_EQ(presentIds().size(), before.size() + 1);
}

TEST(Volumes, theListStoresNoMoreThanThereIsRoomFor)
{
    const Volume one("1111-0001");
    const Volume two("1111-0002");
    const int count = nvol2MediaIDList(nullptr, 0);
    ASSERT_GE(count, 2);
    EXPECT_EQ(nvol2MediaIDList(nullptr, 100), count);
    std::vector<int> ids(static_cast<std::size_t>(count) + 2, -7);
    EXPECT_EQ(nvol2MediaIDList(ids.data(), 0), count);
    EXPECT_EQ(nvol2MediaIDList(ids.data(), -1), count);
    EXPECT_EQ(ids[0], -7);
    EXPECT_EQ(nvol2MediaIDList(ids.data(), 1), count);
    EXPECT_GE(ids[0], 1);
    EXPECT_EQ(ids[1], -7);
    EXPECT_EQ(nvol2MediaIDList(ids.data(), count + 2), count);
    EXPECT_EQ(ids[static_cast<std::size_t>(count)], -7);
}

TEST(Volumes, theRecordTellsWhatWasRegistered)
{
    const Volume volume("12aB-cD34");
    nvol2Media_struct record;
    std::memset(&record, 0x5a, sizeof(record));
    EXPECT_EQ(nvol2MediaGet(volume.id(), &record), 0);
    EXPECT_EQ(record.mediaType, NVOL2_MEDIA_DIRECTORY);
    EXPECT_EQ(record.connectType, NVOL2_CONNECT_NONE);
    EXPECT_STREQ(record.accessPath, volume.accessPath().c_str());
    EXPECT_STREQ(record.deviceName, "");
    EXPECT_STREQ(record.uuid, "12aB-cD34") << "in the spelling of the registration";
    struct statvfs facts = {};
    ASSERT_EQ(statvfs(volume.dir().path().c_str(), &facts), 0);
    const bool isReadOnly = (facts.f_flag & ST_RDONLY) != 0;
    EXPECT_EQ(record.functions, isReadOnly ? 1U : 3U);
}

TEST(Volumes, theAccessPathIsTheTextAsGiven)
{
    const TempDir dir;
    dir.makeDir("a b");
    for (const std::string tail : {"", "/", "//", "/.", "/a b", "/a b/../a b/"}) {
        const std::string path = dir.path() + tail;
        const int id = nvol2VolumeAdd("text", path.c_str());
        nvol2Media_struct record{};
        EXPECT_EQ(nvol2MediaGet(id, &record), 0) << path;
        EXPECT_EQ(record.accessPath, path);
        EXPECT_EQ(nvol2VolumeRemove("text"), 0);
    }
}

TEST(Volumes, aNewRegistrationBringsItsOwnRecord)
{
    const TempDir first;
    const TempDir second;
    const int id = nvol2VolumeAdd("Moved", first.path().c_str());
    EXPECT_EQ(nvol2VolumeRemove("moved"), 0);
    EXPECT_EQ(nvol2VolumeAdd("MOVED", second.path().c_str()), id);
    nvol2Media_struct record{};
    EXPECT_EQ(nvol2MediaGet(id, &record), 0);
    EXPECT_EQ(record.accessPath, second.path());
    EXPECT_STREQ(record.uuid, "MOVED");
    EXPECT_EQ(nvol2VolumeRemove("moved"), 0);
}

TEST(Volumes, aFolderThatHasGoneStaysRegisteredWithoutFunctions)
{
    Volume volume;
    std::filesystem::remove_all(volume.dir().path());
    EXPECT_EQ(idOf(volume.uuid()), volume.id());
    nvol2Media_struct record{};
    EXPECT_EQ(nvol2MediaGet(volume.id(), &record), 0);
    EXPECT_EQ(record.functions, 0U);
    errno = 0;
    EXPECT_EQ(nvol2_fopen(volume.id(), "f", "r"), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST(Volumes, recordsOfUnknownMediaIdsAreRefused)
{
    Volume volume;
    nvol2Media_struct record{};
    for (const int id : {0, -1, -ENODEV, volume.id() + 1000, 0x7fffffff, static_cast<int>(0x80000000U)}) {
        EXPECT_EQ(nvol2MediaGet(id, &record), -ENODEV) << id;
    }
    EXPECT_EQ(nvol2MediaGet(volume.id(), nullptr), -EINVAL);
    EXPECT_EQ(volume.remove(), 0);
    EXPECT_EQ(nvol2MediaGet(volume.id(), &record), -ENODEV);
}

TEST(Volumes, aFailedLookLeavesTheRecordAlone)
{
    nvol2Media_struct record;
    std::memset(&record, 0x5a, sizeof(record));
    const nvol2Media_struct former = record;
    EXPECT_EQ(nvol2MediaGet(-1, &record), -ENODEV);
    EXPECT_EQ(std::memcmp(&record, &former, sizeof(record)), 0);
}

TEST(Volumes, nullAndEmptyTextsAreInvalid)
{
    const TempDir dir;
    const char* path = dir.path().c_str();
    EXPECT_EQ(nvol2VolumeAdd(nullptr, path), -EINVAL);
    EXPECT_EQ(nvol2VolumeAdd("", path), -EINVAL);
    EXPECT_EQ(nvol2VolumeAdd("a", nullptr), -EINVAL);
    EXPECT_EQ(nvol2VolumeAdd("a", ""), -EINVAL);
    EXPECT_EQ(nvol2VolumeAdd(nullptr, nullptr), -EINVAL);
    EXPECT_EQ(nvol2VolumeAdd("a/b", path), -EINVAL);
    EXPECT_EQ(nvol2VolumeAdd("/", path), -EINVAL);
    EXPECT_EQ(nvol2VolumeAdd("a/", path), -EINVAL);
    EXPECT_EQ(nvol2VolumeRemove(nullptr), -EINVAL);
    EXPECT_EQ(nvol2MediaIDGetByUUID(nullptr), -EINVAL);
    EXPECT_EQ(idOf("a"), -ENODEV) << "nothing was registered";
}

TEST(Volumes, textsThatDoNotFitIntoTheRecordAreTooLong)
{
    const TempDir dir;
    const std::string longest(sizeof(nvol2Media_struct::uuid) - 1, 'u');
    EXPECT_EQ(nvol2VolumeAdd((longest + "u").c_str(), dir.path().c_str()), -ENAMETOOLONG);
    const int id = nvol2VolumeAdd(longest.c_str(), dir.path().c_str());
    EXPECT_GE(id, 1);
    nvol2Media_struct record{};
    EXPECT_EQ(nvol2MediaGet(id, &record), 0);
    EXPECT_EQ(record.uuid, longest);
    EXPECT_EQ(nvol2VolumeRemove(longest.c_str()), 0);

    std::string path = dir.path();
    path.append(sizeof(nvol2Media_struct::accessPath) - 1 - path.size(), '/');
    EXPECT_EQ(nvol2VolumeAdd("long", (path + "/").c_str()), -ENAMETOOLONG);
    const int longId = nvol2VolumeAdd("long", path.c_str());
    EXPECT_GE(longId, 1);
    EXPECT_EQ(nvol2MediaGet(longId, &record), 0);
    EXPECT_EQ(record.accessPath, path);
    EXPECT_EQ(nvol2VolumeRemove("long"), 0);
}

TEST(Volumes, onlyFoldersCanBeRegistered)
{
    const TempDir dir;
    EXPECT_EQ(nvol2VolumeAdd("a", dir.write("file", "").c_str()), -ENOTDIR);
    EXPECT_EQ(nvol2VolumeAdd("a", (dir.file("file") + "/").c_str()), -ENOTDIR);
    EXPECT_EQ(nvol2VolumeAdd("a", "/dev/null"), -ENOTDIR);
    EXPECT_EQ(nvol2VolumeAdd("a", dir.file("missing").c_str()), -ENOENT);
    std::filesystem::create_symlink("loop", dir.file("loop"));
    EXPECT_EQ(nvol2VolumeAdd("a", dir.file("loop").c_str()), -ELOOP);
    EXPECT_EQ(nvol2VolumeAdd("a", dir.file(std::string(300, 'n')).c_str()), -ENAMETOOLONG);
    EXPECT_EQ(idOf("a"), -ENODEV);
    std::filesystem::create_directory_symlink(dir.makeDir("folder"), dir.file("link"));
    EXPECT_GE(nvol2VolumeAdd("a", dir.file("link").c_str()), 1);
    EXPECT_EQ(nvol2VolumeRemove("a"), 0);
}

TEST(Volumes, aSecondRegistrationIsRefusedAndTheFirstStays)
{
    const TempDir other;
    const Volume volume("1234-ABCD");
    EXPECT_EQ(nvol2VolumeAdd("1234-ABCD", other.path().c_str()), -EEXIST);
    nvol2Media_struct record{};
    EXPECT_EQ(nvol2MediaGet(volume.id(), &record), 0);
    EXPECT_EQ(record.accessPath, volume.accessPath());
}

TEST(Volumes, onlyARegistrationCanBeRemovedAndOnlyOnce)
{
    Volume volume("1234-ABCD");
    EXPECT_EQ(nvol2VolumeRemove("1234-ABC"), -ENODEV);
    EXPECT_EQ(nvol2VolumeRemove(""), -ENODEV);
    EXPECT_EQ(nvol2VolumeRemove("1234-abcd"), 0);
    EXPECT_EQ(nvol2VolumeRemove("1234-ABCD"), -ENODEV);
}

} // namespace
