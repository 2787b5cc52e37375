/*
 * KVOS_init and KVOS_cleanup.
 *
 * The order of KVOS_init is fixed: the FIFO directories exist before any
 * task could open a FIFO, the reaper runs before any task is created, the
 * tick clock starts before anything measures time, and the D-Bus dispatcher
 * task comes last because it is itself a task.
 */
#include <errno.h>
#include <grp.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

#include "abstraction/dbusthread.h"
#include "abstraction/kvmisc.h"
#include "abstraction/kvos.h"
#include "abstraction/kvos_seams.h"
#include "abstraction/kvos_task.h"
#include "kvos_internal.h"
#include "kvos_log.h"
#include "linux/kvos_os.h"

namespace {

std::atomic<unsigned> gProcdataKey{0};
const char* gFifoGroup = "_appmgmt";

/* Steps 2-3 and 5: the path of `name` under PATH_TYPE_TMP, created. */
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

/* Step 4. The owner and mode changes name "/tmp/fifos" literally, whatever
 * directory step 2 produced; that is how deployed systems expect it. */
void adjustFifoOwner()
{
    struct group* grp = getgrnam(gFifoGroup);
    if (grp == nullptr) {
        return;
    }
    uid_t owner = getuid();
    if (chown("/tmp/fifos", owner, grp->gr_gid) != 0) {
        KVLOG_ERROR(kvos_logger(), "Failed to change owner of /tmp/fifos errno: " << errno);
    } else {
        KVLOG_DEBUG(kvos_logger(), kvp("Detail", "After chown() ") << kvp("owner", owner)
                                                                   << kvp("group", grp->gr_gid));
    }
    if (chmod("/tmp/fifos", 0775) != 0) {
        KVLOG_ERROR(kvos_logger(), "Failed to change mode on /tmp/fifos errno: " << errno);
    }
}

std::string linuxErrorText(int64_t err)
{
    return kvos_linux_strerror(err);
}

}  // namespace

void kvos_set_fifo_group(const char* group)
{
    gFifoGroup = group;
}

std::string kvos_linux_strerror(int64_t err)
{
    return kvos_os::errorText(static_cast<int>(err));
}

void KVOS_init(void)
{
    if (kvos_get_path_map() == nullptr) {
        kvos_set_path_map(kvos_default_path_map());
    }
    kvos_common_init();
    createFifoDir("fifos", "Buffer too small to hold fifo path", "Failed to create path for queues");
    adjustFifoOwner();
    createFifoDir("tshell", "Buffer too small to hold tshell fifo path",
                  "Failed to create path for tshell queues");
    kvos_task_init();
    KVLOG_DEBUG(kvos_logger(), kvp("Detail", "Main thread") << kvp("PID", getpid())
                                                            << kvp("LWP", kvos_os::currentLwp()));
    KVOS_registerErrnoHandler(KVOS_ERR_ORIGIN_LINUX, linuxErrorText);
    kvos_time_start();
    pthread_key_t key;
    pthread_key_create(&key, nullptr);
    gProcdataKey.store(key);
    DBusThread::instance().start();
}

int KVOS_cleanup(void)
{
    return kvos_task_cancel_all();
}

unsigned KVOS_getProcdataKey(void)
{
    return gProcdataKey.load();
}
