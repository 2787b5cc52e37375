/*
 * Directory primitives under mkdirp (kvos_common.cpp): the system calls
 * only; the walk over the path's prefixes and its log lines are in the
 * portable half.
 */
#include <errno.h>
#include <sys/stat.h>
#include <sys/types.h>

#include "linux/kvos_os.h"

namespace kvos_os {

bool pathExists(const char* path)
{
    struct stat st;
    return stat(path, &st) == 0;
}

int makeDirectory(const char* path)
{
    return mkdir(path, 0777) == 0 ? 0 : errno;
}

}  // namespace kvos_os
