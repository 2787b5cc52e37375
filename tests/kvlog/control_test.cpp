// The log controller against real log4cxx, a real rolling file appender and
// real inotify on a private directory tree (the path map points every
// directory the controller uses into it; nothing is written under /korvenda).
#include "kvlog/debug_appender.h"
#include "kvlog/kvlog.h"
#include "kvlog/kvlog_control.h"
#include "registration.h"
#include "scratch_root.h"

#include "abstraction/kvos.h"

#include <gtest/gtest.h>
#include <log4cxx/logmanager.h>
#include <log4cxx/rolling/rollingfileappender.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
constexpr bool kSanitized = KV_SANITIZED; // set by the build
constexpr auto kStopLimit = kSanitized ? 600ms : 300ms;

std::string readFile(const std::string& path)
{
    std::stringstream s;
    s << std::ifstream(path).rdbuf();
    return s.str();
}

// One open-write-close: exactly one IN_CLOSE_WRITE.
void writeFile(const std::string& path, const std::string& content)
{
    std::ofstream(path, std::ios::trunc) << content;
}

// Written beside the target, then renamed over it: one IN_MOVED_TO.
void replaceFile(const std::string& path, const std::string& content)
{
    writeFile(path + ".new", content);
    ASSERT_EQ(std::rename((path + ".new").c_str(), path.c_str()), 0);
}

size_t count(const std::string& text, const std::string& needle)
{
    size_t n = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + needle.size())) {
        ++n;
    }
    return n;
}

