// Loggers, module names, levels, macros, the debug appender and LoggerInfo.
// Loggers register under a private directory per test (the registration seam).
#include "kvlog/debug_appender.h"
#include "kvlog/kvlog.h"
#include "kvlog/kvlog_assert.h"
#include "platform/linux_logger.h"
#include "registration.h"
#include "scratch_root.h"

#include <gtest/gtest.h>
#include <log4cxx/appenderskeleton.h>
#include <log4cxx/helpers/pool.h>
#include <log4cxx/level.h>
#include <log4cxx/patternlayout.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

bool fileExists(const std::string& path)
{
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

class KvlogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        scratch = std::make_unique<kvlogtest::ScratchRoot>("kvlog-test");
        ASSERT_TRUE(scratch->ok());
        root = scratch->path();
        dir = root + "/registration/";
        kvlog::detail::setRegistrationPath(dir);
    }
    void TearDown() override
    {
        kvlog::detail::setRegistrationPath(kvlog::LOGGER_REGISTRATION_PATH);
        scratch.reset();
    }
    std::unique_ptr<kvlogtest::ScratchRoot> scratch;
    std::string root, dir;
};

// The self-test unit covers the common names; these are the edges. The root
// prefixes are a plain prefix test ("developerfoo") and case-sensitive.
TEST(KvlogModuleName, Legality)
{
    for (const char* name : {"root", "config.x", "developerfoo"}) {
        EXPECT_TRUE(kvlog::isLegalModuleName(name)) << name;
    }
    for (const char* name : {"develop", "developer/x", "", "Root", "Developer.x", "root.x"}) {
        EXPECT_FALSE(kvlog::isLegalModuleName(name)) << '"' << name << '"';
    }
}

// FATAL (and anything else) maps to 2, deliberately no log4cxx level: log4cxx
// turns it into DEBUG. The way back is by ranges (the unit has the other edges).
TEST(KvlogLevels, MappingBothWays)
{
    for (kvlog::eKVLogLevel level : {kvlog::KVLOG_LEVEL_FATAL, kvlog::KVLOG_NUM_LEVELS}) {
        EXPECT_EQ(kvlog::mapKVLogLevelToLog4cxxLevel(level), 2);
    }
    EXPECT_EQ(kvlog::mapKVLogLevelToLog4cxxLevel(kvlog::KVLOG_LEVEL_TRACE), 5000);
    EXPECT_EQ(log4cxx::Level::toLevel(2)->toInt(), log4cxx::Level::DEBUG_INT);
    struct FromLog4cxx {
        int value;
        kvlog::eKVLogLevel expect;
    } from[] = {{10000, kvlog::KVLOG_LEVEL_DEBUG}, {10001, kvlog::KVLOG_LEVEL_INFO}, {30000, kvlog::KVLOG_LEVEL_WARN},
                {30001, kvlog::KVLOG_LEVEL_ERROR}};
    for (const FromLog4cxx& r : from) {
        EXPECT_EQ(kvlog::mapLog4cxxLevelToKVLogLevel(r.value), r.expect) << r.value;
    }
}

TEST_F(KvlogTest, FactoriesNameAndRegisterLoggers)
{
    struct Row {
        kvlog::LoggerPtr logger;
        const char* name;
    } rows[] = {
        {kvlog::getLogger("Mixed.Case"), "Mixed.Case"},
        {kvlog::getDeveloperLogger("MyModule"), "developer.mymodule"},
        {kvlog::getAdminLogger("Web.UI"), "administrator.web.ui"},
        {kvlog::getNetworkLogger("SIP"), "network.sip"},
        {kvlog::getConfigLogger("Db"), "config.db"},
        {kvlog::getUnitTestLogger("Case"), "unittest.case"},
        {kvlog::getRootDeveloperLogger(), "developer"},
        {kvlog::getChildLogger(kvlog::getLogger("mymodule.myclass"), "mySubclass"), "mymodule.myclass.mySubclass"},
    };
    for (const Row& r : rows) {
        ASSERT_TRUE(r.logger);
        EXPECT_EQ(r.logger->getName(), r.name);
        EXPECT_TRUE(fileExists(dir + r.name)) << r.name;
    }
    EXPECT_EQ(kvlog::getDeveloperLogger("MYMODULE"), kvlog::getDeveloperLogger("mymodule"));
    EXPECT_EQ(getLinuxAbstractionLogger()->getName(), "developer.abstraction");
    EXPECT_EQ(getLinuxPlatformLogger()->getName(), "developer.platform");
}

