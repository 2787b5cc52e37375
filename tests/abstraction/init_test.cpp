/* Paths, directories, the tick clock, sleeps and the error record. */
#include "support.h"

using namespace kvos_test;

static_assert(KVOS_ERR_ORIGIN_UNKNOWN == KVOS_ERR_ORIGIN_LINUX, "kept equal on purpose");

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
        {"fifos", PATH_TYPE_TMP, 10, nullptr},
        {"kvlog.conf", PATH_TYPE_ETC, 512, "/new/etc/kvlog.conf"},
        {"x", PATH_TYPE_ZEL_CONFIG, 512, nullptr},  // type not in the map
        {"", PATH_TYPE_TMP, 512, "/tmp/"},
    };
    for (const Case& c : cases) {
        char buf[512];
        char* got = KVOS_getPath(buf, c.size, c.name, c.type);
        EXPECT_EQ(got, KV_getPath(buf, static_cast<int>(c.size), c.name, c.type));
        if (c.expected == nullptr) {
            EXPECT_EQ(nullptr, got) << c.name << " size " << c.size;
        } else {
            ASSERT_EQ(buf, got) << c.name << " size " << c.size;
            EXPECT_STREQ(c.expected, got);
        }
    }
    _kv_path_map* head = KVOS_addPathMap(nullptr, PATH_TYPE_FONTS, std::string(600, 'p').c_str());
    EXPECT_EQ(511u, strlen(head->pm_path));
    EXPECT_EQ(nullptr, head->pm_next);
    kvos_free_path_map(head);
}

TEST(KvosPathTest, CfgInitZeroesAndInitPathCreatesEveryEntryInOrder)
{
    EXPECT_TRUE(isDir(privateDir() + "/fifos"));  // made by KVOS_init
    EXPECT_TRUE(isDir(privateDir() + "/tshell"));
    _kvos_cfg cfg;
    memset(&cfg, 0x5a, sizeof(cfg));
    KVOS_cfgInit(&cfg);
    EXPECT_EQ(nullptr, cfg.tc_path_map);
    _kv_path_map* saved = kvos_get_path_map();
    KVOS_initPath(nullptr);
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
    std::string text = log.text();  // the head entry first
    EXPECT_LT(text.find("Path=\"" + base + "/tmp/deep\""), text.find("Path=\"" + base + "/user\""));
}

TEST(KvosMkdirpTest, CreatesEachPrefixInOrderOnceAndReportsFailure)
{
    std::string base = privateDir() + "/mk", path = base + "/a/b/c";
    {
        LogCapture log;
        ASSERT_EQ(0, mkdirp(path.c_str()));
        EXPECT_EQ((std::vector<std::string>{"DEBUG Detail=\"Creating directory\" Path=\"" + base + "\"",
                                             "DEBUG Detail=\"Creating directory\" Path=\"" + base + "/a\"",
                                             "DEBUG Detail=\"Creating directory\" Path=\"" + base + "/a/b\"",
                                             "DEBUG Detail=\"Creating directory\" Path=\"" + path + "\""}),
                  linesWith(log.text(), "Creating directory"));
    }
    EXPECT_TRUE(isDir(path));
    LogCapture log;
    EXPECT_EQ(0, mkdirp(path.c_str()));
    EXPECT_FALSE(log.contains("Creating directory"));

    std::string file = privateDir() + "/plainfile";
    fclose(fopen(file.c_str(), "w"));
    EXPECT_EQ(-1, mkdirp((file + "/sub").c_str()));
    EXPECT_EQ(ENOTDIR, errno);
    EXPECT_TRUE(log.contains("ERROR Detail=\"Unable to create directory\" Path=\"" + file +
                             "/sub\" Last-error=\"Not a directory\""))
        << log.text();
}

TEST(KvosClockTest, TicksDiffIsUnsignedAcrossTheWrap)
{
    struct Case {
        unsigned from, to, diff;
    } cases[] = {{0xFFFFFFF0u, 0x10u, 32u}, {5u, 5u, 0u}, {100u, 250u, 150u}, {10u, 5u, 0xFFFFFFFBu}};
    for (const Case& c : cases) {
        EXPECT_EQ(c.diff, KVOS_ticksDiff(c.from, c.to)) << c.from << " -> " << c.to;
    }
}