template <typename Done>
bool waitFor(Done done, std::chrono::milliseconds limit = 3000ms)
{
    for (const auto end = Clock::now() + limit; !done();) {
        if (Clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

// Threads of this process whose kernel name starts with `prefix`.
int threadsNamed(const std::string& prefix)
{
    int n = 0;
    DIR* dir = ::opendir("/proc/self/task");
    while (struct dirent* e = dir ? ::readdir(dir) : nullptr) {
        if (e->d_name[0] != '.' && readFile(std::string("/proc/self/task/") + e->d_name + "/comm").rfind(prefix, 0) == 0) {
            ++n;
        }
    }
    if (dir) {
        ::closedir(dir);
    }
    return n;
}

const char* const kMonitorThread = "KVLogConfigFile"; // the kernel keeps 15 characters
const char* const kReconfiguring = "Reconfiguring kvlog subsystem due to configuration file update";

// A private tree: tmp/ (FIFOs), config/ (kvlog.conf), user/ and perm/ (old
// locations), registration/ (logger names), logs beside them.
class ControlTest : public testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/kvlog-control-XXXXXX";
        ASSERT_NE(::mkdtemp(tmpl), nullptr);
        root = tmpl;
        for (const char* d : {"/tmp", "/config", "/user", "/perm", "/registration"}) {
            ASSERT_EQ(::mkdir((root + d).c_str(), 0700), 0);
        }
        configDir = root + "/config";
        configPath = configDir + "/kvlog.conf";
        kvlog::detail::setRegistrationPath(root + "/registration/");
        _kv_path_map* map = KVOS_addPathMap(nullptr, PATH_TYPE_TMP, (root + "/tmp").c_str());
        map = KVOS_addPathMap(map, PATH_TYPE_ZEL_CONFIG, configDir.c_str());
        map = KVOS_addPathMap(map, PATH_TYPE_USER, (root + "/user").c_str());
        kvos_set_path_map(KVOS_addPathMap(map, PATH_TYPE_PERM, (root + "/perm").c_str()));
    }
    void TearDown() override
    {
        if (kvlog::kvlogController) {
            shutdownKVLog();
        }
        log4cxx::LogManager::resetConfiguration(); // as a fresh process finds it
        kvlog::detail::setRegistrationPath(kvlog::LOGGER_REGISTRATION_PATH);
        _kv_path_map* map = kvos_get_path_map();
        kvos_set_path_map(nullptr);
        kvos_free_path_map(map);
        ASSERT_EQ(std::system(("rm -rf " + root).c_str()), 0);
    }
    // Controller and monitor; the OS abstraction (task reaper) is started
    // once per process, after the first controller, so its records find appenders.
    void startMonitor(const char* logFile)
    {
        initKVLog("kvlogtest", logFile);
        static bool kvosStarted = false;
        if (!kvosStarted) {
            KVOS_init();
            kvosStarted = true;
        }
        initKVLogConfigMonitor();
        ASSERT_TRUE(waitFor([] { return threadsNamed(kMonitorThread) == 1; }));
    }
    std::string appLog() const { return root + "/app.log"; }
    // Monitor records to monitor.log; "unittest.kvlogctl.marker" at level `marker`.
    std::string config(const std::string& marker) const
    {
        return "log4j.logger.developer.kvlog.monitor=TRACE, mon\n"
               "log4j.additivity.developer.kvlog.monitor=false\n"
               "log4j.appender.mon=org.apache.log4j.FileAppender\n"
               "log4j.appender.mon.File=" + root + "/monitor.log\n"
               "log4j.appender.mon.Append=true\n"
               "log4j.appender.mon.layout=org.apache.log4j.PatternLayout\n"
               "log4j.appender.mon.layout.ConversionPattern=%m%n\n"
               "log4j.logger.unittest.kvlogctl.marker=" + marker + "\n";
    }
    // The record is written before log4cxx is reconfigured; the listing takes
    // "kvlog mutex" and so waits for a change in progress. Counting first and
    // then listing returns only counts whose reconfigurations are complete.
    size_t reconfigurations() const
    {
        const size_t n = count(readFile(root + "/monitor.log"), kReconfiguring);
        if (kvlog::kvlogController) {
            kvlog::kvlogController->getRegisteredLoggerInfo();
        }
        return n;
    }
    // Read through the listing, which never overlaps a reconfiguration.
    static kvlog::eKVLogLevel marker()
    {
        for (const kvlog::LoggerInfo& info : kvlog::kvlogController->getRegisteredLoggerInfo()) {
            if (info.getModule() == "unittest.kvlogctl.marker") {
                return info.getLevel();
            }
        }
        return kvlog::KVLOG_NUM_LEVELS;
    }
    std::string root, configDir, configPath;
};

// The root and "unittest" get no appender, yet log4cxx's "No appender" warning
// must never reach stderr, not after a new configuration either.
TEST_F(ControlTest, BuiltInPropertiesRouteByHierarchyAndLevel)
{
    testing::internal::CaptureStderr();
    startMonitor(appLog().c_str());
    const kvlog::LoggerPtr dev = kvlog::getDeveloperLogger("kvlogctl.file");
    const kvlog::LoggerPtr net = kvlog::getNetworkLogger("kvlogctl.file");
    const kvlog::LoggerPtr cfg = kvlog::getConfigLogger("kvlogctl.file");
    KVLOG_INFO(dev, "dev-info");
    KVLOG_DEBUG(dev, "dev-debug");
    KVLOG_WARN(net, "net-warn");
    KVLOG_INFO(net, "net-info");
    KVLOG_INFO(cfg, "cfg-info");
    KVLOG_DEBUG(cfg, "cfg-debug");
    KVLOG_INFO(kvlog::getAdminLogger("kvlogctl.file"), "adm-info");
    KVLOG_ERROR(kvlog::getUnitTestLogger("kvlogctl.file"), "ut-error");
    KVLOG_ERROR(log4cxx::Logger::getRootLogger(), "root-error");
    shutdownKVLog();
    initKVLog("kvlogtest", (root + "/again.log").c_str());
    KVLOG_ERROR(kvlog::getUnitTestLogger("kvlogctl.file"), "still nowhere");
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err.find("No appender"), std::string::npos) << err;

    const std::string text = readFile(appLog());
    for (const char* present : {"dev-info", "net-warn", "cfg-info", "adm-info"}) {
        EXPECT_EQ(count(text, present), 1u) << present;
    }
    for (const char* absent : {"dev-debug", "net-info", "cfg-debug", "ut-error", "root-error"}) {
        EXPECT_EQ(count(text, absent), 0u) << absent;
    }
    const std::regex line("UTCTime=\"\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2},\\d{3}\" "
                          "Module=\"developer\\.kvlogctl\\.file\" Level=\"INFO\" "
                          "CodeLocation=\"[^\"]*control_test\\.cpp\\(\\d+\\)\" Method=\"[^\"]*::[^\"]*\" "
                          "Thread=\"0x[0-9a-f]+\": dev-info\n");
    EXPECT_TRUE(std::regex_search(text, line)) << text;
    auto appender = std::dynamic_pointer_cast<log4cxx::rolling::RollingFileAppender>(
        log4cxx::Logger::getLogger("developer")->getAppender("developerFileAppender"));
    ASSERT_TRUE(appender);
    EXPECT_EQ(appender->getFile(), root + "/again.log");
    EXPECT_EQ(appender->getMaxBackupIndex(), 1);
    EXPECT_EQ(appender->getMaximumFileSize(), 500000u * 1024u);
}

