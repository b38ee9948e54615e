/*
 * What the units of the media file-system service share; nothing of it leaves the platform layer.
 */
#ifndef NVOL2_VOLUME_H
#define NVOL2_VOLUME_H

#include "nvol2.h"

#include <string>
#include <sys/types.h>
#include <vector>

/* A volume that is there at present. */
struct Nvol2Volume
{
    std::string uuid;
    std::string accessPath;
    std::string deviceName;
    nvol2MediaType mediaType = NVOL2_MEDIA_DIRECTORY;
    nvol2ConnectType connectType = NVOL2_CONNECT_NONE;
    dev_t device = 0; /* of the files on it; 0 when that is not known beforehand */
};

/*
 * The file systems on block devices that a mount table names and whose UUID can be told, in the order of the
 * table. Each UUID counts once, with the first place that can be reached (that is, no later mount hides it) and
 * that shows the whole tree, else with the first that can be reached. mountTable: as /proc/self/mountinfo.
 * linksByUuid: folder of links from UUID to device node, as the device manager keeps it; devices without a link
 * there are asked themselves, which takes the right to read them.
 */
std::vector<Nvol2Volume> nvol2MountedVolumes(const char* mountTable, const char* linksByUuid);

/*
 * A descriptor (O_PATH, close-on-exec) of the volume's root folder; -1 with errno, which is ENODEV when another
 * file system has come to lie there. The caller closes it.
 */
int nvol2OpenRoot(const Nvol2Volume& volume);

/* The volume of a media ID. 0; -ENODEV when it is not there. Throws std::bad_alloc only. */
int nvol2VolumeById(int mediaId, Nvol2Volume& volume);

/* Lower-case form under which UUIDs compare. */
std::string nvol2UuidKey(const std::string& uuid);

#endif
