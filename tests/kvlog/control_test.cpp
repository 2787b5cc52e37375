// The log controller against real log4cxx, a real rolling file appender and
// real inotify on a private directory tree (the path map points every
// directory the controller uses into it; nothing is written under /korvenda).
#include "kvlog/debug_appender.h"
#include "kvlog/kvlog.h"
#include "kvlog/kvlog_control.h"
#include "registration.h"

#include "abstraction/kvos.h"

#include <gtest/gtest.h>
#include <log4cxx/logmanager.h>
#include <log4cxx/patternlayout.h>
#include <log4cxx/rolling/rollingfileappender.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

// log4cxx 1.0 releases the rolling file appender's policy with a sized
// delete of the wrong size (harmless with glibc's allocator). ASan reports it
// from inside the uninstrumented library whenever a configuration is reset;
// the check stays on for everything else.
extern "C" const char* __asan_default_options()
{
    return "new_delete_type_mismatch=0";
}

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

std::string readFile(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// One open-write-close: exactly one IN_CLOSE_WRITE.
void writeFile(const std::string& path, const std::string& content)
{
    std::ofstream out(path, std::ios::trunc);
    out << content;
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

bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds limit = 3000ms)
{
    const auto end = Clock::now() + limit;
    while (!done()) {
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
    if (!dir) {
        return -1;
    }
    while (struct dirent* e = ::readdir(dir)) {
        if (e->d_name[0] == '.') {
            continue;
        }
        const std::string comm = readFile(std::string("/proc/self/task/") + e->d_name + "/comm");
        if (comm.rfind(prefix, 0) == 0) {
            ++n;
        }
    }
    ::closedir(dir);
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
        _kv_path_map* map = nullptr;
        map = KVOS_addPathMap(map, PATH_TYPE_TMP, (root + "/tmp").c_str());
        map = KVOS_addPathMap(map, PATH_TYPE_ZEL_CONFIG, configDir.c_str());
        map = KVOS_addPathMap(map, PATH_TYPE_USER, (root + "/user").c_str());
        map = KVOS_addPathMap(map, PATH_TYPE_PERM, (root + "/perm").c_str());
        kvos_set_path_map(map);
    }
    void TearDown() override
    {
        if (kvlog::kvlogController) {
            shutdownKVLog();
        }
        // Leave log4cxx as a fresh process would find it: nothing configured.
        log4cxx::LogManager::resetConfiguration();
        kvlog::detail::setRegistrationPath(kvlog::LOGGER_REGISTRATION_PATH);
        _kv_path_map* map = kvos_get_path_map();
        kvos_set_path_map(nullptr);
        kvos_free_path_map(map);
        ASSERT_EQ(std::system(("rm -rf " + root).c_str()), 0);
    }
    // The OS abstraction (task reaper) is started once per process, after
    // the first controller, so that its own records find appenders.
    static void startKvos()
    {
        static bool started = false;
        if (!started) {
            KVOS_init();
            started = true;
        }
    }
    // A configuration whose monitor records (all of them) go to monitor.log, and that
    // gives "unittest.kvlogctl.marker" the level `marker`.
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
    // The record is written before log4cxx is reset and configured again;
    // the listing takes "kvlog mutex" too, so it waits for a change in
    // progress to complete. Counting first and then listing therefore
    // returns only counts whose reconfigurations are complete.
    size_t reconfigurations() const
    {
        const size_t n = count(readFile(root + "/monitor.log"), kReconfiguring);
        if (kvlog::kvlogController) {
            kvlog::kvlogController->getRegisteredLoggerInfo();
        }
        return n;
    }
    // Read through the listing, which never overlaps a reconfiguration.
    kvlog::eKVLogLevel marker() const { return levelOf("unittest.kvlogctl.marker"); }
    static kvlog::eKVLogLevel levelOf(const std::string& name)
    {
        for (const kvlog::LoggerInfo& info : kvlog::kvlogController->getRegisteredLoggerInfo()) {
            if (info.getModule() == name) {
                return info.getLevel();
            }
        }
        return kvlog::KVLOG_NUM_LEVELS;
    }

    std::string root, configDir, configPath;
};

// ------------------------------------------------------- built-in properties

TEST_F(ControlTest, BuiltInPropertiesRouteByHierarchyAndLevel)
{
    const std::string logFile = root + "/app.log";
    initKVLog("kvlogtest", logFile.c_str());
    const kvlog::LoggerPtr dev = kvlog::getDeveloperLogger("kvlogctl.file");
    const kvlog::LoggerPtr net = kvlog::getNetworkLogger("kvlogctl.file");
    const kvlog::LoggerPtr cfg = kvlog::getConfigLogger("kvlogctl.file");
    const kvlog::LoggerPtr adm = kvlog::getAdminLogger("kvlogctl.file");
    const kvlog::LoggerPtr ut = kvlog::getUnitTestLogger("kvlogctl.file");
    KVLOG_INFO(dev, "dev-info");
    KVLOG_DEBUG(dev, "dev-debug");
    KVLOG_WARN(net, "net-warn");
    KVLOG_INFO(net, "net-info");
    KVLOG_INFO(cfg, "cfg-info");
    KVLOG_DEBUG(cfg, "cfg-debug");
    KVLOG_INFO(adm, "adm-info");
    KVLOG_ERROR(ut, "ut-error");
    const std::string text = readFile(logFile);
    for (const char* present : {"dev-info", "net-warn", "cfg-info", "adm-info"}) {
        EXPECT_EQ(count(text, present), 1u) << present;
    }
    for (const char* absent : {"dev-debug", "net-info", "cfg-debug", "ut-error"}) {
        EXPECT_EQ(count(text, absent), 0u) << absent;
    }

    // The record format of the conversion pattern.
    const std::regex line("UTCTime=\"\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2},\\d{3}\" "
                          "Module=\"developer\\.kvlogctl\\.file\" Level=\"INFO\" "
                          "CodeLocation=\"[^\"]*control_test\\.cpp\\(\\d+\\)\" Method=\"[^\"]*::[^\"]*\" "
                          "Thread=\"0x[0-9a-f]+\": dev-info\n");
    EXPECT_TRUE(std::regex_search(text, line)) << text;

    // The appender and levels exactly as configured.
    const log4cxx::LoggerPtr developer = log4cxx::Logger::getLogger("developer");
    auto appender = std::dynamic_pointer_cast<log4cxx::rolling::RollingFileAppender>(
        developer->getAppender("developerFileAppender"));
    ASSERT_TRUE(appender);
    EXPECT_EQ(appender->getFile(), logFile);
    EXPECT_EQ(appender->getMaxBackupIndex(), 1);
    EXPECT_EQ(appender->getMaximumFileSize(), 500000u * 1024u);
    auto layout = std::dynamic_pointer_cast<log4cxx::PatternLayout>(appender->getLayout());
    ASSERT_TRUE(layout);
    EXPECT_EQ(layout->getConversionPattern(),
              "UTCTime=\"%d{}{GMT}\" Module=\"%c\" Level=\"%p\" CodeLocation=\"%l\" Method=\"%C::%M\" "
              "Thread=\"%t\": %m%n");
    struct Root {
        const char* name;
        const char* level;
    } roots[] = {{"developer", "INFO"}, {"network", "WARN"}, {"config", "INFO"}, {"administrator", "INFO"}};
    for (const Root& r : roots) {
        const log4cxx::LoggerPtr l = log4cxx::Logger::getLogger(r.name);
        ASSERT_TRUE(l->getLevel()) << r.name;
        EXPECT_EQ(l->getLevel()->toString(), r.level);
        EXPECT_TRUE(l->getAdditivity());
        EXPECT_EQ(l->getAppender("developerFileAppender"), appender) << r.name;
    }
    EXPECT_TRUE(log4cxx::Logger::getLogger("unittest")->getAllAppenders().empty());
    EXPECT_TRUE(log4cxx::Logger::getRootLogger()->getAllAppenders().empty());
}

TEST_F(ControlTest, NoAppenderWarningNeverReachesStderr)
{
    testing::internal::CaptureStderr();
    initKVLog("kvlogtest", (root + "/app.log").c_str());
    startKvos();
    KVLOG_ERROR(kvlog::getUnitTestLogger("kvlogctl.noappender"), "nowhere to go");
    KVLOG_ERROR(log4cxx::Logger::getRootLogger(), "nowhere either");
    shutdownKVLog();
    initKVLog("kvlogtest", (root + "/app.log").c_str());
    KVLOG_ERROR(kvlog::getUnitTestLogger("kvlogctl.noappender"), "still nowhere");
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err.find("No appender"), std::string::npos) << err;
}

