/*
 * Linux half of process set-up (KVOS_init is in kvos_init.cpp): the FIFO
 * directory's owner and mode, and the system's error texts.
 */
#include <errno.h>
#include <grp.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "abstraction/kvos.h"
#include "abstraction/kvos_seams.h"
#include "linux/kvos_log.h"
#include "linux/kvos_os.h"

namespace {
const char* gFifoGroup = "_appmgmt";
}  // namespace

void kvos_set_fifo_group(const char* group)
{
    gFifoGroup = group;
}

std::string kvos_linux_strerror(int64_t err)
{
    return kvos_os::errorText(static_cast<int>(err));
}

namespace kvos_os {

/* The owner and mode changes name "/tmp/fifos" literally, whatever
 * directory the path map gave the FIFOs; that is how deployed systems
 * expect it. */
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

}  // namespace kvos_os
