/* Paths, directories, the tick clock, sleeps and the error record. */
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "abstraction/kvmisc.h"
#include "abstraction/kvos.h"
#include "support.h"

using namespace kvos_test;

namespace {

/* Swaps in a map for one test and puts the process's map back. */
class PathMapScope {
public:
    explicit PathMapScope(_kv_path_map* map) : saved_(kvos_get_path_map()), map_(map) { kvos_set_path_map(map); }
    ~PathMapScope()
    {
        kvos_set_path_map(saved_);
        kvos_free_path_map(map_);
    }

private:
    _kv_path_map* saved_;
    _kv_path_map* map_;
};

bool isDir(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

TEST(KvosPathTest, GetPathJoinsTheFirstEntryOfTheType)
{
    _kv_path_map* map = KVOS_addPathMap(nullptr, PATH_TYPE_TMP, "/tmp");
    map = KVOS_addPathMap(map, PATH_TYPE_ETC, "/old/etc");
    map = KVOS_addPathMap(map, PATH_TYPE_ETC, "/new/etc");  // nearer the head: wins
    PathMapScope scope(map);

    struct Case {
        const char* name;
        KV_PATH_TYPE type;
        size_t size;
        const char* expected;  // null: no path
    } cases[] = {
        {"fifos", PATH_TYPE_TMP, 512, "/tmp/fifos"},
        {"fifos", PATH_TYPE_TMP, 11, "/tmp/fifos"},  // exactly fits with its NUL
        {"fifos", PATH_TYPE_TMP, 10, nullptr},       // one byte short
        {"kvlog.conf", PATH_TYPE_ETC, 512, "/new/etc/kvlog.conf"},
        {"x", PATH_TYPE_ZEL_CONFIG, 512, nullptr},  // type not in the map
        {"", PATH_TYPE_TMP, 512, "/tmp/"},
    };
    for (const Case& c : cases) {
        char buf[512];
        memset(buf, 'z', sizeof(buf));
        char* got = KVOS_getPath(buf, c.size, c.name, c.type);
        char* got2 = KV_getPath(buf, static_cast<int>(c.size), c.name, c.type);
        if (c.expected == nullptr) {
            EXPECT_EQ(nullptr, got) << c.name << " size " << c.size;
            EXPECT_EQ(nullptr, got2);
        } else {
            ASSERT_EQ(buf, got) << c.name << " size " << c.size;
            EXPECT_STREQ(c.expected, got);
            EXPECT_EQ(buf, got2);
        }
    }
}

TEST(KvosPathTest, NoMapGivesNoPath)
{
    PathMapScope scope(nullptr);
    char buf[512];
    EXPECT_EQ(nullptr, KVOS_getPath(buf, sizeof(buf), "fifos", PATH_TYPE_TMP));
}

TEST(KvosPathTest, AddPathMapCutsTo511AndLinksAtTheHead)
{
    std::string longPath(600, 'p');
    _kv_path_map* first = KVOS_addPathMap(nullptr, PATH_TYPE_USER, "/u");
    _kv_path_map* head = KVOS_addPathMap(first, PATH_TYPE_FONTS, longPath.c_str());
    EXPECT_EQ(first, head->pm_next);
    EXPECT_EQ(nullptr, first->pm_next);
    EXPECT_EQ(PATH_TYPE_FONTS, head->pm_type);
    EXPECT_EQ(511u, strlen(head->pm_path));
    kvos_free_path_map(head);
}

TEST(KvosPathTest, PathTypeValuesAreFixed)
{
    EXPECT_EQ(0, PATH_TYPE_TMP);
    EXPECT_EQ(15, PATH_TYPE_ROOT);
    EXPECT_EQ(22, PATH_TYPE_ETC);
    EXPECT_EQ(26, PATH_TYPE_ZEL_CONFIG);
}

TEST(KvosPathTest, DefaultMapIsTheProductLayout)
{
    PathMapScope scope(nullptr);
    kvos_set_path_map(kvos_default_path_map());
    struct Case {
        KV_PATH_TYPE type;
        const char* dir;
    } cases[] = {
        {PATH_TYPE_TMP, "/tmp"},
        {PATH_TYPE_PERM, "/korvenda/persistent"},
        {PATH_TYPE_ROOT, "/korvenda"},
        {PATH_TYPE_ETC, "/korvenda/etc"},
        {PATH_TYPE_ZEL_CONFIG, "/korvenda/etc"},
        {PATH_TYPE_CRASH_TMP, "/tmp/crash"},
    };
    char buf[512];
    for (const Case& c : cases) {
        ASSERT_NE(nullptr, KVOS_getPath(buf, sizeof(buf), "f", c.type)) << c.type;
        EXPECT_EQ(std::string(c.dir) + "/f", buf);
    }
    EXPECT_STREQ("/tmp/fifos", KVOS_getPath(buf, sizeof(buf), "fifos", PATH_TYPE_TMP));
    EXPECT_STREQ("/korvenda/etc/kvlog.conf", KVOS_getPath(buf, sizeof(buf), "kvlog.conf", PATH_TYPE_ZEL_CONFIG));
    // Every type has exactly one entry, and every directory but the
    // temporary ones lies under /korvenda.
    int count = 0;
    for (_kv_path_map* e = kvos_default_path_map(); e; e = e->pm_next, ++count) {
        std::string dir = e->pm_path;
        EXPECT_TRUE(dir.rfind("/korvenda", 0) == 0 || dir.rfind("/tmp", 0) == 0) << dir;
    }
    EXPECT_EQ(PATH_TYPE_ZEL_CONFIG + 1, count);
    kvos_set_path_map(nullptr);
}

TEST(KvosPathTest, CfgInitZeroesAndInitPathCreatesEveryEntry)
{
    _kvos_cfg cfg;
    memset(&cfg, 0x5a, sizeof(cfg));
    KVOS_cfgInit(&cfg);
    EXPECT_EQ(nullptr, cfg.tc_path_map);
    EXPECT_EQ(nullptr, cfg.kvos_task_name);
    EXPECT_EQ(0u, cfg.kvos_task_stacksize);
    EXPECT_EQ(0u, cfg.kvos_task_priority);

    _kv_path_map* saved = kvos_get_path_map();
    KVOS_initPath(nullptr);  // nothing at all
    EXPECT_EQ(saved, kvos_get_path_map());

    std::string base = privateDir() + "/initpath";
    cfg.tc_path_map = KVOS_addPathMap(nullptr, PATH_TYPE_USER, (base + "/user").c_str());
    cfg.tc_path_map = KVOS_addPathMap(cfg.tc_path_map, PATH_TYPE_TMP, (base + "/tmp/deep").c_str());
    PathMapScope scope(cfg.tc_path_map);
    LogCapture log;
    KVOS_initPath(&cfg);
    EXPECT_EQ(cfg.tc_path_map, kvos_get_path_map());
    EXPECT_TRUE(isDir(base + "/tmp/deep"));
    EXPECT_TRUE(isDir(base + "/user"));
    // List order: the head entry's directories are created first.
    std::string text = log.text();
    EXPECT_LT(text.find("Path=\"" + base + "/tmp/deep\""), text.find("Path=\"" + base + "/user\""));
}

TEST(KvosMkdirpTest, CreatesEachPrefixInOrderAndIsIdempotent)
{
    std::string base = privateDir() + "/mk";
    std::string path = base + "/a/b/c";
    {
        LogCapture log;
        ASSERT_EQ(0, mkdirp(path.c_str()));
        auto lines = linesWith(log.text(), "Creating directory");
        ASSERT_EQ(4u, lines.size());
        EXPECT_EQ("DEBUG Detail=\"Creating directory\" Path=\"" + base + "\"", lines[0]);
        EXPECT_NE(std::string::npos, lines[1].find("Path=\"" + base + "/a\""));
        EXPECT_NE(std::string::npos, lines[2].find("Path=\"" + base + "/a/b\""));
        EXPECT_NE(std::string::npos, lines[3].find("Path=\"" + path + "\""));
    }
    EXPECT_TRUE(isDir(path));
    LogCapture again;
    EXPECT_EQ(0, mkdirp(path.c_str()));
    EXPECT_FALSE(again.contains("Creating directory"));
}

TEST(KvosMkdirpTest, FailureIsReportedWithTheReason)
{
    std::string file = privateDir() + "/plainfile";
    FILE* f = fopen(file.c_str(), "w");
    ASSERT_NE(nullptr, f);
    fclose(f);
    LogCapture log;
    EXPECT_EQ(-1, mkdirp((file + "/sub").c_str()));
    EXPECT_EQ(ENOTDIR, errno);
    EXPECT_TRUE(log.contains("ERROR Detail=\"Unable to create directory\" Path=\"" + file +
                             "/sub\" Last-error=\"Not a directory\""))
        << log.text();
}

TEST(KvosInitTest, InitCreatedTheFifoDirectoriesUnderTheTmpPath)
{
    EXPECT_TRUE(isDir(privateDir() + "/fifos"));
    EXPECT_TRUE(isDir(privateDir() + "/tshell"));
    EXPECT_TRUE(KVOS_isInited());
}

TEST(KvosClockTest, TicksDiffIsUnsignedAcrossTheWrap)
{
    struct Case {
        unsigned from, to, diff;
    } cases[] = {
        {0xFFFFFFF0u, 0x10u, 32u},
        {5u, 5u, 0u},
        {100u, 250u, 150u},
        {10u, 5u, 0xFFFFFFFBu},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.diff, KVOS_ticksDiff(c.from, c.to)) << c.from << " -> " << c.to;
    }
}

TEST(KvosClockTest, TwoHundredMillisecondsAreAboutTwentyTicks)
{
    unsigned start = KVOS_ticksCurrent();
    uint64_t t0 = KVMISC_now64();
    EXPECT_EQ(0, KVOS_msleep(200));
    uint64_t slept = KVMISC_now64() - t0;
    unsigned ticks = KVOS_ticksElapsed(start);
    EXPECT_GE(slept, 200000u);
    EXPECT_GE(ticks, 19u);
    EXPECT_LE(ticks, slept / 10000 + 1);
    EXPECT_EQ(ticks, KVOS_ticksDiff(start, start + ticks));
}

TEST(KvosClockTest, NowAndNow64AgreeOnTheMonotonicClock)
{
    TIMEVAL tv;
    uint64_t before = KVMISC_now64();
    EXPECT_EQ(&tv, KVMISC_now(&tv));
    uint64_t after = KVMISC_now64();
    uint64_t mid = static_cast<uint64_t>(tv.tv_sec) * 1000000u + tv.tv_usec;
    EXPECT_LE(before, mid);
    EXPECT_LE(mid, after);
    EXPECT_LT(tv.tv_usec, 1000000u);
}

TEST(KvosClockTest, EachSleepWaitsAtLeastItsTime)
{
    struct Case {
        int (*sleep)(unsigned);
        unsigned amount;
        uint64_t minUs;
    } cases[] = {
        {KVOS_msleep, 30, 30000},
        {KVOS_usleep, 1200000, 1200000},  // more than a second: seconds and remainder
        {KVOS_usleep, 20000, 20000},
        {KVOS_nanosleep, 15000000, 15000},
        {KVOS_sleep, 1, 1000000},
        {KVOS_sleep, 0, 0},
    };
    for (const Case& c : cases) {
        uint64_t t0 = KVMISC_now64();
        EXPECT_EQ(0, c.sleep(c.amount));
        EXPECT_GE(KVMISC_now64() - t0, c.minUs) << c.amount;
    }
}

namespace {
void noteSignal(int) {}
}  // namespace

TEST(KvosClockTest, AnInterruptedSleepIsNotResumed)
{
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = noteSignal;  // no SA_RESTART
    struct sigaction old;
    sigaction(SIGUSR2, &sa, &old);
    pthread_t self = pthread_self();
    std::thread poker([self] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        pthread_kill(self, SIGUSR2);
    });
    uint64_t t0 = KVMISC_now64();
    int rc = KVOS_sleep(5);
    uint64_t slept = KVMISC_now64() - t0;
    poker.join();
    sigaction(SIGUSR2, &old, nullptr);
    EXPECT_EQ(EINTR, rc);
    EXPECT_LT(slept, 4000000u);
}

