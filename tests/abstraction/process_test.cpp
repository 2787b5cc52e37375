/* What happens before and during KVOS_init. The parent process never
 * initialises KVOS: every initialisation runs in a child (EXPECT_EXIT), so
 * the pre-initialisation tests see a fresh process. Some children touch the
 * fixed "/tmp/fifos" of the contract, hence the resource lock in ctest. */
#include <errno.h>
#include <grp.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "abstraction/dbusthread.h"
#include "abstraction/kvos.h"
#include "abstraction/kvos_seams.h"
#include "abstraction/kvos_task.h"
#include "support.h"

using namespace kvos_test;

namespace {

bool isDir(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

class ProcessTest : public ::testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

}  // namespace

using KvosPreInitTest = ProcessTest;
using KvosInitDeathTest = ProcessTest;

TEST_F(KvosPreInitTest, NothingWorksBeforeInit)
{
    ASSERT_FALSE(KVOS_isInited());
    {
        LogCapture log;
        EXPECT_EQ(0u, KVOS_ticksCurrent());
        EXPECT_TRUE(log.contains("ERROR Detail=\"OS not inited yet\""));
    }
    KVOS_setErrno(2, KVOS_ERR_ORIGIN_LINUX);
    EXPECT_EQ("Unclaimed error", KVOS_lastError());  // no handler yet
    char buf[64];
    EXPECT_EQ(nullptr, kvos_get_path_map());
    EXPECT_EQ(nullptr, KVOS_getPath(buf, sizeof(buf), "fifos", PATH_TYPE_TMP));
    EXPECT_EQ(nullptr, kvos_task_reaper_queue());
}

TEST_F(KvosInitDeathTest, WithoutAMapInitUsesTheProductMap)
{
    EXPECT_EXIT(
        {
            KVOS_init();
            bool ok = kvos_get_path_map() == kvos_default_path_map() && isDir("/tmp/fifos") &&
                      isDir("/tmp/tshell") && KVOS_isInited() && kvos_task_reaper_queue() != nullptr;
            ok = ok && waitFor([] { return !linesWith(taskDump(), "DBus dispatcher").empty(); });
            ok = ok && !linesWith(taskDump(), "reaperT").empty();
            KVOS_setErrno(ENOENT, KVOS_ERR_ORIGIN_LINUX);
            fprintf(stderr, "ok=%d text=%s\n", ok ? 1 : 0, KVOS_lastError().c_str());
            _exit(0);
        },
        ::testing::ExitedWithCode(0), "ok=1 text=No such file or directory");
}

TEST_F(KvosInitDeathTest, OwnerAndModeChangesNameTmpFifosLiterally)
{
    // With the group present, "/tmp/fifos" itself is changed even though
    // the FIFO directory is elsewhere: kept exactly so.
    mkdir("/tmp/fifos", 0775);
    EXPECT_EXIT(
        {
            chmod("/tmp/fifos", 0700);
            std::string dir = installPrivatePathMap();
            kvos_set_fifo_group("root");
            LogCapture log;
            KVOS_init();
            struct stat st;
            stat("/tmp/fifos", &st);
            fprintf(stderr, "private=%d mode=%o gid=%u chown=%d\n", isDir(dir + "/fifos") ? 1 : 0,
                    st.st_mode & 07777, st.st_gid,
                    log.contains("DEBUG Detail=\"After chown() \" owner=\"" + std::to_string(getuid()) +
                                 "\" group=\"0\"")
                        ? 1
                        : 0);
            _exit(0);
        },
        ::testing::ExitedWithCode(0), "private=1 mode=775 gid=0 chown=1");
}

TEST_F(KvosInitDeathTest, WithoutTheGroupTmpFifosIsLeftAlone)
{
    mkdir("/tmp/fifos", 0775);
    EXPECT_EXIT(
        {
            chmod("/tmp/fifos", 0700);
            installPrivatePathMap();
            kvos_set_fifo_group("kvos_no_such_group");
            KVOS_init();
            struct stat st;
            stat("/tmp/fifos", &st);
            fprintf(stderr, "mode=%o\n", st.st_mode & 07777);
            chmod("/tmp/fifos", 0775);
            _exit(0);
        },
        ::testing::ExitedWithCode(0), "mode=700");
}

TEST_F(KvosInitDeathTest, AFifoDirectoryThatCannotBeMadeIsFatal)
{
    EXPECT_DEATH(
        {
            // A dangling link: the directory does not exist and cannot be made.
            std::string dir = installPrivatePathMap();
            symlink("/nonexistent/kvos", (dir + "/fifos").c_str());
            logToStderr();
            KVOS_init();
        },
        // The error texts are registered later in KVOS_init, so this early
        // failure can only say "Unclaimed error".
        "ERROR -  Detail=\"Failed to create path for queues\" Path=\"/tmp/kvos_test\\.[A-Za-z0-9]+/fifos\" "
        "Last-error=\"Unclaimed error\"");
    EXPECT_DEATH(
        {
            std::string dir = installPrivatePathMap();
            symlink("/nonexistent/kvos", (dir + "/tshell").c_str());
            logToStderr();
            KVOS_init();
        },
        "Detail=\"Failed to create path for tshell queues\"");
}

TEST_F(KvosInitDeathTest, APathThatDoesNotFitIsLoggedAndInitGoesOn)
{
    EXPECT_EXIT(
        {
            std::string dir = installPrivatePathMap();
            // 508 characters of directory: "<dir>/fifos" no longer fits in 512.
            std::string longDir = dir;
            while (longDir.size() < 508) {
                longDir += "/" + std::string(std::min<size_t>(200, 507 - longDir.size()), 'd');
            }
            kvos_set_path_map(KVOS_addPathMap(nullptr, PATH_TYPE_TMP, longDir.c_str()));
            logToStderr();
            KVOS_init();
            fprintf(stderr, "inited=%d\n", KVOS_isInited() ? 1 : 0);
            _exit(0);
        },
        ::testing::ExitedWithCode(0),
        "Detail=\"Buffer too small to hold fifo path\" Buffer size=\"512\"(.|\n)*"
        "Detail=\"Buffer too small to hold tshell fifo path\" Buffer size=\"512\"(.|\n)*inited=1");
}
