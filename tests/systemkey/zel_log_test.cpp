#include "fixture.h"
#include "memscan.h"
#include "systemkey/zel-log4os.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <openssl/crypto.h>
#include <regex>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>

namespace sktest {
namespace {

class ZelLogTest : public SystemKeyTest {
protected:
    // Writes the configuration with a modification time of its own, so that
    // every rewrite is seen as a change.
    void configure(const std::string& text)
    {
        ASSERT_TRUE(writeFile(logConf, text));
        static long stamp = 1000000000;
        struct timespec times[2] = {{0, UTIME_OMIT}, {++stamp, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, logConf.c_str(), times, 0), 0);
    }
    bool logged(const std::string& module, int priority)
    {
        log->clear();
        zel_syslog(module.c_str(), priority, "probe");
        return log->has("Detail=\"probe\"");
    }
};

std::string message(const char* module, int priority)
{
    char* m = zel_logmessage(module, priority, "Bad thing\" Id=\"%d\" Text=\"%s", 7, "abc");
    std::string s(m);
    std::free(m);
    return s;
}

// Level words by priority, and the sub-second part everywhere except at 6.
TEST(ZelLogMessage, HasTheDocumentedShape)
{
    const char* words[] = {"CRITICAL", "CRITICAL", "CRITICAL", "ERROR", "WARNING", "INFO", "INFO", "DEBUG", "DEBUG"};
    for (int p = 0; p <= 8; ++p) {
        const std::regex shape(std::string("Module=\"developer\\.zel_crypto\" Level=\"") + words[p] +
                               "\" UTCTime=\"\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2}" + (p == 6 ? "" : ",\\d{3}") +
                               "\" Detail=\"Bad thing\" Id=\"7\" Text=\"abc\"");
        const std::string m = message("developer.zel_crypto", p);
        EXPECT_TRUE(std::regex_match(m, shape)) << m;
    }
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
        struct timeval before, after;
        gettimeofday(&before, nullptr);
        if (before.tv_usec < 10000 || before.tv_usec >= 90000) {
            usleep(static_cast<useconds_t>(before.tv_usec >= 90000 ? 1010000 - before.tv_usec : 10000 - before.tv_usec));
            continue;
        }
        const std::string m = message("m", 3);
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

TEST_F(ZelLogTest, LongestDottedPrefixChoosesTheLevel)
{
    configure("# comment\n"
              "log4j.rootLogger=TRACE, file\n"
              "log4j.logger.developer=ERROR, syslog\n"
              "log4j.logger.developer.zel_crypto=DEBUG\n"
              "log4j.logger.developer.zel_crypto_server=WARN\n"
              "log4j.logger.other = FATAL\n"
              "log4j.logger.odd=LOUD\n" +
              std::string(3000, '#') + "\nlog4j.logger." + std::string(1500, 'n') + "=TRACE\n");
    struct Row {
        std::string module;
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
        {std::string(1500, 'n') + ".x", 7, true},  // lines longer than one read piece
    };
    for (const Row& r : rows) {
        EXPECT_EQ(logged(r.module, r.priority), r.shown) << r.module << " at " << r.priority;
    }
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

    // No file: the default maximum, 6.
    ASSERT_EQ(unlink(logConf.c_str()), 0);
    EXPECT_FALSE(logged("developer.x", 7));
    EXPECT_TRUE(logged("developer.x", 6));
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
    for (const std::string& d : details()) {
        EXPECT_TRUE(d == "from a thread" || d == "error from a thread") << d;
    }
    EXPECT_GT(log->count("error from a thread"), 0u);
}

// The message reaches the sink exactly as built, whatever "%" it carries.
TEST_F(ZelLogTest, PercentSignsInMessagesReachTheSinkUnchanged)
{
    zel_syslog("developer.zel_crypto_server", 3, "Id=\"%s\"", "%n%s%x%p");
    EXPECT_EQ(details(), std::vector<std::string>{"Id=\"%n%s%x%p\""});
}

// What a message carries (a key id, a refused input) is wiped from the
// bridge's buffers once the line has been handed on: after the call the
// process's memory holds it nowhere, freed buffers included.
TEST_F(ZelLogTest, FormattingBuffersAreWipedAfterUse)
{
    char secret[33] = {};
    ASSERT_EQ(getrandom(secret, 32, 0), 32);
    for (int i = 0; i < 32; ++i) {
        secret[i] = static_cast<char>('a' + static_cast<unsigned char>(secret[i]) % 26);
    }
    const Needle needle(secret, 32);
    static std::atomic<int> delivered;
    delivered = 0;
    log.reset(); // a capture would keep the line
    zel_setLogSink([](int, const char*) { ++delivered; });
    zel_syslog("developer.zel_crypto_server", 3, "Bad input\" Input=\"%s", secret);
    char* line = zel_logmessage("developer.zel_crypto_server", 3, "Bad input\" Input=\"%s", secret);
    const bool carried = line != nullptr && std::strstr(line, secret) != nullptr;
    OPENSSL_cleanse(line, std::strlen(line));
    std::free(line);
    OPENSSL_cleanse(secret, sizeof secret);
    const std::string leftover = findInProcessMemory({&needle});
    log = std::make_unique<LogCapture>();
    EXPECT_EQ(delivered.load(), 1);
    EXPECT_TRUE(carried);
    EXPECT_EQ(leftover, "");
}

} // namespace
} // namespace sktest
