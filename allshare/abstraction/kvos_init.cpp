/*
 * KVOS_init and KVOS_cleanup.
 *
 * The order of KVOS_init is fixed: the FIFO directories exist before any
 * task could open a FIFO, the reaper runs before any task is created, the
 * tick clock starts before anything measures time, and the D-Bus dispatcher
 * task comes last because it is itself a task.
 *
 * The path map: when none has been installed by the time KVOS_init runs,
 * it installs the built-in map (kvos_default_path_map), which the product
 * provides through kvos_set_default_path_map_provider.
 */
#include <errno.h>
#include <stdlib.h>

#include <atomic>

#if defined(__SANITIZE_THREAD__)
#define KVOS_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KVOS_THREAD_SANITIZER 1
#endif
#endif
#ifndef KVOS_THREAD_SANITIZER
#define KVOS_THREAD_SANITIZER 0
#endif

#include "abstraction/dbusthread.h"
#include "abstraction/kvmisc.h"
#include "abstraction/kvos.h"
#include "abstraction/kvos_task.h"
#include "kvos_internal.h"
#include "linux/kvos_log.h"
#include "linux/kvos_os.h"

namespace {

std::atomic<unsigned> gProcdataKey{0};

/* The path of `name` under PATH_TYPE_TMP, created. */
void createFifoDir(const char* name, const char* tooSmall, const char* failed)
{
    char buf[512] = "";
    if (KVOS_getPath(buf, sizeof(buf), name, PATH_TYPE_TMP) == nullptr) {
        KVLOG_ERROR(kvos_logger(), kvp("Detail", tooSmall) << kvp("Buffer size", sizeof(buf)));
    }
    if (mkdirp(buf) != 0) {
        KVOS_setErrno(errno, KVOS_ERR_ORIGIN_LINUX);
        KVLOG_ERROR(kvos_logger(), kvp("Detail", failed) << kvp("Path", buf)
                                                         << kvp("Last-error", KVOS_lastError()));
        abort();
    }
}

std::string linuxErrorText(int64_t err)
{
    return kvos_linux_strerror(err);
}

}  // namespace

void KVOS_init(void)
{
    if (kvos_get_path_map() == nullptr) {
        kvos_set_path_map(kvos_default_path_map());
    }
    kvos_common_init();
    createFifoDir("fifos", "Buffer too small to hold fifo path", "Failed to create path for queues");
    kvos_os::adjustFifoOwner();
    createFifoDir("tshell", "Buffer too small to hold tshell fifo path",
                  "Failed to create path for tshell queues");
    kvos_task_init();
    KVLOG_DEBUG(kvos_logger(), kvp("Detail", "Main thread") << kvp("PID", kvos_os::processId())
                                                            << kvp("LWP", kvos_os::currentLwp()));
    KVOS_registerErrnoHandler(KVOS_ERR_ORIGIN_LINUX, linuxErrorText);
    kvos_time_start();
    gProcdataKey.store(kvos_os::createProcdataKey());
    DBusThread::instance().start();
}

int KVOS_cleanup(void)
{
#if KVOS_THREAD_SANITIZER
    // ThreadSanitizer (clang 14) stops following the locks of a thread that
    // is cancelled inside one of its intercepted blocking calls, and then
    // reports the exit message that the cancelled task still posts as a
    // race. The dispatcher waits in such a call for its whole life, so a
    // TSan build leaves its loop in order first; every other build cancels it
    // with the rest, as the contract says.
    DBusThread::instance().stop();
#endif
    return kvos_task_cancel_all();
}

unsigned KVOS_getProcdataKey(void)
{
    return gProcdataKey.load();
}
