/*
 * OS-independent part of KVOS's process-wide services: the registration of
 * the pluggable texts of the per-thread error record (the record, the list
 * of handlers and its look-up are in the Linux half, below everything that
 * reports an error), the configuration record, the path map and directory
 * creation.
 *
 * Handlers are added under "KVOSmutex".
 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <mutex>

#include "abstraction/kvos.h"
#include "abstraction/kvos_mutex.h"
#include "abstraction/kvos_product.h"
#include "kvos_internal.h"
#include "linux/kvos_log.h"
#include "linux/kvos_os.h"

namespace {

KVOS_MUTEX gKvosMutex{nullptr};
std::once_flag gCommonOnce;

std::atomic<_kv_path_map*> gPathMap{nullptr};
// Constant-initialised, so the product may install its provider from a
// static initialiser in any order.
std::atomic<KVOS_PATH_MAP_FUNC> gDefaultMapProvider{nullptr};

}  // namespace

void kvos_common_init(void)
{
    std::call_once(gCommonOnce, [] { KVOS_mutexCreate(&gKvosMutex, "KVOSmutex"); });
}

void KVOS_registerErrnoHandler(KVOS_ERR_ORIGIN origin, KVOS_ERRNO_TEXT_FUNC fn)
{
    auto* h = static_cast<kvos_os::ErrnoHandler*>(malloc(sizeof(kvos_os::ErrnoHandler)));
    if (h == nullptr) {
        fputs("KVOS_registerErrnoHandler(): malloc failed!\n", stderr);
        return;
    }
    kvos_common_init();
    h->origin = origin;
    h->text = fn;
    KVOS_mutexLock(&gKvosMutex);
    kvos_os::addErrnoHandler(h);
    KVOS_mutexUnlock(&gKvosMutex);
}

void KVOS_cfgInit(_kvos_cfg* cfg)
{
    memset(cfg, 0, sizeof(*cfg));
}

void KVOS_initPath(_kvos_cfg* cfg)
{
    if (cfg == nullptr) {
        return;
    }
    kvos_set_path_map(cfg->tc_path_map);
    for (_kv_path_map* e = cfg->tc_path_map; e; e = e->pm_next) {
        mkdirp(e->pm_path);
    }
}

_kv_path_map* KVOS_addPathMap(_kv_path_map* head, KV_PATH_TYPE type, const char* path)
{
    auto* e = static_cast<_kv_path_map*>(calloc(1, sizeof(_kv_path_map)));
    e->pm_type = type;
    snprintf(e->pm_path, sizeof(e->pm_path), "%s", path ? path : "");
    e->pm_next = head;
    return e;
}

_kv_path_map* kvos_get_path_map(void)
{
    return gPathMap.load();
}

void kvos_set_path_map(_kv_path_map* head)
{
    gPathMap.store(head);
}

void kvos_free_path_map(_kv_path_map* head)
{
    while (head) {
        _kv_path_map* next = head->pm_next;
        free(head);
        head = next;
    }
}

void kvos_set_default_path_map_provider(KVOS_PATH_MAP_FUNC provider)
{
    gDefaultMapProvider.store(provider);
}

_kv_path_map* kvos_default_path_map(void)
{
    KVOS_PATH_MAP_FUNC provider = gDefaultMapProvider.load();
    return provider ? provider() : nullptr;
}

char* KVOS_getPath(char* buf, size_t size, const char* name, KV_PATH_TYPE type)
{
    _kv_path_map* e = kvos_get_path_map();
    while (e && e->pm_type != type) {
        e = e->pm_next;
    }
    if (e == nullptr) {
        return nullptr;
    }
    int n = snprintf(buf, size, "%s/%s", e->pm_path, name);
    if (n < 0) {
        fputs("KVOS_getPath(): snprintf() returned -1.  Odd.\n", stderr);
        return nullptr;
    }
    if (static_cast<size_t>(n) >= size) {
        return nullptr;
    }
    return buf;
}

char* KV_getPath(char* buf, int size, const char* name, KV_PATH_TYPE type)
{
    return KVOS_getPath(buf, static_cast<size_t>(size), name, type);
}

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

        if (kvos_os::pathExists(prefix)) {
            continue;
        }
        KVLOG_DEBUG(kvos_logger(), kvp("Detail", "Creating directory") << kvp("Path", prefix));
        if (int err = kvos_os::makeDirectory(prefix)) {
            errno = err;  // the error text below is that of errno
            KVLOG_ERROR(kvos_logger(), kvp("Detail", "Unable to create directory")
                                           << kvp("Path", prefix) << kvp("Last-error", KVOS_lastError()));
            errno = err;
            return -1;
        }
    }
    return 0;
}
