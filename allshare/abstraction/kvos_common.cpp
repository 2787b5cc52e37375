/*
 * OS-independent part of KVOS's process-wide services: the per-thread error
 * record with its pluggable texts, the configuration record and the path
 * map.
 *
 * Errno handlers form a singly linked list, newest first, changed under
 * "KVOSmutex" and read without it: handlers are registered at start-up,
 * before other threads look them up.
 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <mutex>

#include "abstraction/kvos.h"
#include "abstraction/kvos_mutex.h"
#include "kvos_internal.h"

namespace {

struct ErrnoHandler {
    KVOS_ERR_ORIGIN origin;
    KVOS_ERRNO_TEXT_FUNC text;
    ErrnoHandler* next;
};

std::atomic<ErrnoHandler*> gHandlers{nullptr};
KVOS_MUTEX gKvosMutex{nullptr};
std::once_flag gCommonOnce;

std::atomic<_kv_path_map*> gPathMap{nullptr};

}  // namespace

void kvos_common_init(void)
{
    std::call_once(gCommonOnce, [] { KVOS_mutexCreate(&gKvosMutex, "KVOSmutex"); });
}

void KVOS_setErrno(long err, KVOS_ERR_ORIGIN /*origin*/)
{
    errno = static_cast<int>(err);
}

long KVOS_getErrno(void)
{
    return errno;
}

KVOS_ERR_ORIGIN KVOS_getErrnoOrigin(void)
{
    return KVOS_ERR_ORIGIN_LINUX;
}

void KVOS_registerErrnoHandler(KVOS_ERR_ORIGIN origin, KVOS_ERRNO_TEXT_FUNC fn)
{
    auto* h = static_cast<ErrnoHandler*>(malloc(sizeof(ErrnoHandler)));
    if (h == nullptr) {
        fputs("KVOS_registerErrnoHandler(): malloc failed!\n", stderr);
        return;
    }
    kvos_common_init();
    h->origin = origin;
    h->text = fn;
    KVOS_mutexLock(&gKvosMutex);
    h->next = gHandlers.load();
    gHandlers.store(h);
    KVOS_mutexUnlock(&gKvosMutex);
}

std::string KVOS_lastError(void)
{
    int err = errno;  // read first: looking up the handler must not change it
    KVOS_ERR_ORIGIN origin = KVOS_getErrnoOrigin();
    for (ErrnoHandler* h = gHandlers.load(); h; h = h->next) {
        if (h->origin == origin) {
            std::string text = h->text(err);
            errno = err;
            return text;
        }
    }
    return "Unclaimed error";
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

_kv_path_map* kvos_default_path_map(void)
{
    // The product's layout: everything under /korvenda except the
    // temporary areas. The list is built once and never released.
    static _kv_path_map* map = [] {
        static const struct {
            KV_PATH_TYPE type;
            const char* path;
        } kLayout[] = {
            {PATH_TYPE_TMP, "/tmp"},
            {PATH_TYPE_PERM, "/korvenda/persistent"},
            {PATH_TYPE_USER, "/korvenda/user"},
            {PATH_TYPE_PARAM, "/korvenda/persistent/param"},
            {PATH_TYPE_WEB_FILES, "/korvenda/web"},
            {PATH_TYPE_USER_WEB_FILES, "/korvenda/user/web"},
            {PATH_TYPE_WEB_IMAGES, "/korvenda/web/images"},
            {PATH_TYPE_LANGUAGE_FILES, "/korvenda/lang"},
            {PATH_TYPE_LANGUAGE_USER_FILES, "/korvenda/user/lang"},
            {PATH_TYPE_MENU_FILES, "/korvenda/menu"},
            {PATH_TYPE_MENU_IMAGES, "/korvenda/menu/images"},
            {PATH_TYPE_SW_IMAGES, "/korvenda/swimages"},
            {PATH_TYPE_FONTS, "/korvenda/fonts"},
            {PATH_TYPE_EMUL_IMAGES, "/korvenda/emul"},
            {PATH_TYPE_MENU_USER_FILES, "/korvenda/user/menu"},
            {PATH_TYPE_ROOT, "/korvenda"},
            {PATH_TYPE_CONF_IMAGES, "/korvenda/persistent/confimages"},
            {PATH_TYPE_SNAPSHOTS, "/korvenda/persistent/snapshots"},
            {PATH_TYPE_POSTER_IMAGES, "/korvenda/posters"},
            {PATH_TYPE_USER_POSTERS, "/korvenda/user/posters"},
            {PATH_TYPE_SOUND_CLIPS, "/korvenda/sounds"},
            {PATH_TYPE_USER_SOUNDS, "/korvenda/user/sounds"},
            {PATH_TYPE_ETC, "/korvenda/etc"},
            {PATH_TYPE_CRASH_FILES, "/korvenda/persistent/crash"},
            {PATH_TYPE_ROOT_CONFIG, "/korvenda/persistent/config"},
            {PATH_TYPE_CRASH_TMP, "/tmp/crash"},
            {PATH_TYPE_ZEL_CONFIG, "/korvenda/etc"},
        };
        _kv_path_map* head = nullptr;
        for (auto it = std::end(kLayout); it != std::begin(kLayout);) {
            --it;
            head = KVOS_addPathMap(head, it->type, it->path);
        }
        return head;
    }();
    return map;
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
