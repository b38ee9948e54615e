// The media file-system service from many threads at once.
#include "nvol2.h"

#include "support/random.h"
#include "support/volume.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace {

using support::openFile;
using support::TempDir;
using support::VolumeFile;

constexpr int kThreads = 6;

void onThreads(const std::function<void(int)>& function)
{
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int index = 0; index < kThreads; ++index) {
        threads.emplace_back(function, index);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

int idOf(const std::string& uuid)
{
    return nvol2MediaIDGetByUUID(uuid.c_str());
}

TEST(VolumesFromThreads, eachThreadsOwnVolumeIsAlwaysRight)
{
    const int rounds = support::randomRounds(1000);
    onThreads([&](int index) {
        const TempDir dir;
        const std::string uuid = "own-" + std::to_string(index);
        dir.write("f", uuid);
        int id = -1;
        for (int round = 0; round < rounds; ++round) {
            const int added = nvol2VolumeAdd(uuid.c_str(), dir.path().c_str());
            ASSERT_TRUE(added == id || (id < 0 && added > 0)) << added;
            id = added;
            ASSERT_EQ(idOf(uuid), id);
            nvol2Media_struct record{};
            ASSERT_EQ(nvol2MediaGet(id, &record), 0);
            ASSERT_STREQ(record.uuid, uuid.c_str());
            const VolumeFile file = openFile(id, "f");
            ASSERT_NE(file, nullptr);
            ASSERT_EQ(nvol2VolumeRemove(uuid.c_str()), 0);
            ASSERT_EQ(support::readAll(file.get()), uuid);
            errno = 0;
            ASSERT_EQ(nvol2_fopen(id, "f", "r"), nullptr);
            ASSERT_EQ(errno, ENODEV);
        }
    });
}

// Two folders take turns under each of a few UUIDs: whatever is opened is a file of one of both.
TEST(VolumesFromThreads, sharedVolumesComeAndGo)
{
    const std::array<TempDir, 2> dirs;
    dirs[0].write("f", "one");
    dirs[1].write("f", "two");
    const std::array<std::string, 3> uuids{"shared-a", "shared-b", "shared-c"};
    std::array<int, 3> ids{};
    for (std::size_t index = 0; index < uuids.size(); ++index) {
        ids[index] = nvol2VolumeAdd(uuids[index].c_str(), dirs[0].path().c_str());
        ASSERT_GE(ids[index], 1);
    }
    std::atomic<int> opened{0};
    const int rounds = support::randomRounds(2000);
    onThreads([&](int index) {
        // And on, until a file was opened between the one thread's adding and the other's removing.
        for (int round = 0; round < rounds || opened == 0; ++round) {
            const auto which = static_cast<std::size_t>(round + index) % uuids.size();
            const char* uuid = uuids[which].c_str();
            const int id = ids[which];
            switch (static_cast<std::size_t>(round / 3 + index) % 6) {
            case 0: {
                const int added =
                    nvol2VolumeAdd(uuid, dirs[static_cast<std::size_t>(round) % 2].path().c_str());
                ASSERT_TRUE(added == id || added == -EEXIST) << added;
                break;
            }
            case 1: {
                const int removed = nvol2VolumeRemove(uuid);
                ASSERT_TRUE(removed == 0 || removed == -ENODEV) << removed;
                break;
            }
            case 2: {
                const int found = idOf(uuid);
                ASSERT_TRUE(found == id || found == -ENODEV) << found;
                break;
            }
            case 3: {
                nvol2Media_struct record{};
                const int got = nvol2MediaGet(id, &record);
                ASSERT_TRUE(got == -ENODEV || (got == 0 && record.uuid == uuids[which])) << got;
                break;
            }
            case 4: {
                std::array<int, 64> all{};
                ASSERT_GE(nvol2MediaIDList(all.data(), 64), 0);
                break;
            }
            default: {
                errno = 0;
                const VolumeFile file = openFile(id, "f");
                ASSERT_TRUE(file != nullptr || errno == ENODEV) << errno;
                if (file != nullptr) {
                    const std::string content = support::readAll(file.get());
                    ASSERT_TRUE(content == "one" || content == "two") << content;
                    ++opened;
                }
                break;
            }
            }
        }
    });
    for (const std::string& uuid : uuids) {
        nvol2VolumeRemove(uuid.c_str());
        EXPECT_EQ(idOf(uuid), -ENODEV);
    }
}

TEST(VolumesFromThreads, ofManyRegistrationsOfOneUuidOneSucceeds)
{
    const TempDir dir;
    for (int round = 0; round < support::randomRounds(300); ++round) {
        const std::string uuid = "contended-" + std::to_string(round);
        std::atomic<int> succeeded{0};
        onThreads([&](int) {
            const int added = nvol2VolumeAdd(uuid.c_str(), dir.path().c_str());
            ASSERT_TRUE(added > 0 || added == -EEXIST) << added;
            succeeded += added > 0 ? 1 : 0;
        });
        ASSERT_EQ(succeeded, 1);
        std::atomic<int> removed{0};
        onThreads([&](int) { removed += nvol2VolumeRemove(uuid.c_str()) == 0 ? 1 : 0; });
        ASSERT_EQ(removed, 1);
    }
}

} // namespace