// Old copies of kvlog.conf are removed; a missing file is reported and
// leaves log4cxx unconfigured.
TEST_F(ControlTest, DeprecatedConfigFilesAndAMissingOne)
{
    for (const char* f : {"/user/kvlog.conf", "/perm/kvlog.conf", "/user/other.conf"}) {
        writeFile(root + f, "x");
    }
    const kvlog::LoggerPtr control = kvlog::getDeveloperLogger("kvlog.control");
    auto capture = std::make_shared<kvlog::DebugAppender>();
    control->addAppender(capture);
    testing::internal::CaptureStderr(); // log4cxx's own complaint about the file
    initKVLog("kvlogtest", nullptr);
    testing::internal::GetCapturedStderr();
    control->removeAppender(capture);
    EXPECT_EQ(capture->getLogs(), "ERROR - fopen failed when opening file: \"" + configPath +
                                      "\" with err number: 2, error description: \"No such file or directory\"\n");
    EXPECT_NE(::access((root + "/user/kvlog.conf").c_str(), F_OK), 0);
    EXPECT_NE(::access((root + "/perm/kvlog.conf").c_str(), F_OK), 0);
    EXPECT_EQ(::access((root + "/user/other.conf").c_str(), F_OK), 0);
    EXPECT_EQ(kvlog::kvlogController->getKVLogConfigFilenameAndPath(), configPath);
}

TEST_F(ControlTest, ConfiguresFromTheFileThroughThePathMap)
{
    writeFile(configPath, config("ERROR") + "log4j.logger.developer.kvlogctl.fromfile=TRACE\n");
    initKVLog("kvlogtest", nullptr);
    kvlog::kvlog_control* ctl = kvlog::kvlogController;
    EXPECT_EQ(marker(), kvlog::KVLOG_LEVEL_ERROR);
    EXPECT_EQ(ctl->getKVLogLevel("developer.kvlogctl.fromfile"), kvlog::KVLOG_LEVEL_TRACE);
    // Default levels are those when configuring finished.
    ctl->setKVLogLevel("unittest.kvlogctl.marker", kvlog::KVLOG_LEVEL_DEBUG);
    EXPECT_EQ(ctl->getDefaultLogLevel("unittest.kvlogctl.marker"), log4cxx::Level::getError());
    kvlog::getUnitTestLogger("kvlogctl.createdlater");
    EXPECT_FALSE(ctl->getDefaultLogLevel("unittest.kvlogctl.createdlater"));
}