TEST(KvosErrorTest, LastErrorIsTheSystemTextOfThisThreadsErrno)
{
    KVOS_setErrno(2, KVOS_ERR_ORIGIN_SSL);  // the origin is not stored
    EXPECT_EQ(2, KVOS_getErrno());
    EXPECT_EQ(KVOS_ERR_ORIGIN_LINUX, KVOS_getErrnoOrigin());
    EXPECT_EQ(std::string(strerror(2)), KVOS_lastError());
    EXPECT_EQ(2, errno);  // reading the text leaves the error alone

    std::atomic<long> other{0};
    std::thread t([&other] {
        KVOS_setErrno(EPERM, KVOS_ERR_ORIGIN_LINUX);
        other = KVOS_getErrno();
    });
    t.join();
    EXPECT_EQ(EPERM, other.load());
    EXPECT_EQ(2, KVOS_getErrno());
    EXPECT_EQ(std::string(strerror(EPERM)), kvos_linux_strerror(EPERM));
}

TEST(KvosErrorTest, OriginValuesAndUnknownEqualsLinux)
{
    EXPECT_EQ(0, KVOS_ERR_ORIGIN_LINUX);
    EXPECT_EQ(KVOS_ERR_ORIGIN_LINUX, KVOS_ERR_ORIGIN_UNKNOWN);  // kept so on purpose
    EXPECT_EQ(5, KVOS_ERR_ORIGIN_SSL);
    EXPECT_EQ(9, KVOS_ERR_ORIGIN_ECOS);
}

