/*
 * The media file-system service: volumes named by UUID, and file operations on a media ID and a path.
 *
 * Two kinds of volumes are served: file systems on block devices that are mounted where a path reaches them, found
 * by their UUID each time a volume is asked for, and directories that were registered with nvol2VolumeAdd, which win
 * when both carry one UUID. UUIDs compare without regard to case (of ASCII letters). A media ID belongs to its
 * UUID until the process ends, also while the volume is away, and is never given to another.
 *
 * A path never leaves its volume: ".." steps that would, and symbolic links that lead outside or name an
 * absolute path, fail with EACCES. Only regular files are opened; anything else is not even touched.
 *
 * Any thread may call any function; one file is used by one caller at a time. No exception leaves it. The one
 * lock, over the table of known volumes, stands in nvol2_volumes.cpp and is held during no file operation.
 */
#ifndef NVOL2_H
#define NVOL2_H

#include "mdp_export.h"

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What a volume lies on (nvol2Media_struct.mediaType). */
enum nvol2MediaType
{
    NVOL2_MEDIA_DIRECTORY = 0, /* a registered directory */
    NVOL2_MEDIA_DISK = 1,      /* a block device */
    NVOL2_MEDIA_OPTICAL = 2    /* a disc: ISO 9660 or UDF */
};

/* How its device is attached (nvol2Media_struct.connectType). */
enum nvol2ConnectType
{
    NVOL2_CONNECT_NONE = 0, /* no device of its own */
    NVOL2_CONNECT_INTERNAL = 1,
    NVOL2_CONNECT_USB = 2,
    NVOL2_CONNECT_MMC = 3
};

/* Bits of nvol2Media_struct.functions. */
enum nvol2Functions
{
    NVOL2_FUNCTION_READ = 1,
    NVOL2_FUNCTION_WRITE = 2 /* not set on a read-only mount */
};

/* What is known of a volume. Filled by nvol2MediaGet; texts end with NUL. */
typedef struct nvol2Media_struct
{
    int32_t mediaType;     /* nvol2MediaType */
    int32_t connectType;   /* nvol2ConnectType */
    uint32_t functions;    /* nvol2Functions */
    char accessPath[4096]; /* where it lies in the native file system; ends with "/" on a mounted device,
                                and is the text as registered on a directory */
    char deviceName[256];  /* device node, or empty */
    char uuid[256];        /* in the spelling of the device or of the registration */
} nvol2Media_struct;

/* An open file; opaque. */
typedef struct nvol2File nvol2File;

/*
 * Registers a directory as a volume. uuid: any text without "/", as it will stand in locators. accessPath: an
 * existing directory; absolute, and ending with "/" if translated locators are to lie below it.
 *
 * Returns the media ID, or -EINVAL (null or empty text, "/" in uuid), -EEXIST (already registered), -ENAMETOOLONG
 * (does not fit into the record), -ENOTDIR, or the reason why the directory cannot be looked at (-ENOENT ...).
 */
MDP_API int nvol2VolumeAdd(const char* uuid, const char* accessPath);

/* Ends a registration; open files stay usable. 0; -ENODEV when it is not registered; -EINVAL for null. */
MDP_API int nvol2VolumeRemove(const char* uuid);

/* Media ID of the volume, 1 or more; -ENODEV when there is none at present, -EINVAL for null. */
MDP_API int nvol2MediaIDGetByUUID(const char* uuid);

/* Fills the record. 0; -ENODEV when the volume is not there (any more); -EINVAL for a null record. */
MDP_API int nvol2MediaGet(int mediaId, nvol2Media_struct* record);

/*
 * Media IDs of the volumes that are there: stores up to capacity of them (null: none) and returns how many there
 * are, or a negated errno value.
 */
MDP_API int nvol2MediaIDList(int* mediaIds, int capacity);

/*
 * Opens a file on a volume. path: from the volume's root, leading slashes count nothing. mode: "r", "w" or "a",
 * with "b" and "+" behind it as in fopen. The caller closes the file with nvol2_fclose.
 *
 * Null on failure, with errno: EINVAL (null, empty or unknown mode, null path), ENODEV (no such volume), ENOENT
 * (also for an empty path), EACCES (leaves the volume, or is no regular file), EISDIR, ENAMETOOLONG, ...
 */
MDP_API nvol2File* nvol2_fopen(int mediaId, const char* path, const char* mode);

/*
 * As their stdio namesakes, with 64-bit positions. A null file: -1 (nvol2_fread and nvol2_fwrite: 0, nvol2_feof
 * and nvol2_ferror: 1) with errno EBADF.
 */
MDP_API size_t nvol2_fread(void* buffer, size_t size, size_t count, nvol2File* file);
MDP_API size_t nvol2_fwrite(const void* buffer, size_t size, size_t count, nvol2File* file);
MDP_API int nvol2_fseek(nvol2File* file, int64_t offset, int whence);
MDP_API int64_t nvol2_ftell(nvol2File* file);
MDP_API int nvol2_fgetc(nvol2File* file);
MDP_API int nvol2_feof(nvol2File* file);
MDP_API int nvol2_ferror(nvol2File* file);
MDP_API void nvol2_clearerr(nvol2File* file);
MDP_API int nvol2_fclose(nvol2File* file);

#ifdef __cplusplus
}
#endif

#endif