TEST_F(KvlogTest, RegistrationFileIsCreatedEmptyAndLeftAlone)
{
    const std::string path = dir + "developer.regtest";
    const mode_t mask = umask(0); // the whole mode, not what a umask leaves of it
    kvlog::LoggerPtr first = kvlog::getLogger("developer.regtest");
    umask(mask);
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 0);
    EXPECT_EQ(st.st_mode & 0777, 0660u);
    { std::ofstream(path) << "marker"; }
    EXPECT_EQ(kvlog::getLogger("developer.regtest"), first);
    std::string content;
    std::getline(std::ifstream(path) >> std::ws, content);
    EXPECT_EQ(content, "marker");
}

TEST(KvlogEnabled, NullIsNeverEnabledAndLevelsAreTheLoggers)
{
    bool (*const checks[])(const kvlog::LoggerPtr&) = {kvlog::isTraceEnabled, kvlog::isDebugEnabled,
                                                       kvlog::isInfoEnabled,  kvlog::isWarnEnabled,
                                                       kvlog::isErrorEnabled, kvlog::isFatalEnabled};
    kvlog::LoggerPtr l = kvlog::getUnitTestLogger("enabled_checks");
    l->setLevel(log4cxx::Level::getWarn());
    for (size_t i = 0; i < 6; ++i) {
        EXPECT_FALSE(checks[i](kvlog::LoggerPtr())) << i;
        EXPECT_EQ(checks[i](l), i >= 3) << i; // WARN and above
    }
}

TEST(KvlogMacros, DisabledLevelsFormatNothing)
{
    kvlog::TestLogHelper helper("Macros"); // captures unittest.macros and its descendants
    kvlog::LoggerPtr l = helper.getLogger();
    l->setLevel(log4cxx::Level::getInfo());
    int evaluated = 0;
    auto count = [&evaluated]() { return ++evaluated; };
    KVLOG_TRACE(l, "t" << count());
    KVLOG_DEBUG(l, "d" << count());
    KVLOG_INFO(l, "i" << count());
    KVLOG_WARN(l, "w" << count());
    KVLOG_ERROR(l, "e" << count());
    KVLOG_FATAL(kvlog::getChildLogger(l, "child"), "f" << count());
    EXPECT_EQ(evaluated, 4);
    EXPECT_EQ(helper.getAllLoggedMessages(), "INFO - i1\nWARN - w2\nERROR - e3\nFATAL - f4\n");
}

// The caller's own exceptions, thrown while its message is being built, are
// the caller's business and reach it; only a failure of the logging call
// itself (an appender that cannot write) is kept from the caller.
struct Unprintable {};
std::ostream& operator<<(std::ostream& os, const Unprintable&)
{
    throw std::logic_error("cannot print");
    return os;
}

class ThrowingAppender : public log4cxx::AppenderSkeleton {
public:
    void append(const log4cxx::spi::LoggingEventPtr&, log4cxx::helpers::Pool&) override
    {
        throw std::runtime_error("disk full");
    }
    void close() override {}
    bool requiresLayout() const override { return false; }
};

TEST(KvlogMacros, OnlyTheLoggingCallIsGuarded)
{
    kvlog::TestLogHelper helper("Macros_guard");
    kvlog::LoggerPtr l = helper.getLogger();
    l->setLevel(log4cxx::Level::getTrace());
    const std::vector<int> v(3);
    EXPECT_THROW(KVLOG_TRACE(l, "t" << v.at(3)), std::out_of_range);
    EXPECT_THROW(KVLOG_DEBUG(l, "d" << v.at(3)), std::out_of_range);
    EXPECT_THROW(KVLOG_INFO(l, "i" << v.at(3)), std::out_of_range);
    EXPECT_THROW(KVLOG_WARN(l, "w" << Unprintable()), std::logic_error);
    EXPECT_THROW(KVLOG_ERROR(l, "e" << Unprintable()), std::logic_error);
    EXPECT_THROW(KVLOG_FATAL(l, "f" << v.at(3)), std::out_of_range);
    EXPECT_EQ(helper.getAllLoggedMessages(), "");
    // Nothing is evaluated, so nothing is thrown, for a disabled level.
    l->setLevel(log4cxx::Level::getOff());
    EXPECT_NO_THROW(KVLOG_ERROR(l, "e" << v.at(3)));

    l->setLevel(log4cxx::Level::getTrace());
    auto failing = std::make_shared<ThrowingAppender>();
    l->addAppender(failing);
    EXPECT_NO_THROW(KVLOG_INFO(l, "lost" << v.at(2)));
    EXPECT_NO_THROW(KVLOG_TRACE(l, "lost"));
    l->removeAppender(failing);
}