TEST_F(ControlTest, RemovesDeprecatedConfigFiles)
{
    writeFile(root + "/user/kvlog.conf", "x");
    writeFile(root + "/perm/kvlog.conf", "x");
    writeFile(root + "/user/other.conf", "x");
    initKVLog("kvlogtest", (root + "/app.log").c_str());
    EXPECT_NE(::access((root + "/user/kvlog.conf").c_str(), F_OK), 0);
    EXPECT_NE(::access((root + "/perm/kvlog.conf").c_str(), F_OK), 0);
    EXPECT_EQ(::access((root + "/user/other.conf").c_str(), F_OK), 0);
    EXPECT_EQ(kvlog::kvlogController->getKVLogConfigFilenameAndPath(), configPath);
}

// ------------------------------------------------------ configuration file

TEST_F(ControlTest, ConfiguresFromTheFileThroughThePathMap)
{
    writeFile(configPath, config("ERROR") + "log4j.logger.developer.kvlogctl.fromfile=TRACE\n");
    initKVLog("kvlogtest", nullptr);
    EXPECT_EQ(marker(), kvlog::KVLOG_LEVEL_ERROR);
    EXPECT_EQ(kvlog::kvlogController->getKVLogLevel("developer.kvlogctl.fromfile"), kvlog::KVLOG_LEVEL_TRACE);
    // Recorded as they were when configuring finished.
    EXPECT_EQ(kvlog::kvlogController->getDefaultLogLevel("unittest.kvlogctl.marker"), log4cxx::Level::getError());
    kvlog::kvlogController->setKVLogLevel("unittest.kvlogctl.marker", kvlog::KVLOG_LEVEL_DEBUG);
    EXPECT_EQ(kvlog::kvlogController->getDefaultLogLevel("unittest.kvlogctl.marker"), log4cxx::Level::getError());
    EXPECT_FALSE(kvlog::kvlogController->getDefaultLogLevel("unittest.kvlogctl.createdlater"));
    kvlog::getUnitTestLogger("kvlogctl.createdlater");
    EXPECT_FALSE(kvlog::kvlogController->getDefaultLogLevel("unittest.kvlogctl.createdlater"));
}

