/* What happens before and during KVOS_init. The parent process never
 * initialises KVOS: every initialisation runs in a child (EXPECT_EXIT), so
 * the pre-initialisation test sees a fresh process. Some children touch the
 * fixed "/tmp/fifos" of the contract, hence the resource lock in ctest. */
#include <sys/stat.h>

#include <algorithm>

#include "support.h"

using namespace kvos_test;

namespace {
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
                      isDir("/tmp/tshell") && KVOS_isInited() && kvos_task_reaper_queue() != nullptr &&
                      waitFor([] { return !linesWith(taskDump(), "DBus dispatcher").empty(); }) &&
                      !linesWith(taskDump(), "reaperT").empty();
            KVOS_setErrno(ENOENT, KVOS_ERR_ORIGIN_LINUX);
            fprintf(stderr, "ok=%d text=%s\n", ok, KVOS_lastError().c_str());
            _exit(0);
        },
        ::testing::ExitedWithCode(0), "ok=1 text=No such file or directory");
}

TEST_F(KvosInitDeathTest, TmpFifosIsChangedLiterallyAndOnlyWithTheGroup)
{
    // The owner and mode changes name "/tmp/fifos" itself, wherever the
    // FIFO directory is: kept exactly so.
    mkdir("/tmp/fifos", 0775);
    struct Case {
        const char* group;
        const char* expected;
    } cases[] = {{"root", "private=1 mode=775 gid=0 chown=1"},
                 {"kvos_no_such_group", "private=1 mode=700 gid=[0-9]+ chown=0"}};
    for (const Case& c : cases) {
        EXPECT_EXIT(
            {
                chmod("/tmp/fifos", 0700);
                std::string dir = installPrivatePathMap();
                kvos_set_fifo_group(c.group);
                LogCapture log;
                KVOS_init();
                struct stat st;
                stat("/tmp/fifos", &st);
                bool chowned = log.contains("DEBUG Detail=\"After chown() \" owner=\"" + std::to_string(getuid()) +
                                            "\" group=\"0\"");
                fprintf(stderr, "private=%d mode=%o gid=%u chown=%d\n", isDir(dir + "/fifos"), st.st_mode & 07777,
                        st.st_gid, chowned);
                chmod("/tmp/fifos", 0775);
                _exit(0);
            },
            ::testing::ExitedWithCode(0), c.expected)
            << c.group;
    }
}

TEST_F(KvosInitDeathTest, AFifoDirectoryThatCannotBeMadeIsFatal)
{
    // The error texts are registered later in KVOS_init: "Unclaimed error".
    struct Case {
        const char* sub;
        const char* expected;
    } cases[] = {{"fifos", "ERROR -  Detail=\"Failed to create path for queues\" "
                           "Path=\"/tmp/kvos_test\\.[A-Za-z0-9]+/fifos\" Last-error=\"Unclaimed error\""},
                 {"tshell", "Detail=\"Failed to create path for tshell queues\""}};
    for (const Case& c : cases) {
        EXPECT_DEATH(
            {
                std::string dir = installPrivatePathMap();
                symlink("/nonexistent/kvos", (dir + "/" + c.sub).c_str());  // dangling: cannot be made
                logToStderr();
                KVOS_init();
            },
            c.expected);
    }
}

TEST_F(KvosInitDeathTest, APathThatDoesNotFitIsLoggedAndInitGoesOn)
{
    EXPECT_EXIT(
        {
            std::string dir = installPrivatePathMap();
            while (dir.size() < 508) {  // "<dir>/fifos" no longer fits in 512
                dir += "/" + std::string(std::min<size_t>(200, 507 - dir.size()), 'd');
            }
            kvos_set_path_map(KVOS_addPathMap(nullptr, PATH_TYPE_TMP, dir.c_str()));
            logToStderr();
            KVOS_init();
            fprintf(stderr, "inited=%d\n", KVOS_isInited());
            _exit(0);
        },
        ::testing::ExitedWithCode(0),
        "Detail=\"Buffer too small to hold fifo path\" Buffer size=\"512\"(.|\n)*"
        "Detail=\"Buffer too small to hold tshell fifo path\" Buffer size=\"512\"(.|\n)*inited=1");
}

namespace {
void neverRuns(void*) {}
}  // namespace

TEST_F(KvosInitDeathTest, TasksNeedTheReaperAndInitNeedsItRunning)
{
    // Before KVOS_init there is no reaper to hand the task to.
    KVOS_TASK_ATTR* attr = KVOS_taskAttrCreate();
    EXPECT_DEATH(KVOS_taskCreate(neverRuns, nullptr, attr),
                 "\\*\\*\\*\\*\\* Internal Program Error - assertion \\(reaperRunning\\(\\)\\) failed in ");
    KVOS_taskAttrDestroy(attr);

    // A reaper that cannot be started stops the initialisation.
    EXPECT_DEATH(
        {
            installPrivatePathMap();
            logToStderr();
            kvos_syscalls().threadCreate = [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) {
                return EAGAIN;
            };
            KVOS_init();
        },
        "ERROR -  Detail=\"Thread creation failed\" Name=\"reaperT\" Reason=\"11\"");
}
