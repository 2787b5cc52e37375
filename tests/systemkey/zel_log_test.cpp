#include "fixture.h"
#include "systemkey/zel-log4os.h"

#include <atomic>
#include <cstdlib>
#include <thread>
#include <vector>
#include <cstring>
#include <fcntl.h>
#include <regex>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace sktest {
namespace {

class ZelLogTest : public SystemKeyTest {
protected:
    // Writes the configuration and gives it a modification time of its own,
    // so that every rewrite is seen as a change.
    void configure(const std::string& text)
    {
        ASSERT_TRUE(writeFile(logConf, text));
        static long stamp = 1000000000;
        struct timespec times[2] = {{0, UTIME_OMIT}, {++stamp, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, logConf.c_str(), times, 0), 0);
    }
    bool logged(const char* module, int priority)
    {
        log->clear();
        zel_syslog(module, priority, "probe");
        return log->has("Detail=\"probe\"");
    }
};

std::string message(const char* module, int priority, const char* detail)
{
    char* m = zel_logmessage(module, priority, "%s", detail);
    std::string s(m);
    std::free(m);
    return s;
}

TEST(ZelLogMessage, HasTheDocumentedShape)
{
    const std::string m = message("developer.zel_crypto", 3, "Bad thing\" Id=\"7");
    const std::regex shape("Module=\"developer\\.zel_crypto\" Level=\"ERROR\" "
                           "UTCTime=\"\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2},\\d{3}\" "
                           "Detail=\"Bad thing\" Id=\"7\"");
    EXPECT_TRUE(std::regex_match(m, shape)) << m;
}

TEST(ZelLogMessage, LevelWordsByPriority)
{
    const char* words[] = {"CRITICAL", "CRITICAL", "CRITICAL", "ERROR", "WARNING", "INFO", "INFO", "DEBUG", "DEBUG"};
    for (int p = 0; p <= 8; ++p) {
        EXPECT_NE(message("m", p, "x").find(std::string("Level=\"") + words[p] + "\""), std::string::npos) << p;
    }
}

// At priority 6 the time has no sub-second part; elsewhere it has a comma
// and exactly three digits (the leading digits of the microseconds).
TEST(ZelLogMessage, SubSecondPartExceptAtInfoSix)
{
    const std::regex withSub("UTCTime=\"[0-9: -]{19},\\d{3}\"");
    const std::regex without("UTCTime=\"[0-9: -]{19}\"");
    for (int p : {0, 3, 4, 5, 7}) {
        EXPECT_TRUE(std::regex_search(message("m", p, "x"), withSub)) << p;
    }
    EXPECT_TRUE(std::regex_search(message("m", 6, "x"), without));
}

std::string subSecond(long usec)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, ",%03lu", static_cast<unsigned long>(usec));
    return std::string(buf).substr(0, 4);
}

// The digits are the leading digits of the microseconds: 45678 us prints
// ",456", where milliseconds would give ",045". Waits (at most a second) for
// a time in the first 90 ms of a second, where the two differ.
TEST(ZelLogMessage, SubSecondDigitsAreLeadingMicrosecondDigits)
{
    for (int attempt = 0; attempt < 20; ++attempt) {
        struct timeval before;
        gettimeofday(&before, nullptr);
        if (before.tv_usec < 10000 || before.tv_usec >= 90000) {
            usleep(static_cast<useconds_t>(before.tv_usec >= 90000 ? 1010000 - before.tv_usec : 10000 - before.tv_usec));
            continue;
        }
        const std::string m = message("m", 3, "x");
        struct timeval after;
        gettimeofday(&after, nullptr);
        if (after.tv_sec != before.tv_sec || subSecond(before.tv_usec) != subSecond(after.tv_usec)) {
            continue;
        }
        const std::string expect = subSecond(before.tv_usec);
        EXPECT_NE(expect, subSecond(before.tv_usec / 1000)) << "not a distinguishing time";
        EXPECT_NE(m.find(expect + "\" Detail="), std::string::npos) << m << " expected " << expect;
        return;
    }
    FAIL() << "no stable time found";
}

TEST(ZelLogMessage, FormatsTheCallersArguments)
{
    char* m = zel_logmessage("m", 3, "Value=\"%d\" Text=\"%s\"", 42, "abc");
    EXPECT_NE(std::strstr(m, "Detail=\"Value=\"42\" Text=\"abc\"\""), nullptr) << m;
    std::free(m);
}