TEST_F(ControlTest, MissingConfigFileIsReportedAndTolerated)
{
    const kvlog::LoggerPtr control = kvlog::getDeveloperLogger("kvlog.control");
    auto capture = std::make_shared<kvlog::DebugAppender>();
    control->addAppender(capture);
    testing::internal::CaptureStderr(); // log4cxx's own complaint about the file
    initKVLog("kvlogtest", nullptr);
    testing::internal::GetCapturedStderr();
    control->removeAppender(capture);
    EXPECT_EQ(capture->getLogs(), "ERROR - fopen failed when opening file: \"" + configPath +
                                      "\" with err number: 2, error description: \"No such file or directory\"\n");
    EXPECT_EQ(kvlog::kvlogController->getKVLogLevel("unittest.kvlogctl.never"), kvlog::KVLOG_NUM_LEVELS);
}

// ------------------------------------------------------------------ levels

class ControlLevelsTest : public ControlTest {
protected:
    void SetUp() override
    {
        ControlTest::SetUp();
        initKVLog("kvlogtest", (root + "/app.log").c_str());
        module = kvlog::getUnitTestLogger("kvlog_control.module");
        sub = kvlog::getUnitTestLogger("kvlog_control.module.submodule");
        child = kvlog::getUnitTestLogger("kvlog_control.module.submodule.child");
        module2 = kvlog::getUnitTestLogger("kvlog_control.module2");
        ctl = kvlog::kvlogController;
    }
    kvlog::LoggerPtr module, sub, child, module2;
    kvlog::kvlog_control* ctl = nullptr;
};

