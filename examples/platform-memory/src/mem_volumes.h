/*
 * Volumes in memory: what they hold, and which there are.
 *
 * A lock guards the table of volumes, one in each volume its files, and one in each file its bytes; a thread
 * holds one of them at a time. Whoever uses a volume or a file shares it, so that both outlive their removal.
 */
#ifndef MEM_VOLUMES_H
#define MEM_VOLUMES_H

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

/* What a file holds. */
struct MemContent
{
    std::mutex mutex;
    std::vector<unsigned char> bytes;
};

/* The files of a volume by their path, without slash in front: "music/song.mp3". Folders exist by their files. */
struct MemVolume
{
    std::mutex mutex;
    std::map<std::string, std::shared_ptr<MemContent>> files;
};

/* The volume of a media ID; null when there is none. */
std::shared_ptr<MemVolume> memVolumeById(int mediaId);

#endif
