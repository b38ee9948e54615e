/*
 * Opening a file so that its path cannot lead out of a folder, whatever links it meets and whoever changes them
 * meanwhile. Two ways with the same results: the kernel's, and a walk step by step for kernels without it.
 */
#ifndef NVOL2_BENEATH_H
#define NVOL2_BENEATH_H

#include <sys/types.h>

/*
 * Opens path from the folder root (a descriptor, O_PATH suffices). flags and mode: as of open; close-on-exec is
 * added. Returns a descriptor, or a negated errno value: -EACCES when the path would leave the folder.
 */
int nvol2OpenBeneath(int root, const char* path, int flags, mode_t mode);

/* The same without the kernel's help. Holds a descriptor for each folder on the way while it walks. */
int nvol2WalkBeneath(int root, const char* path, int flags, mode_t mode);

#endif