TEST_F(ControlLevelsTest, LoggerExists)
{
    for (const char* name : {"root", "unittest.kvlog_control.module", "unittest.kvlog_control.module.submodule",
                             "unittest.kvlog_control.module.submodule.child", "unittest.kvlog_control.module2",
                             "developer"}) {
        EXPECT_TRUE(ctl->loggerExists(name)) << name;
    }
    // Intermediate names are not loggers until someone asks for them.
    for (const char* name : {"unittest.wibble", "unittest.kvlog_control", "", "ROOT"}) {
        EXPECT_FALSE(ctl->loggerExists(name)) << name;
    }
    EXPECT_EQ(ctl->getKVLogLevel("unittest.wibble"), kvlog::KVLOG_NUM_LEVELS);
    EXPECT_FALSE(ctl->loggerExists("unittest.wibble")); // asking did not create it
}

TEST_F(ControlLevelsTest, SettingALevelClearsEveryDescendant)
{
    sub->setLevel(log4cxx::Level::getError());
    child->setLevel(log4cxx::Level::getWarn());
    module2->setLevel(log4cxx::Level::getError());
    ctl->setKVLogLevel("unittest.kvlog_control.module", kvlog::KVLOG_LEVEL_TRACE);
    EXPECT_EQ(ctl->getKVLogLevel("unittest.kvlog_control.module"), kvlog::KVLOG_LEVEL_TRACE);
    EXPECT_EQ(ctl->getKVLogLevel("unittest.kvlog_control.module.submodule"), kvlog::KVLOG_LEVEL_TRACE);
    EXPECT_EQ(ctl->getKVLogLevel("unittest.kvlog_control.module.submodule.child"), kvlog::KVLOG_LEVEL_TRACE);
    EXPECT_FALSE(sub->getLevel());
    EXPECT_FALSE(child->getLevel());
    // Shares the prefix, but is no descendant.
    EXPECT_EQ(ctl->getKVLogLevel("unittest.kvlog_control.module2"), kvlog::KVLOG_LEVEL_ERROR);

    struct Row {
        kvlog::eKVLogLevel set, read;
        const char* text;
    } rows[] = {
        {kvlog::KVLOG_LEVEL_ERROR, kvlog::KVLOG_LEVEL_ERROR, "ERROR"},
        {kvlog::KVLOG_LEVEL_WARN, kvlog::KVLOG_LEVEL_WARN, "WARN"},
        {kvlog::KVLOG_LEVEL_INFO, kvlog::KVLOG_LEVEL_INFO, "INFO"},
        {kvlog::KVLOG_LEVEL_DEBUG, kvlog::KVLOG_LEVEL_DEBUG, "DEBUG"},
        {kvlog::KVLOG_LEVEL_TRACE, kvlog::KVLOG_LEVEL_TRACE, "TRACE"},
        // FATAL is never assigned: it maps to no log4cxx level and so to DEBUG.
        {kvlog::KVLOG_LEVEL_FATAL, kvlog::KVLOG_LEVEL_DEBUG, "DEBUG"},
    };
    for (const Row& r : rows) {
        ctl->setKVLogLevel("unittest.kvlog_control.module.submodule", r.set);
        EXPECT_EQ(ctl->getKVLogLevel("unittest.kvlog_control.module.submodule.child"), r.read) << r.text;
        EXPECT_EQ(sub->getLevel()->toString(), r.text);
        EXPECT_EQ(ctl->getKVLogLevel(sub), r.read);
    }
    ctl->setKVLogLevel("root", kvlog::KVLOG_LEVEL_WARN);
    EXPECT_EQ(log4cxx::Logger::getRootLogger()->getLevel(), log4cxx::Level::getWarn());
    EXPECT_EQ(ctl->getKVLogLevel("root"), kvlog::KVLOG_LEVEL_WARN);
}

TEST_F(ControlLevelsTest, ChildrenAreDescendantsWithADot)
{
    std::set<std::string> names;
    for (const log4cxx::LoggerPtr& l : ctl->getChildren("unittest.kvlog_control.module")) {
        names.insert(l->getName());
    }
    EXPECT_EQ(names, (std::set<std::string>{"unittest.kvlog_control.module.submodule",
                                            "unittest.kvlog_control.module.submodule.child"}));
    EXPECT_TRUE(ctl->getChildren("unittest.kvlog_control.module.submodule.child").empty());
    EXPECT_EQ(ctl->getChildren("unittest.kvlog_control.module.submodule").size(), 1u);
}