TEST_F(ZelLogTest, LongestDottedPrefixChoosesTheLevel)
{
    configure("# comment\n"
              "log4j.rootLogger=TRACE, file\n"
              "log4j.logger.developer=ERROR, syslog\n"
              "log4j.logger.developer.zel_crypto=DEBUG\n"
              "log4j.logger.developer.zel_crypto_server=WARN\n"
              "log4j.logger.other = FATAL\n"
              "log4j.logger.odd=LOUD\n");
    struct Row {
        const char* module;
        int priority;
        bool shown;
    } rows[] = {
        {"developer.zel_crypto_server", 7, false}, // WARN
        {"developer.zel_crypto_server", 4, true},
        {"developer.zel_crypto", 7, true},         // DEBUG
        {"developer.zel_crypto.sub", 7, true},     // inherits DEBUG at a "."
        {"developer.zel_cryptoZ", 7, false},       // no "." after the name: developer
        {"developer.zel_cryptoZ", 3, true},
        {"developer", 4, false},
        {"developerX", 7, false},                  // no entry: default 6
        {"developerX", 6, true},
        {"other", 3, false},                       // FATAL is 2
        {"other", 2, true},
        {"odd", 6, true},                          // unknown word: default 6
        {"odd", 7, false},
        {"unknown", 6, true},
        {"unknown", 7, false},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(logged(r.module, r.priority), r.shown) << r.module << " at " << r.priority;
    }
}

TEST_F(ZelLogTest, ErrorLevelDropsCacheTracesButKeepsErrors)
{
    configure("log4j.logger.developer=ERROR\n");
    EXPECT_FALSE(logged("developer.zel_crypto_server", 7));
    EXPECT_TRUE(logged("developer.zel_crypto_server", 3));
    ASSERT_EQ(log->lines().size(), 1u);
    EXPECT_EQ(log->lines()[0].first, 3);
}

TEST_F(ZelLogTest, ReloadsWhenTheModificationTimeChanges)
{
    configure("log4j.logger.developer=ERROR\n");
    EXPECT_FALSE(logged("developer.x", 7));
    configure("log4j.logger.developer=TRACE\n");
    EXPECT_TRUE(logged("developer.x", 7));

    // Same modification time: the old table stays.
    struct stat st;
    ASSERT_EQ(stat(logConf.c_str(), &st), 0);
    ASSERT_TRUE(writeFile(logConf, "log4j.logger.developer=ERROR\n"));
    struct timespec times[2] = {{0, UTIME_OMIT}, st.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, logConf.c_str(), times, 0), 0);
    EXPECT_TRUE(logged("developer.x", 7));
}

// Loggers on several threads while the configuration keeps changing: every
// message is either dropped or delivered whole, and nothing races.
TEST_F(ZelLogTest, ReloadWhileOtherThreadsLog)
{
    configure("log4j.logger.developer=TRACE\n");
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&stop] {
            while (!stop.load()) {
                zel_syslog("developer.x", 7, "from a thread");
                zel_syslog("developer.x", 3, "error from a thread");
            }
        });
    }
    for (int i = 0; i < 50; ++i) {
        configure(i % 2 == 0 ? "log4j.logger.developer=ERROR\n" : "log4j.logger.developer=TRACE\n");
    }
    stop = true;
    for (auto& th : threads) {
        th.join();
    }
    for (const auto& l : log->lines()) {
        const std::string d = detailOf(l.second);
        EXPECT_TRUE(d == "from a thread" || d == "error from a thread") << l.second;
    }
    EXPECT_GT(log->count("error from a thread"), 0u);
}

TEST_F(ZelLogTest, MissingFileGivesTheDefaultInfoLevel)
{
    configure("log4j.logger.developer=TRACE\n");
    EXPECT_TRUE(logged("developer.x", 7));
    ASSERT_EQ(unlink(logConf.c_str()), 0);
    EXPECT_FALSE(logged("developer.x", 7));
    EXPECT_TRUE(logged("developer.x", 6));
}

TEST_F(ZelLogTest, LinesLongerThanOneReadPieceAreParsed)
{
    configure(std::string(3000, '#') + "\nlog4j.logger." + std::string(1500, 'n') + "=TRACE\n");
    EXPECT_TRUE(logged((std::string(1500, 'n') + ".x").c_str(), 7));
}

// The message reaches the sink exactly as built, whatever "%" it carries.
TEST_F(ZelLogTest, PercentSignsInMessagesReachTheSinkUnchanged)
{
    log->clear();
    zel_syslog("developer.zel_crypto_server", 3, "Id=\"%s\"", "%n%s%x%p");
    ASSERT_EQ(log->lines().size(), 1u);
    EXPECT_EQ(detailOf(log->lines()[0].second), "Id=\"%n%s%x%p\"");
}

} // namespace
} // namespace sktest
