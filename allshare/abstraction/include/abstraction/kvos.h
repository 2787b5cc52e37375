/*
 * KVOS: the operating-system abstraction, process-wide part.
 *
 * KVOS_init runs once per process, on the main thread, before any task is
 * created: it creates the FIFO directories under the PATH_TYPE_TMP path,
 * starts the thread reaper, registers the Linux error texts, starts the tick
 * clock, creates the process-data key and, last, starts the D-Bus dispatcher
 * task. KVOS_cleanup cancels every listed task but the caller.
 *
 * Path map: a singly linked list of (type, directory) entries, newest first.
 * KVOS_getPath joins the first entry of a type with a name. When no map has
 * been set by the time KVOS_init runs, KVOS_init installs the product's
 * built-in map (kvos_default_path_map); tests install their own map with
 * kvos_set_path_map before KVOS_init, so nothing is created under /korvenda.
 *
 * Errors: KVOS_setErrno/KVOS_getErrno work on the calling thread's errno;
 * KVOS_lastError turns it into text through the handler registered for the
 * current origin (always KVOS_ERR_ORIGIN_LINUX on this platform).
 */
#ifndef ABSTRACTION_KVOS_H
#define ABSTRACTION_KVOS_H

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include <string>

#include "libkvc/kvtypes.h"
#include "libkvc/timeval.h"

typedef enum KV_PATH_TYPE {
    PATH_TYPE_TMP = 0,
    PATH_TYPE_PERM,
    PATH_TYPE_USER,
    PATH_TYPE_PARAM,
    PATH_TYPE_WEB_FILES,
    PATH_TYPE_USER_WEB_FILES,
    PATH_TYPE_WEB_IMAGES,
    PATH_TYPE_LANGUAGE_FILES,
    PATH_TYPE_LANGUAGE_USER_FILES,
    PATH_TYPE_MENU_FILES,
    PATH_TYPE_MENU_IMAGES,
    PATH_TYPE_SW_IMAGES,
    PATH_TYPE_FONTS,
    PATH_TYPE_EMUL_IMAGES,
    PATH_TYPE_MENU_USER_FILES,
    PATH_TYPE_ROOT, /* 15 */
    PATH_TYPE_CONF_IMAGES,
    PATH_TYPE_SNAPSHOTS,
    PATH_TYPE_POSTER_IMAGES,
    PATH_TYPE_USER_POSTERS,
    PATH_TYPE_SOUND_CLIPS,
    PATH_TYPE_USER_SOUNDS,
    PATH_TYPE_ETC, /* 22 */
    PATH_TYPE_CRASH_FILES,
    PATH_TYPE_ROOT_CONFIG,
    PATH_TYPE_CRASH_TMP,
    PATH_TYPE_ZEL_CONFIG /* 26 */
} KV_PATH_TYPE;

#define KV_PATH_MAX 512

typedef struct _kv_path_map {
    KV_PATH_TYPE pm_type;
    char pm_path[KV_PATH_MAX];
    struct _kv_path_map* pm_next;
} _kv_path_map;

typedef struct _kvos_cfg {
    _kv_path_map* tc_path_map;
    const char* tc_event_log_name;
    int tc_event_log_type;
    const char* kvos_task_name;
    size_t kvos_task_stacksize;
    uint32_t kvos_task_priority;
    uint32_t kvos_task_stacksegment;
} _kvos_cfg;

/* KVOS_ERR_ORIGIN_UNKNOWN is 0, the same value as KVOS_ERR_ORIGIN_LINUX:
 * existing callers compare against either name, so it stays that way. */
typedef enum KVOS_ERR_ORIGIN {
    KVOS_ERR_ORIGIN_LINUX = 0,
    KVOS_ERR_ORIGIN_NU_OS = 1,
    KVOS_ERR_ORIGIN_NU_NET = 2,
    KVOS_ERR_ORIGIN_PSOS = 3,
    KVOS_ERR_ORIGIN_DSPBIOS = 4,
    KVOS_ERR_ORIGIN_SSL = 5,
    KVOS_ERR_ORIGIN_BSD_NET = 6,
    KVOS_ERR_ORIGIN_WIN32 = 7,
    KVOS_ERR_ORIGIN_UCOSII = 8,
    KVOS_ERR_ORIGIN_ECOS = 9,
    KVOS_ERR_ORIGIN_UNKNOWN = 0
} KVOS_ERR_ORIGIN;

/* Turns an error number of one origin into text. */
typedef std::string (*KVOS_ERRNO_TEXT_FUNC)(int64_t err);

/* Process set-up and tear-down. */
void KVOS_init(void);
int KVOS_cleanup(void);
/* True once KVOS_init has finished its clock step. */
bool KVOS_isInited(void);

/* Configuration and path map. */
void KVOS_cfgInit(_kvos_cfg* cfg);
/* Null: nothing. Otherwise installs cfg->tc_path_map and creates, with
 * mkdirp, the directory of every entry in list order. */
void KVOS_initPath(_kvos_cfg* cfg);
/* New head entry (path cut to 511 characters) in front of `head`. */
_kv_path_map* KVOS_addPathMap(_kv_path_map* head, KV_PATH_TYPE type, const char* path);
_kv_path_map* kvos_get_path_map(void);
void kvos_set_path_map(_kv_path_map* head);
/* The product's built-in map, built once and never released. */
_kv_path_map* kvos_default_path_map(void);
/* Releases every entry of a map built with KVOS_addPathMap. */
void kvos_free_path_map(_kv_path_map* head);
/* "<dir of type>/<name>" in buf; null when there is no map, no entry of
 * that type, or the text does not fit in `size` bytes. */
char* KVOS_getPath(char* buf, size_t size, const char* name, KV_PATH_TYPE type);
char* KV_getPath(char* buf, int size, const char* name, KV_PATH_TYPE type);

/* Tick clock: 100 ticks per second since KVOS_init; 0 (and an error log)
 * before it. Differences are unsigned 32-bit, correct across the wrap. */
unsigned KVOS_ticksCurrent(void);
unsigned KVOS_ticksDiff(unsigned from, unsigned to);
unsigned KVOS_ticksElapsed(unsigned since);

/* Processor time consumed by the calling thread so far. */
struct timespec KVOS_threadClock(void);

/* One relative sleep on the monotonic clock; the system's result (an
 * interrupted sleep is not resumed). */
int KVOS_sleep(unsigned s);
int KVOS_msleep(unsigned ms);
int KVOS_usleep(unsigned us);
int KVOS_nanosleep(unsigned ns);

/* Per-thread error record. The origin is not stored. */
void KVOS_setErrno(long err, KVOS_ERR_ORIGIN origin);
long KVOS_getErrno(void);
KVOS_ERR_ORIGIN KVOS_getErrnoOrigin(void);
void KVOS_registerErrnoHandler(KVOS_ERR_ORIGIN origin, KVOS_ERRNO_TEXT_FUNC fn);
/* Text of the calling thread's errno, or "Unclaimed error". */
std::string KVOS_lastError(void);
/* The system's text for err. */
std::string kvos_linux_strerror(int64_t err);

/* Thread-specific key for the FSM layer's per-task process data. */
unsigned KVOS_getProcdataKey(void);

#endif