TEST(KvosClockTest, EachSleepWaitsAtLeastItsTimeAndTicksCountTenMilliseconds)
{
    TIMEVAL tv;
    uint64_t t0 = KVMISC_now64();
    EXPECT_EQ(&tv, KVMISC_now(&tv));
    EXPECT_LE(t0, static_cast<uint64_t>(tv.tv_sec) * 1000000u + tv.tv_usec);  // the same monotonic clock
    EXPECT_LT(tv.tv_usec, 1000000u);
    struct Case {
        int (*sleep)(unsigned);
        unsigned amount;
        uint64_t minUs;
    } cases[] = {{KVOS_msleep, 200, 200000},        {KVOS_usleep, 1200000, 1200000},  // seconds and remainder
                 {KVOS_usleep, 20000, 20000},       {KVOS_nanosleep, 15000000, 15000},
                 {KVOS_sleep, 1, 1000000},          {KVOS_sleep, 0, 0}};
    for (const Case& c : cases) {
        unsigned start = KVOS_ticksCurrent();
        t0 = KVMISC_now64();
        EXPECT_EQ(0, c.sleep(c.amount));
        uint64_t slept = KVMISC_now64() - t0;
        unsigned ticks = KVOS_ticksElapsed(start);
        EXPECT_GE(slept, c.minUs) << c.amount;
        EXPECT_GE(ticks + 1, slept / 10000) << c.amount;  // 200 ms: about 20 ticks
        EXPECT_LE(ticks, slept / 10000 + 1) << c.amount;
    }
}

TEST(KvosClockTest, AnInterruptedSleepIsNotResumed)
{
    uint64_t t0 = KVMISC_now64();
    Interrupter poke;
    EXPECT_EQ(EINTR, KVOS_sleep(5));
    EXPECT_LT(KVMISC_now64() - t0, 4000000u);
}

TEST(KvosErrorTest, LastErrorIsTheTextOfThisThreadsErrnoFromALinuxHandler)
{
    KVOS_registerErrnoHandler(KVOS_ERR_ORIGIN_SSL, [](int64_t) { return std::string("ssl"); });  // never asked
    KVOS_setErrno(2, KVOS_ERR_ORIGIN_SSL);  // the origin is not stored: always Linux
    EXPECT_EQ(2, KVOS_getErrno());
    EXPECT_EQ(KVOS_ERR_ORIGIN_LINUX, KVOS_getErrnoOrigin());
    EXPECT_EQ(std::string(strerror(2)), KVOS_lastError());
    EXPECT_EQ(2, errno);  // reading the text leaves the error alone
    std::atomic<long> other{0};
    std::thread([&other] {
        KVOS_setErrno(EPERM, KVOS_ERR_ORIGIN_LINUX);
        other = KVOS_getErrno();
    }).join();
    EXPECT_EQ(EPERM, other.load());
    EXPECT_EQ(2, KVOS_getErrno());
}

TEST(KvosErrorDeathTest, TheNewestHandlerOfTheOriginWins)
{
    EXPECT_EXIT(
        {
            KVOS_registerErrnoHandler(KVOS_ERR_ORIGIN_LINUX, [](int64_t err) { return "custom " + std::to_string(err); });
            KVOS_setErrno(7, KVOS_ERR_ORIGIN_LINUX);
            fprintf(stderr, "<%s>", KVOS_lastError().c_str());
            exit(0);
        },
        ::testing::ExitedWithCode(0), "<custom 7>");
}

TEST(KvosInitTest, ProcdataKeyIsALiveKey)
{
    auto key = static_cast<pthread_key_t>(KVOS_getProcdataKey());
    EXPECT_EQ(0, pthread_setspecific(key, &key));  // EINVAL for a key never created
    EXPECT_EQ(&key, pthread_getspecific(key));
    pthread_setspecific(key, nullptr);
}