// What the self-test unit leaves out: levels deeper down cleared too, FATAL
// set as DEBUG, grandchildren, names that are no loggers, the listing's
// parents and the dump's layout.
TEST_F(ControlTest, LevelsChildrenListingAndDump)
{
    initKVLog("kvlogtest", appLog().c_str());
    kvlog::kvlog_control* ctl = kvlog::kvlogController;
    const std::string m = "unittest.kvlog_control.module";
    const kvlog::LoggerPtr sub = kvlog::getLogger(m + ".submodule");
    const kvlog::LoggerPtr child = kvlog::getLogger(m + ".submodule.child");
    kvlog::getLogger(m + "2");
    sub->setLevel(log4cxx::Level::getError());
    child->setLevel(log4cxx::Level::getWarn());
    ctl->setKVLogLevel(m, kvlog::KVLOG_LEVEL_TRACE);
    EXPECT_FALSE(sub->getLevel());
    EXPECT_FALSE(child->getLevel());
    struct Row {
        kvlog::eKVLogLevel set, read;
        const char* text;
    } rows[] = {
        {kvlog::KVLOG_LEVEL_ERROR, kvlog::KVLOG_LEVEL_ERROR, "ERROR"},
        {kvlog::KVLOG_LEVEL_WARN, kvlog::KVLOG_LEVEL_WARN, "WARN"},
        {kvlog::KVLOG_LEVEL_INFO, kvlog::KVLOG_LEVEL_INFO, "INFO"},
        {kvlog::KVLOG_LEVEL_TRACE, kvlog::KVLOG_LEVEL_TRACE, "TRACE"},
        {kvlog::KVLOG_LEVEL_FATAL, kvlog::KVLOG_LEVEL_DEBUG, "DEBUG"}, // 2 is no log4cxx level
    };
    for (const Row& r : rows) {
        ctl->setKVLogLevel(m + ".submodule", r.set);
        EXPECT_EQ(ctl->getKVLogLevel(m + ".submodule.child"), r.read) << r.text;
        EXPECT_EQ(sub->getLevel()->toString(), r.text);
        EXPECT_EQ(ctl->getKVLogLevel(sub), r.read);
    }
    ctl->setKVLogLevel("root", kvlog::KVLOG_LEVEL_WARN);
    EXPECT_EQ(log4cxx::Logger::getRootLogger()->getLevel(), log4cxx::Level::getWarn());
    std::set<std::string> children;
    for (const log4cxx::LoggerPtr& l : ctl->getChildren(m)) {
        children.insert(l->getName());
    }
    EXPECT_EQ(children, (std::set<std::string>{m + ".submodule", m + ".submodule.child"}));
    for (const char* name : {"unittest.wibble", "unittest.kvlog_control", "", "ROOT"}) {
        EXPECT_FALSE(ctl->loggerExists(name)) << name;
    }
    EXPECT_EQ(ctl->getKVLogLevel("unittest.wibble"), kvlog::KVLOG_NUM_LEVELS);
    EXPECT_FALSE(ctl->loggerExists("unittest.wibble")); // asking created none

    std::map<std::string, kvlog::LoggerInfo> byName;
    for (const kvlog::LoggerInfo& info : ctl->getRegisteredLoggerInfo()) {
        byName.emplace(info.getModule(), info);
    }
    EXPECT_EQ(byName.at(m + ".submodule.child").getParent(), m + ".submodule");
    EXPECT_EQ(byName.at(m + "2").getParent(), "root"); // no level between it and the root
    EXPECT_EQ(byName.at(m + "2").getLevelAsString(), "WARN");
    EXPECT_FALSE(byName.at("developer").isInherited());
    std::ostringstream out;
    ctl->dumpKVLogStatus(out);
    const std::string dump = out.str();
    EXPECT_EQ(dump.rfind("\nLogger name, level (assigned/inherited)\n---------------------------------------\n", 0),
              0u);
    EXPECT_NE(dump.find("\n" + m + ".submodule, DEBUG (assigned)\n"), std::string::npos) << dump;
    EXPECT_NE(dump.find("\n" + m + ".submodule.child, DEBUG (inherited from " + m + ".submodule)\n"),
              std::string::npos);
    EXPECT_NE(dump.find("\ndeveloper, INFO (assigned)\n"), std::string::npos);
    EXPECT_LT(dump.rfind("(assigned)"), dump.find("(inherited from ")); // assigned ones first
    EXPECT_EQ(count(dump, "\n"), byName.size() + 2 + 1);
}

TEST_F(ControlTest, ExactlyOneReconfigurationPerNotificationThatNamesTheFile)
{
    writeFile(configPath, config("WARN"));
    startMonitor(nullptr);
    EXPECT_EQ(marker(), kvlog::KVLOG_LEVEL_WARN);

    writeFile(configPath, config("ERROR")); // rewritten in place
    EXPECT_TRUE(waitFor([&] { return reconfigurations() == 1; })) << reconfigurations();
    EXPECT_TRUE(waitFor([&] { return marker() == kvlog::KVLOG_LEVEL_ERROR; }));
    replaceFile(configPath, config("DEBUG")); // renamed over
    EXPECT_TRUE(waitFor([&] { return reconfigurations() == 2; })) << reconfigurations();
    EXPECT_TRUE(waitFor([&] { return marker() == kvlog::KVLOG_LEVEL_DEBUG; }));

    // Other files of the directory, and reading the file, change nothing.
    writeFile(configDir + "/other.conf", config("TRACE"));
    replaceFile(configDir + "/kvlog.conf.bak", config("TRACE"));
    readFile(configPath);
    std::this_thread::sleep_for(400ms);
    EXPECT_EQ(reconfigurations(), 2u);
    EXPECT_EQ(marker(), kvlog::KVLOG_LEVEL_DEBUG);

    const std::string log = readFile(root + "/monitor.log");
    EXPECT_NE(log.find(" Config-File=\"" + configPath + "\" Detail=\"" + kReconfiguring + "\"\n"), std::string::npos)
        << log;
    // Every notification is traced, a rename with its cookie.
    for (const char* traced : {"Cookie=\"0\" Target=\"other\\.conf\"", "Cookie=\"[1-9]\\d*\" Target=\"kvlog\\.conf\""}) {
        EXPECT_TRUE(std::regex_search(log, std::regex(std::string(" Watch-Id=\"\\d+\" ") + traced +
                                                      " Detail=\"Filesystem event notification received\"\n")))
            << traced;
    }

    for (const char* level : {"INFO", "WARN", "ERROR"}) { // three in a row: one each
        writeFile(configPath, config(level));
        std::this_thread::sleep_for(kSanitized ? 400ms : 250ms);
    }
    EXPECT_TRUE(waitFor([&] { return reconfigurations() == 5; })) << reconfigurations();
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(reconfigurations(), 5u);
    EXPECT_EQ(marker(), kvlog::KVLOG_LEVEL_ERROR);
    shutdownKVLog();
    EXPECT_EQ(count(readFile(root + "/monitor.log"), " Detail=\"Stopping configuration file monitor\"\n"), 1u);
}

