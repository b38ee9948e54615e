/*
 * Paths on a volume.
 */
#ifndef MEM_PATH_H
#define MEM_PATH_H

#include <string>

/*
 * The plain form of a path: its names with one slash between them, "." and ".." steps resolved. 0, or the errno
 * value: EACCES when a step leads above the volume's root. Throws std::bad_alloc only.
 */
int memPlainPath(const char* path, std::string& plain);

#endif