TEST_F(ControlLevelsTest, ListingAndStatusDump)
{
    module->setLevel(log4cxx::Level::getDebug());
    sub->setLevel(log4cxx::LevelPtr());
    child->setLevel(log4cxx::LevelPtr());
    module2->setLevel(log4cxx::LevelPtr());
    std::map<std::string, kvlog::LoggerInfo> byName;
    for (const kvlog::LoggerInfo& info : ctl->getRegisteredLoggerInfo()) {
        byName.emplace(info.getModule(), info);
    }
    const kvlog::LoggerInfo& m = byName.at("unittest.kvlog_control.module");
    EXPECT_FALSE(m.isInherited());
    EXPECT_EQ(m.getLevel(), kvlog::KVLOG_LEVEL_DEBUG);
    EXPECT_EQ(m.getLevelAsString(), "DEBUG");
    const kvlog::LoggerInfo& c = byName.at("unittest.kvlog_control.module.submodule.child");
    EXPECT_EQ(c.getParent(), "unittest.kvlog_control.module");
    EXPECT_EQ(c.getLevel(), kvlog::KVLOG_LEVEL_DEBUG);
    const kvlog::LoggerInfo& m2 = byName.at("unittest.kvlog_control.module2");
    EXPECT_EQ(m2.getParent(), "root"); // nothing between it and the root has a level
    EXPECT_EQ(m2.getLevelAsString(), "DEBUG");
    const kvlog::LoggerInfo& d = byName.at("developer");
    EXPECT_FALSE(d.isInherited());
    EXPECT_EQ(d.getLevelAsString(), "INFO");

    std::ostringstream out;
    ctl->dumpKVLogStatus(out);
    const std::string dump = out.str();
    EXPECT_EQ(dump.rfind("\nLogger name, level (assigned/inherited)\n---------------------------------------\n", 0),
              0u);
    const size_t assigned = dump.find("\nunittest.kvlog_control.module, DEBUG (assigned)\n");
    const size_t inherited = dump.find(
        "\nunittest.kvlog_control.module.submodule.child, DEBUG (inherited from unittest.kvlog_control.module)\n");
    ASSERT_NE(assigned, std::string::npos) << dump;
    ASSERT_NE(inherited, std::string::npos) << dump;
    EXPECT_NE(dump.find("\ndeveloper, INFO (assigned)\n"), std::string::npos);
    // Every assigned line comes before every inherited one.
    EXPECT_LT(dump.rfind("(assigned)"), dump.find("(inherited from "));
    EXPECT_EQ(count(dump, "\n"), byName.size() + 2 + 1);
}

// ----------------------------------------------------------------- monitor

