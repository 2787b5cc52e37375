/**
 * @file
 * KVOS: the operating-system abstraction, process-wide part.
 *
 * KVOS_init runs once per process, on the main thread, before any task is
 * created: it creates the FIFO directories under the PATH_TYPE_TMP path,
 * starts the thread reaper, registers the Linux error texts, starts the tick
 * clock, creates the process-data key and, last, starts the D-Bus dispatcher
 * task. KVOS_cleanup cancels every task but the caller, waits (at most 2
 * seconds) until the reaper has joined and released them, and stops the
 * reaper; no task may be created after it.
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

#pragma GCC visibility push(default)

/** Kinds of directory in the path map; KVOS_getPath looks a name up under one of them. */
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
    PATH_TYPE_ROOT, /**< 15 */
    PATH_TYPE_CONF_IMAGES,
    PATH_TYPE_SNAPSHOTS,
    PATH_TYPE_POSTER_IMAGES,
    PATH_TYPE_USER_POSTERS,
    PATH_TYPE_SOUND_CLIPS,
    PATH_TYPE_USER_SOUNDS,
    PATH_TYPE_ETC, /**< 22 */
    PATH_TYPE_CRASH_FILES,
    PATH_TYPE_ROOT_CONFIG,
    PATH_TYPE_CRASH_TMP,
    PATH_TYPE_ZEL_CONFIG /**< 26 */
} KV_PATH_TYPE;

/** Capacity of a path-map entry's directory, terminator included. */
#define KV_PATH_MAX 512

/** One entry of the path map: a directory for one path type, and the next (older) entry. */
typedef struct _kv_path_map {
    KV_PATH_TYPE pm_type;
    char pm_path[KV_PATH_MAX];
    struct _kv_path_map* pm_next;
} _kv_path_map;

/** Process configuration handed to KVOS_initPath; only tc_path_map is used by this library, the
 * other fields are carried for callers. KVOS_cfgInit zeroes it. */
typedef struct _kvos_cfg {
    _kv_path_map* tc_path_map;
    const char* tc_event_log_name;
    int tc_event_log_type;
    const char* kvos_task_name;
    size_t kvos_task_stacksize;
    uint32_t kvos_task_priority;
    uint32_t kvos_task_stacksegment;
} _kvos_cfg;

/** KVOS_ERR_ORIGIN_UNKNOWN is 0, the same value as KVOS_ERR_ORIGIN_LINUX:
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

/** Turns an error number of one origin into text. */
typedef std::string (*KVOS_ERRNO_TEXT_FUNC)(int64_t err);

/* Process set-up and tear-down. */
/** Sets up the process once, on the main thread, before any task is created (the steps and their
 * order are in the file note). A FIFO directory that cannot be created is logged and aborts the
 * process. */
void KVOS_init(void);
/** Cancels every listed task except the caller, then sleeps two seconds so they can unwind; returns
 * the result of that sleep (0, or the system's error number when interrupted). */
int KVOS_cleanup(void);
/** True once KVOS_init has finished its clock step. */
bool KVOS_isInited(void);

/* Configuration and path map. */
/** Zeroes every field of cfg: no path map, no names, sizes and priorities 0. */
void KVOS_cfgInit(_kvos_cfg* cfg);
/** Null: nothing. Otherwise installs cfg->tc_path_map and creates, with
 * mkdirp, the directory of every entry in list order. */
void KVOS_initPath(_kvos_cfg* cfg);
/** New head entry (path cut to 511 characters) in front of `head`. */
_kv_path_map* KVOS_addPathMap(_kv_path_map* head, KV_PATH_TYPE type, const char* path);
/** The head of the path map in use, or null when none has been installed. */
_kv_path_map* kvos_get_path_map(void);
/** Installs `head` as the path map (null removes it). The list is not copied: it must stay valid as
 * long as paths are looked up. */
void kvos_set_path_map(_kv_path_map* head);
/** The product's built-in map, built once and never released; null when the program carries no
 * product part. */
_kv_path_map* kvos_default_path_map(void);
/** Releases every entry of a map built with KVOS_addPathMap. */
void kvos_free_path_map(_kv_path_map* head);
/** "<dir of type>/<name>" in buf; null when there is no map, no entry of
 * that type, or the text does not fit in `size` bytes. */
char* KVOS_getPath(char* buf, size_t size, const char* name, KV_PATH_TYPE type);
/** KVOS_getPath with the buffer size as an int, for older callers. */
char* KV_getPath(char* buf, int size, const char* name, KV_PATH_TYPE type);

/** Tick clock: 100 ticks per second since KVOS_init; 0 (and an error log)
 * before it. Differences are unsigned 32-bit, correct across the wrap. */
unsigned KVOS_ticksCurrent(void);
/** Ticks from `from` to `to`: to - from in unsigned 32-bit arithmetic, so the result is right
 * across the counter's wrap. */
unsigned KVOS_ticksDiff(unsigned from, unsigned to);
/** Ticks since `since`: KVOS_ticksCurrent() - since, unsigned 32-bit like KVOS_ticksDiff. */
unsigned KVOS_ticksElapsed(unsigned since);

/** Processor time consumed by the calling thread so far. */
struct timespec KVOS_threadClock(void);

///@{
/** One relative sleep on the monotonic clock; the system's result (an
 * interrupted sleep is not resumed). */
int KVOS_sleep(unsigned s);
int KVOS_msleep(unsigned ms);
int KVOS_usleep(unsigned us);
int KVOS_nanosleep(unsigned ns);
///@}

/* Per-thread error record. The origin is not stored. */
/** Sets the calling thread's errno to err; the origin is ignored. */
void KVOS_setErrno(long err, KVOS_ERR_ORIGIN origin);
/** The calling thread's errno. */
long KVOS_getErrno(void);
/** Always KVOS_ERR_ORIGIN_LINUX, since the origin is not stored. */
KVOS_ERR_ORIGIN KVOS_getErrnoOrigin(void);
/** Makes fn the text source for errors of `origin`; a later registration for the same origin takes
 * precedence. Meant for start-up: lookups read the handler list without a lock. When memory runs
 * out a message goes to stderr and nothing is registered. */
void KVOS_registerErrnoHandler(KVOS_ERR_ORIGIN origin, KVOS_ERRNO_TEXT_FUNC fn);
/** Text of the calling thread's errno, or "Unclaimed error". */
std::string KVOS_lastError(void);
/** The system's text for err. */
std::string kvos_linux_strerror(int64_t err);

/** Thread-specific key for the FSM layer's per-task process data. */
unsigned KVOS_getProcdataKey(void);

#pragma GCC visibility pop
#endif