// Without a watch the monitor sees nothing, but still starts and stops.
TEST_F(ControlTest, UnwatchableDirectoryIsReported)
{
    const kvlog::LoggerPtr monitorLogger = kvlog::getDeveloperLogger("kvlog.monitor");
    auto capture = std::make_shared<kvlog::DebugAppender>();
    monitorLogger->addAppender(capture);
    ASSERT_EQ(::rmdir(configDir.c_str()), 0);
    startMonitor(appLog().c_str());
    const auto start = Clock::now();
    shutdownKVLog();
    EXPECT_LT(Clock::now() - start, kStopLimit);
    monitorLogger->removeAppender(capture);
    EXPECT_EQ(capture->getLogs(), "ERROR -  File-Name=\"" + configPath +
                                      "\" Error=\"No such file or directory\" Detail=\"Unable to add filesystem "
                                      "monitor to watch for changes\"\n");
}

// The monitor starts once, follows the file and stops promptly, through
// repeated starts and stops with and without a named log file; no thread is
// left behind.
TEST_F(ControlTest, MonitorStartsOnceFollowsTheFileAndStopsPromptly)
{
    ASSERT_EQ(threadsNamed(kMonitorThread), 0);
    startMonitor(appLog().c_str());
    shutdownKVLog();
    const int threadsBefore = threadsNamed("");
    for (int i = 0; i < 25; ++i) {
        writeFile(configPath, config(i % 2 ? "WARN" : "ERROR"));
        initKVLog("kvlogtest", i % 3 ? nullptr : appLog().c_str());
        initKVLogConfigMonitor();
        initKVLogConfigMonitor(); // a second start does nothing
        if (i % 5 == 0) {
            writeFile(configPath, config("INFO"));
            EXPECT_TRUE(waitFor([&] { return marker() == kvlog::KVLOG_LEVEL_INFO; })) << i;
            EXPECT_EQ(threadsNamed(kMonitorThread), 1) << i;
            std::this_thread::sleep_for(100ms); // the monitor is waiting again
            const auto start = Clock::now();
            shutdownKVLog();
            EXPECT_LT(Clock::now() - start, kStopLimit) << i;
        } else {
            shutdownKVLog();
        }
        // The task has returned; the reaper joins it on its own schedule.
        ASSERT_TRUE(waitFor([&] { return threadsNamed(kMonitorThread) == 0; })) << i;
    }
    // The reaper joins ended tasks on its own schedule.
    EXPECT_TRUE(waitFor([&] { return threadsNamed("") <= threadsBefore; })) << threadsNamed("");

    initKVLog("kvlogtest", appLog().c_str()); // no monitor: nothing to wait for
    const auto again = Clock::now();
    shutdownKVLog();
    EXPECT_LT(Clock::now() - again, 90ms); // less than one 100 ms poll of a monitor
}