TEST_F(ControlTest, ExactlyOneReconfigurationPerNotificationThatNamesTheFile)
{
    writeFile(configPath, config("WARN"));
    initKVLog("kvlogtest", nullptr);
    startKvos();
    initKVLogConfigMonitor();
    ASSERT_TRUE(waitFor([] { return threadsNamed(kMonitorThread) == 1; }));
    EXPECT_EQ(marker(), kvlog::KVLOG_LEVEL_WARN);

    writeFile(configPath, config("ERROR")); // rewritten in place
    EXPECT_TRUE(waitFor([&] { return reconfigurations() == 1; })) << reconfigurations();
    EXPECT_TRUE(waitFor([&] { return marker() == kvlog::KVLOG_LEVEL_ERROR; }));

    replaceFile(configPath, config("DEBUG")); // a new file renamed over it
    EXPECT_TRUE(waitFor([&] { return reconfigurations() == 2; })) << reconfigurations();
    EXPECT_TRUE(waitFor([&] { return marker() == kvlog::KVLOG_LEVEL_DEBUG; }));

    // Other files in the directory, and reading the file, change nothing.
    writeFile(configDir + "/other.conf", config("TRACE"));
    replaceFile(configDir + "/kvlog.conf.bak", config("TRACE"));
    readFile(configPath);
    std::this_thread::sleep_for(400ms);
    EXPECT_EQ(reconfigurations(), 2u);
    EXPECT_EQ(marker(), kvlog::KVLOG_LEVEL_DEBUG);

    std::string log = readFile(root + "/monitor.log");
    EXPECT_NE(log.find(" Config-File=\"" + configPath + "\" Detail=\"" + kReconfiguring + "\"\n"), std::string::npos)
        << log;
    // Every notification is traced, those of other files too.
    EXPECT_TRUE(std::regex_search(log, std::regex(" Watch-Id=\"\\d+\" Cookie=\"0\" Target=\"other\\.conf\" "
                                                  "Detail=\"Filesystem event notification received\"\n")))
        << log;
    EXPECT_TRUE(std::regex_search(log, std::regex(" Watch-Id=\"\\d+\" Cookie=\"[1-9]\\d*\" Target=\"kvlog\\.conf\" "
                                                  "Detail=\"Filesystem event notification received\"\n")))
        << "a rename carries its cookie";

    // Three rewrites in a row: one reconfiguration each.
    for (const char* level : {"INFO", "WARN", "ERROR"}) {
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
    initKVLog("kvlogtest", (root + "/app.log").c_str());
    startKvos();
    initKVLogConfigMonitor();
    ASSERT_TRUE(waitFor([] { return threadsNamed(kMonitorThread) == 1; }));
    const auto start = Clock::now();
    shutdownKVLog();
    EXPECT_LT(Clock::now() - start, kSanitized ? 400ms : 160ms);
    monitorLogger->removeAppender(capture);
    EXPECT_EQ(capture->getLogs(), "ERROR -  File-Name=\"" + configPath +
                                      "\" Error=\"No such file or directory\" Detail=\"Unable to add filesystem "
                                      "monitor to watch for changes\"\n");
}

TEST_F(ControlTest, NamedLogFileControllerAlsoFollowsTheConfigFile)
{
    initKVLog("kvlogtest", (root + "/app.log").c_str());
    startKvos();
    initKVLogConfigMonitor();
    initKVLogConfigMonitor(); // a second start does nothing
    ASSERT_TRUE(waitFor([] { return threadsNamed(kMonitorThread) == 1; }));
    writeFile(configPath, config("ERROR"));
    EXPECT_TRUE(waitFor([&] { return marker() == kvlog::KVLOG_LEVEL_ERROR; }));
    EXPECT_EQ(threadsNamed(kMonitorThread), 1);
}

TEST_F(ControlTest, StopReturnsPromptlyAndLeavesNoThread)
{
    const int before = threadsNamed(kMonitorThread);
    ASSERT_EQ(before, 0);
    initKVLog("kvlogtest", (root + "/app.log").c_str());
    startKvos();
    initKVLogConfigMonitor();
    ASSERT_TRUE(waitFor([] { return threadsNamed(kMonitorThread) == 1; }));
    std::this_thread::sleep_for(250ms);
    const auto start = Clock::now();
    shutdownKVLog();
    const auto took = Clock::now() - start;
    EXPECT_LT(took, kSanitized ? 400ms : 160ms);
    EXPECT_EQ(threadsNamed(kMonitorThread), 0);
}

TEST_F(ControlTest, ShutdownWithoutMonitorDoesNotWait)
{
    initKVLog("kvlogtest", (root + "/app.log").c_str());
    const auto start = Clock::now();
    shutdownKVLog();
    EXPECT_LT(Clock::now() - start, 50ms);
}

TEST_F(ControlTest, RepeatedInitMonitorAndShutdown)
{
    startKvos();
    const int threadsBefore = threadsNamed("");
    for (int i = 0; i < 25; ++i) {
        writeFile(configPath, config(i % 2 ? "WARN" : "ERROR"));
        initKVLog("kvlogtest", i % 3 ? nullptr : (root + "/app.log").c_str());
        initKVLogConfigMonitor();
        if (i % 5 == 0) {
            writeFile(configPath, config("INFO"));
            EXPECT_TRUE(waitFor([&] { return marker() == kvlog::KVLOG_LEVEL_INFO; })) << i;
        }
        shutdownKVLog();
        ASSERT_EQ(threadsNamed(kMonitorThread), 0) << i;
    }
    // The reaper joins ended tasks on its own schedule.
    EXPECT_TRUE(waitFor([&] { return threadsNamed("") <= threadsBefore; })) << threadsNamed("");
}

// Several threads log while the configuration is rewritten under them; the
// TSan build runs this too.
TEST_F(ControlTest, LoggingWhileTheConfigurationChanges)
{
    const std::string appLog = root + "/threads.log";
    auto cfg = [&](const char* level) {
        return config(level) + "log4j.logger.developer.kvlogctl=" + level + ", app\n"
               "log4j.appender.app=org.apache.log4j.RollingFileAppender\n"
               "log4j.appender.app.File=" + appLog + "\n"
               "log4j.appender.app.MaxFileSize=64KB\n"
               "log4j.appender.app.MaxBackupIndex=1\n"
               "log4j.appender.app.layout=org.apache.log4j.PatternLayout\n"
               "log4j.appender.app.layout.ConversionPattern=%p %c %m%n\n";
    };
    writeFile(configPath, cfg("INFO"));
    initKVLog("kvlogtest", nullptr);
    startKvos();
    initKVLogConfigMonitor();
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
    std::thread lister([&] {
        while (!stop) {
            std::ostringstream out;
            kvlog::kvlogController->dumpKVLogStatus(out);
            std::this_thread::sleep_for(10ms);
        }
    });
    const char* levels[] = {"DEBUG", "WARN", "INFO"};
    for (int i = 0; i < 9; ++i) {
        if (i % 2) {
            replaceFile(configPath, cfg(levels[i % 3]));
        } else {
            writeFile(configPath, cfg(levels[i % 3]));
        }
        const size_t expected = static_cast<size_t>(i + 1);
        EXPECT_TRUE(waitFor([&] { return reconfigurations() >= expected; })) << i;
    }
    stop = true;
    for (std::thread& t : threads) {
        t.join();
    }
    lister.join();
    shutdownKVLog();
    testing::internal::GetCapturedStderr();
    EXPECT_GT(records.load(), 0);
    EXPECT_EQ(reconfigurations(), 9u);
}

// An unusable log file costs records, never the callers.
TEST_F(ControlTest, UnwritableLogFileNeverBlocksOrCrashesCallers)
{
    writeFile(root + "/plainfile", "x");
    const std::string targets[] = {root + "/plainfile/app.log", // a path through a regular file
                                   "/dev/full"};                // every write fails with ENOSPC
    for (const std::string& target : targets) {
        testing::internal::CaptureStderr(); // log4cxx reports its I/O errors there
        initKVLog("kvlogtest", target.c_str());
        const kvlog::LoggerPtr logger = kvlog::getDeveloperLogger("kvlogctl.unwritable");
        const auto start = Clock::now();
        std::vector<std::thread> threads;
        for (int t = 0; t < 3; ++t) {
            threads.emplace_back([&] {
                for (int i = 0; i < 300; ++i) {
                    KVLOG_ERROR(logger, "record " << i << std::string(200, 'x'));
                }
            });
        }
        for (std::thread& t : threads) {
            t.join();
        }
        EXPECT_LT(Clock::now() - start, 5s) << target;
        shutdownKVLog();
        testing::internal::GetCapturedStderr();
    }
}

// ------------------------------------------------------------ entry points

// Death-test children end without tearing down, so these tests own no
// directory tree: the configuration directory does not exist (the monitor
// reports that and carries on) and records go to /dev/null.
class ControlDeathTest : public testing::Test {
protected:
    void SetUp() override
    {
        kvos_set_path_map(KVOS_addPathMap(nullptr, PATH_TYPE_ZEL_CONFIG, "/nonexistent/kvlog-death-test"));
    }
    void TearDown() override
    {
        _kv_path_map* map = kvos_get_path_map();
        kvos_set_path_map(nullptr);
        kvos_free_path_map(map);
    }
};

TEST_F(ControlDeathTest, EntryPointAssertions)
{
    EXPECT_DEATH(shutdownKVLog(), "kvlog::kvlogController!=0");
    EXPECT_DEATH(initKVLogConfigMonitor(), "kvlog::kvlogController != 0");
    EXPECT_DEATH(kvlogConfigFileMonitorThreadEntry(nullptr), "kvlogController");
    EXPECT_DEATH(
        {
            initKVLog("kvlogtest", "/dev/null");
            initKVLog("kvlogtest", "/dev/null");
        },
        "kvlog::kvlogController==0");
}

TEST_F(ControlDeathTest, ConfigPathMustBeMapped)
{
    EXPECT_DEATH(
        {
            kvos_set_path_map(nullptr);
            initKVLog("kvlogtest", "/dev/null");
        },
        "no path for the kvlog configuration file");
}

} // namespace
