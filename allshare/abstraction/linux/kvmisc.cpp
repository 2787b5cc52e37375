/*
 * Directory creation, one path component at a time.
 */
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>

#include "abstraction/kvmisc.h"
#include "abstraction/kvos.h"
#include "kvos_log.h"

int mkdirp(const char* path)
{
    // Prefix k ends before the k-th '/' after the first character; the
    // last prefix is the whole path. Prefixes are built in 512 bytes.
    char prefix[512];
    size_t len = strlen(path);
    size_t end = 0;
    while (end < len) {
        const char* slash = len > end + 1 ? strchr(path + end + 1, '/') : nullptr;
        end = slash ? static_cast<size_t>(slash - path) : len;
        size_t n = end < sizeof(prefix) - 1 ? end : sizeof(prefix) - 1;
        memcpy(prefix, path, n);
        prefix[n] = '\0';

        struct stat st;
        if (stat(prefix, &st) == 0) {
            continue;
        }
        KVLOG_DEBUG(kvos_logger(), kvp("Detail", "Creating directory") << kvp("Path", prefix));
        if (mkdir(prefix, 0777) != 0) {
            int err = errno;
            KVLOG_ERROR(kvos_logger(), kvp("Detail", "Unable to create directory")
                                           << kvp("Path", prefix) << kvp("Last-error", KVOS_lastError()));
            errno = err;
            return -1;
        }
    }
    return 0;
}