namespace {
std::string sslText(int64_t err)
{
    return "ssl error " + std::to_string(err);
}
std::string customText(int64_t err)
{
    return "custom " + std::to_string(err);
}
}  // namespace

TEST(KvosErrorTest, HandlersOfOtherOriginsAreNotAsked)
{
    KVOS_registerErrnoHandler(KVOS_ERR_ORIGIN_SSL, sslText);
    KVOS_setErrno(EACCES, KVOS_ERR_ORIGIN_SSL);
    EXPECT_EQ(std::string(strerror(EACCES)), KVOS_lastError());
}

TEST(KvosErrorDeathTest, TheNewestHandlerOfTheOriginWins)
{
    EXPECT_EXIT(
        {
            KVOS_registerErrnoHandler(KVOS_ERR_ORIGIN_LINUX, customText);
            KVOS_setErrno(7, KVOS_ERR_ORIGIN_LINUX);
            fprintf(stderr, "<%s>", KVOS_lastError().c_str());
            exit(0);
        },
        ::testing::ExitedWithCode(0), "<custom 7>");
}

TEST(KvosInitTest, ProcdataKeyIsPerThread)
{
    auto key = static_cast<pthread_key_t>(KVOS_getProcdataKey());
    int mine = 1;
    ASSERT_EQ(0, pthread_setspecific(key, &mine));
    void* seen = &mine;
    std::thread t([&seen, key] { seen = pthread_getspecific(key); });
    t.join();
    EXPECT_EQ(nullptr, seen);
    EXPECT_EQ(&mine, pthread_getspecific(key));
    pthread_setspecific(key, nullptr);
}
