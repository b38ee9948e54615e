/* The media file-system service for C callers: strict C11, linked against the shared library as a player is. */
#include "nvol2.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

static int failures = 0;

static void expect(int holds, const char* what)
{
    if (!holds) {
        ++failures;
        fprintf(stderr, "failed: %s\n", what);
    }
}

#define EXPECT(condition) expect((condition) ? 1 : 0, #condition)

static void checkVolume(const char* folder)
{
    nvol2Media_struct record;
    int ids[64] = {0};
    const int id = nvol2VolumeAdd("C11-ABCD", folder);
    EXPECT(id > 0);
    EXPECT(nvol2VolumeAdd("c11-abcd", folder) == -EEXIST);
    EXPECT(nvol2MediaIDGetByUUID("c11-Abcd") == id);
    EXPECT(nvol2MediaIDGetByUUID("unknown") == -ENODEV);
    EXPECT(nvol2MediaIDList(ids, 64) >= 1);
    EXPECT(nvol2MediaIDList(NULL, 0) >= 1);
    EXPECT(nvol2MediaGet(id, &record) == 0);
    EXPECT(record.mediaType == NVOL2_MEDIA_DIRECTORY);
    EXPECT(record.connectType == NVOL2_CONNECT_NONE);
    EXPECT((record.functions & NVOL2_FUNCTION_READ) != 0);
    EXPECT(strcmp(record.accessPath, folder) == 0);
    EXPECT(strcmp(record.deviceName, "") == 0);
    EXPECT(strcmp(record.uuid, "C11-ABCD") == 0);
    EXPECT(nvol2MediaGet(id, NULL) == -EINVAL);
}

static void checkFile(int id)
{
    static const char text[] = "written from C";
    char back[sizeof(text)] = {0};
    nvol2File* file = nvol2_fopen(id, "nvol2_c.tmp", "w+");
    EXPECT(file != NULL);
    if (file == NULL) {
        return;
    }
    EXPECT(nvol2_fwrite(text, 1, sizeof(text), file) == sizeof(text));
    EXPECT(nvol2_ftell(file) == (int64_t)sizeof(text));
    EXPECT(nvol2_fseek(file, 0, SEEK_SET) == 0);
    EXPECT(nvol2_fread(back, 1, sizeof(back), file) == sizeof(back));
    EXPECT(memcmp(text, back, sizeof(text)) == 0);
    EXPECT(nvol2_fgetc(file) == -1);
    EXPECT(nvol2_feof(file) != 0);
    EXPECT(nvol2_ferror(file) == 0);
    nvol2_clearerr(file);
    EXPECT(nvol2_feof(file) == 0);
    EXPECT(nvol2_fclose(file) == 0);
    EXPECT(nvol2_fclose(NULL) == -1 && errno == EBADF);
    EXPECT(nvol2_fopen(id, "nvol2_c.tmp", "") == NULL && errno == EINVAL);
}

static void checkRemoval(int id)
{
    EXPECT(nvol2VolumeRemove("C11-abcd") == 0);
    EXPECT(nvol2VolumeRemove("C11-abcd") == -ENODEV);
    EXPECT(nvol2_fopen(id, "nvol2_c.tmp", "r") == NULL && errno == ENODEV);
}

int main(int argc, char** argv)
{
    char name[4096];
    int id = 0;
    if (argc != 2) {
        fprintf(stderr, "usage: %s FOLDER, in which a file is written and removed\n", argv[0]);
        return 2;
    }
    checkVolume(argv[1]);
    id = nvol2MediaIDGetByUUID("C11-ABCD");
    checkFile(id);
    checkRemoval(id);
    snprintf(name, sizeof(name), "%s/nvol2_c.tmp", argv[1]);
    EXPECT(remove(name) == 0);
    return failures == 0 ? 0 : 1;
}