void tracedFunction(const kvlog::LoggerPtr& l)
{
    KVLOG_TRACE_METHOD(l);
    KVLOG_TRACE(l, "inside");
}

TEST(KvlogMethodTracer, EnteringAndLeavingAtTraceOnly)
{
    kvlog::TestLogHelper helper("tracer");
    kvlog::LoggerPtr l = helper.getLogger();
    l->setLevel(log4cxx::Level::getTrace());
    tracedFunction(l);
    EXPECT_EQ(helper.getAllLoggedMessages(), "TRACE -  Entering function=\"tracedFunction\"\n"
                                             "TRACE - inside\n"
                                             "TRACE -  Leaving function=\"tracedFunction\"\n");
    kvlog::TestLogHelper changed("tracer_change"); // the level is tested again on exit
    changed.getLogger()->setLevel(log4cxx::Level::getTrace());
    {
        kvlog::MethodTracer t(changed.getLogger(), "f");
        changed.getLogger()->setLevel(log4cxx::Level::getInfo());
    }
    EXPECT_EQ(changed.getAllLoggedMessages(), "TRACE -  Entering function=\"f\"\n");
}

TEST(DebugAppender, GivenLayoutAndMultiLineRecords)
{
    auto appender = std::make_shared<kvlog::DebugAppender>(std::make_shared<log4cxx::PatternLayout>("[%c] %m%n"));
    kvlog::LoggerPtr l = kvlog::getUnitTestLogger("debug_appender");
    l->addAppender(appender);
    KVLOG_WARN(l, "two\nlines");
    l->removeAppender(appender);
    KVLOG_WARN(l, "not captured");
    EXPECT_EQ(appender->getLogs(), "[unittest.debug_appender] two\nlines\n");
}

// Deliberately the whole name: children of the roots have no appender name.
TEST(LoggerInfo, AppenderNamesOnlyForTheRootsThemselves)
{
    struct Row {
        const char* module;
        const char* appender;
    } rows[] = {
        {"administrator", "adminAppender"}, {"developer", "developerAppender"}, {"network", "networkAppender"},
        {"config", "configAppender"},       {"unittest", ""},                   {"developer.abstraction", ""},
        {"root", ""},                       {"developerx", ""},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(kvlog::LoggerInfo(r.module, kvlog::KVLOG_LEVEL_INFO, "INFO").getAppender(), r.appender) << r.module;
    }
}

using KvlogDeathTest = KvlogTest;

TEST_F(KvlogDeathTest, LoggerProgrammingFaults)
{
    EXPECT_DEATH(kvlog::getLogger(std::string(4071, 'a')),
                 "^\\*\\*\\*\\*\\* Internal Program Error - assertion \\(modulename.size\\(\\) < "
                 "MAX_MODULE_NAME_LENGTH\\) failed in [^\n]*kvlog::getLogger[^\n]*:\n[^\n]*kvlog.cpp\\([0-9]+\\): "
                 "Module name is too long\n");
    // 4070 characters pass the length check; one path component that long
    // exceeds the file system's name limit, so registration is what fails.
    EXPECT_DEATH(kvlog::getLogger(std::string(4070, 'a')), "Could not create logger .* File name too long");
    EXPECT_DEATH(kvlog::getChildLogger(kvlog::LoggerPtr(), "c"), "parentlogger && \"parentLogger must be non NULL\"");
    EXPECT_DEATH(kvlog::getChildLogger(kvlog::getLogger("developer.p"), ""),
                 "childname.length\\(\\) > ?0 && \"Child must have a unique name\"");
    kvlog::detail::setRegistrationPath("/proc/kvlog-no-such-dir/");
    EXPECT_DEATH(kvlog::getLogger("developer.x"), "\\): /proc/kvlog-no-such-dir/ could not be created\n");
}

TEST(KvlogAssertDeathTest, ReportFormatAndAbort)
{
    EXPECT_DEATH(BOOST_ASSERT_MSG(1 + 1 == 3, "arithmetic is broken"),
                 "^\\*\\*\\*\\*\\* Internal Program Error - assertion \\(1 \\+ 1 == 3\\) failed in [^\n]*TestBody[^\n]*:\n"
                 "[^\n]*kvlog_test.cpp\\([0-9]+\\): arithmetic is broken\n$");
}

} // namespace