// Threads log and list while the configuration is rewritten under them (the
// TSan build runs this too).
TEST_F(ControlTest, LoggingWhileTheConfigurationChanges)
{
    auto cfg = [&](const char* level) {
        return config(level) + "log4j.logger.developer.kvlogctl=" + level + ", app\n"
               "log4j.appender.app=org.apache.log4j.RollingFileAppender\n"
               "log4j.appender.app.File=" + root + "/threads.log\n"
               "log4j.appender.app.MaxFileSize=64KB\n"
               "log4j.appender.app.MaxBackupIndex=1\n"
               "log4j.appender.app.layout=org.apache.log4j.PatternLayout\n"
               "log4j.appender.app.layout.ConversionPattern=%p %c %m%n\n";
    };
    writeFile(configPath, cfg("INFO"));
    startMonitor(nullptr);
    // Records that race with a reconfiguration are lost, and log4cxx says so
    // ("Attempted to append to closed appender") on stderr.
    testing::internal::CaptureStderr();
    std::atomic<bool> stop{false};
    std::atomic<long> records{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            const kvlog::LoggerPtr logger = kvlog::getDeveloperLogger("kvlogctl.thread" + std::to_string(t));
            while (!stop) {
                KVLOG_INFO(logger, "record " << records++);
                KVLOG_DEBUG(logger, "detail");
            }
        });
    }
    threads.emplace_back([&] {
        while (!stop) {
            std::ostringstream out;
            kvlog::kvlogController->dumpKVLogStatus(out);
            std::this_thread::sleep_for(10ms);
        }
    });
    const char* levels[] = {"DEBUG", "WARN", "INFO"};
    for (size_t i = 0; i < 9; ++i) {
        (i % 2 ? replaceFile : writeFile)(configPath, cfg(levels[i % 3]));
        EXPECT_TRUE(waitFor([&] { return reconfigurations() > i; })) << i;
    }
    stop = true;
    for (std::thread& t : threads) {
        t.join();
    }
    shutdownKVLog();
    testing::internal::GetCapturedStderr();
    EXPECT_GT(records.load(), 0);
    EXPECT_EQ(reconfigurations(), 9u);
}

// Death-test children end without tearing down, so these tests own no
// directory tree: the configuration directory does not exist (the monitor
// reports that and carries on) and records go to /dev/null.
TEST(ControlDeathTest, EntryPointAssertions)
{
    EXPECT_DEATH(shutdownKVLog(), "kvlog::kvlogController!=0");
    EXPECT_DEATH(initKVLogConfigMonitor(), "kvlog::kvlogController != 0");
    EXPECT_DEATH(kvlogConfigFileMonitorThreadEntry(nullptr), "kvlogController");
    EXPECT_DEATH(
        {
            kvos_set_path_map(KVOS_addPathMap(nullptr, PATH_TYPE_ZEL_CONFIG, "/nonexistent/kvlog-death-test"));
            initKVLog("kvlogtest", "/dev/null");
            initKVLog("kvlogtest", "/dev/null");
        },
        "kvlog::kvlogController==0");
    EXPECT_DEATH(initKVLog("kvlogtest", "/dev/null"), "no path for the kvlog configuration file");
}

// log4cxx's "No appender could be found" warning would reach stderr for the
// first record that no appender takes (the root and "unittest" loggers have
// none under the built-in properties). It is never printed, whether the
// controller or a logger factory comes first in a fresh process; plain
// log4cxx use shows the warning that is being kept away.
TEST(ControlDeathTest, NoAppenderWarningInEitherStartOrder)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // every child a fresh process
    kvlogtest::ScratchRoot scratch("kvlog-control");
    ASSERT_TRUE(scratch.ok());
    kvlog::detail::setRegistrationPath(scratch.path() + "/registration/");
    kvos_set_path_map(KVOS_addPathMap(nullptr, PATH_TYPE_ZEL_CONFIG, "/nonexistent/kvlog-death-test"));
    auto logEverywhere = [] {
        log4cxx::Logger::getRootLogger()->info("to no appender");
        KVLOG_INFO(kvlog::getUnitTestLogger("nobody"), "to no appender");
        KVLOG_INFO(kvlog::getDeveloperLogger("somebody"), "to /dev/null");
    };
    EXPECT_EXIT(
        {
            initKVLog("kvlogtest", "/dev/null");
            logEverywhere();
            shutdownKVLog();
            std::fputs("done\n", stderr);
            std::_Exit(0);
        },
        testing::ExitedWithCode(0), "^done\n$");
    EXPECT_EXIT(
        {
            KVLOG_INFO(kvlog::getUnitTestLogger("first"), "before any configuration");
            initKVLog("kvlogtest", "/dev/null");
            logEverywhere();
            shutdownKVLog();
            std::fputs("done\n", stderr);
            std::_Exit(0);
        },
        testing::ExitedWithCode(0), "^done\n$");
    EXPECT_EXIT(
        {
            log4cxx::Logger::getLogger("plain")->info("to no appender");
            std::_Exit(0);
        },
        testing::ExitedWithCode(0), "log4cxx: No appender could be found for logger \\(plain\\)");
    kvlog::detail::setRegistrationPath(kvlog::LOGGER_REGISTRATION_PATH);
    _kv_path_map* map = kvos_get_path_map();
    kvos_set_path_map(nullptr);
    kvos_free_path_map(map);
}

} // namespace
