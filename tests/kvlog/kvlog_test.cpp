#include "kvlog/debug_appender.h"
#include "kvlog/kvlog.h"
#include "kvlog/kvlog_assert.h"
#include "platform/linux_logger.h"
#include "registration.h"

#include <gtest/gtest.h>
#include <log4cxx/level.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool fileExists(const std::string& path)
{
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// A private registration directory per test, removed afterwards.
class KvlogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/kvlog-test-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = std::string(tmpl) + "/registration/";
        kvlog::detail::setRegistrationPath(dir);
        root = tmpl;
    }
    void TearDown() override
    {
        kvlog::detail::setRegistrationPath(kvlog::LOGGER_REGISTRATION_PATH);
        std::string cmd = "rm -rf " + root;
        ASSERT_EQ(std::system(cmd.c_str()), 0);
    }
    std::string root, dir;
};

TEST(KvlogModuleName, Legality)
{
    struct Row {
        const char* name;
        bool legal;
    } rows[] = {
        {"root", true},
        {"developer", true},
        {"developer.111", true},
        {"developer.aaa_bbb", true},
        {"network.aaa1.bbb2.ccc3", true},
        {"administrator.aaa1.bbb2.ccc3", true},
        {"unittest.aaa", true},
        {"config.x", true},
        {"developerfoo", true}, // a plain prefix test: no dot needed
        {"aaa", false},
        {"develop", false},
        {"developer.module a", false},
        {"developer.module-a", false},
        {"developer.module%a", false},
        {"developer.module!a", false},
        {"developer/x", false},
        {"", false},
        {"Root", false},
        {"Developer.x", false}, // the roots are case-sensitive
        {"root.x", false},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(kvlog::isLegalModuleName(r.name), r.legal) << '"' << r.name << '"';
    }
}

TEST(KvlogLevels, MappingBothWays)
{
    struct ToLog4cxx {
        kvlog::eKVLogLevel level;
        int expect;
    } to[] = {
        {kvlog::KVLOG_LEVEL_ERROR, 40000}, {kvlog::KVLOG_LEVEL_WARN, 30000}, {kvlog::KVLOG_LEVEL_INFO, 20000},
        {kvlog::KVLOG_LEVEL_DEBUG, 10000}, {kvlog::KVLOG_LEVEL_TRACE, 5000},
        {kvlog::KVLOG_LEVEL_FATAL, 2}, // kept: FATAL is never assigned through this path
        {kvlog::KVLOG_NUM_LEVELS, 2},
    };
    for (const ToLog4cxx& r : to) {
        EXPECT_EQ(kvlog::mapKVLogLevelToLog4cxxLevel(r.level), r.expect) << r.level;
    }
    // 2 is no log4cxx level: converting it falls back to log4cxx's DEBUG.
    EXPECT_EQ(log4cxx::Level::toLevel(kvlog::mapKVLogLevelToLog4cxxLevel(kvlog::KVLOG_LEVEL_FATAL))->toInt(),
              log4cxx::Level::DEBUG_INT);

    struct FromLog4cxx {
        int value;
        kvlog::eKVLogLevel expect;
    } from[] = {
        {log4cxx::Level::ALL_INT, kvlog::KVLOG_LEVEL_TRACE}, {5000, kvlog::KVLOG_LEVEL_TRACE},
        {5001, kvlog::KVLOG_LEVEL_DEBUG},  {10000, kvlog::KVLOG_LEVEL_DEBUG},
        {10001, kvlog::KVLOG_LEVEL_INFO},  {20000, kvlog::KVLOG_LEVEL_INFO},
        {30000, kvlog::KVLOG_LEVEL_WARN},  {40000, kvlog::KVLOG_LEVEL_ERROR},
        {40001, kvlog::KVLOG_LEVEL_FATAL}, {log4cxx::Level::OFF_INT, kvlog::KVLOG_LEVEL_FATAL},
    };
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
}

TEST_F(KvlogTest, RegistrationFileIsCreatedEmptyAndLeftAlone)
{
    kvlog::LoggerPtr first = kvlog::getLogger("developer.regtest");
    struct stat st {};
    ASSERT_EQ(::stat((dir + "developer.regtest").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 0);
    const mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(st.st_mode & 0777, 0660 & ~mask);

    // Something else writes the file: a second call must not touch it.
    { std::ofstream(dir + "developer.regtest") << "marker"; }
    EXPECT_EQ(kvlog::getLogger("developer.regtest"), first);
    std::ifstream in(dir + "developer.regtest");
    std::string content;
    std::getline(in, content);
    EXPECT_EQ(content, "marker");
}

TEST(KvlogRegistration, DefaultDirectoryIsTheContractPath)
{
    kvlog::getDeveloperLogger("registration_default_probe");
    EXPECT_TRUE(fileExists(std::string(kvlog::LOGGER_REGISTRATION_PATH) + "developer.registration_default_probe"));
    EXPECT_EQ(kvlog::MAX_MODULE_NAME_LENGTH, 4071u);
}

TEST(KvlogEnabled, NullIsNeverEnabledAndLevelsAreTheLoggers)
{
    kvlog::LoggerPtr none;
    EXPECT_FALSE(kvlog::isTraceEnabled(none));
    EXPECT_FALSE(kvlog::isDebugEnabled(none));
    EXPECT_FALSE(kvlog::isInfoEnabled(none));
    EXPECT_FALSE(kvlog::isWarnEnabled(none));
    EXPECT_FALSE(kvlog::isErrorEnabled(none));
    EXPECT_FALSE(kvlog::isFatalEnabled(none));

    kvlog::LoggerPtr l = kvlog::getUnitTestLogger("enabled_checks");
    l->setLevel(log4cxx::Level::getWarn());
    EXPECT_FALSE(kvlog::isTraceEnabled(l));
    EXPECT_FALSE(kvlog::isDebugEnabled(l));
    EXPECT_FALSE(kvlog::isInfoEnabled(l));
    EXPECT_TRUE(kvlog::isWarnEnabled(l));
    EXPECT_TRUE(kvlog::isErrorEnabled(l));
    EXPECT_TRUE(kvlog::isFatalEnabled(l));
}

TEST(KvlogMacros, DisabledLevelsFormatNothing)
{
    kvlog::TestLogHelper helper("macros");
    kvlog::LoggerPtr l = helper.getLogger();
    l->setLevel(log4cxx::Level::getInfo());
    int evaluated = 0;
    auto count = [&evaluated]() { return ++evaluated; };
    KVLOG_TRACE(l, "t" << count());
    KVLOG_DEBUG(l, "d" << count());
    KVLOG_INFO(l, "i" << count());
    KVLOG_WARN(l, "w" << count());
    KVLOG_ERROR(l, "e" << count());
    KVLOG_FATAL(l, "f" << count());
    EXPECT_EQ(evaluated, 4);
    EXPECT_EQ(helper.getAllLoggedMessages(), "INFO - i1\nWARN - w2\nERROR - e3\nFATAL - f4\n");
}

void tracedFunction(const kvlog::LoggerPtr& l)
{
    KVLOG_TRACE_METHOD(l);
    KVLOG_TRACE(l, "inside");
}

TEST(KvlogMethodTracer, EnteringAndLeavingAtTrace)
{
    kvlog::TestLogHelper helper("tracer");
    kvlog::LoggerPtr l = helper.getLogger();
    l->setLevel(log4cxx::Level::getTrace());
    tracedFunction(l);
    EXPECT_EQ(helper.getAllLoggedMessages(), "TRACE -  Entering function=\"tracedFunction\"\n"
                                             "TRACE - inside\n"
                                             "TRACE -  Leaving function=\"tracedFunction\"\n");

    kvlog::TestLogHelper quiet("tracer_quiet");
    quiet.getLogger()->setLevel(log4cxx::Level::getDebug());
    tracedFunction(quiet.getLogger());
    EXPECT_EQ(quiet.getAllLoggedMessages(), "");
}

TEST(KvlogMethodTracer, LevelIsTestedAgainOnExit)
{
    kvlog::TestLogHelper helper("tracer_change");
    kvlog::LoggerPtr l = helper.getLogger();
    l->setLevel(log4cxx::Level::getTrace());
    {
        kvlog::MethodTracer t(l, "f");
        l->setLevel(log4cxx::Level::getInfo());
    }
    EXPECT_EQ(helper.getAllLoggedMessages(), "TRACE -  Entering function=\"f\"\n");
}

TEST(KvlogTestLogHelper, CapturesTheLowerCasedUnittestLoggerUntilDestroyed)
{
    kvlog::LoggerPtr target;
    {
        kvlog::TestLogHelper helper("MixedCase");
        target = helper.getLogger();
        EXPECT_EQ(target->getName(), "unittest.mixedcase");
        KVLOG_ERROR(kvlog::getUnitTestLogger("mixedcase"), "one");
        KVLOG_ERROR(kvlog::getChildLogger(target, "child"), "two"); // descendants reach it too
        EXPECT_EQ(helper.getAllLoggedMessages(), "ERROR - one\nERROR - two\n");
    }
    EXPECT_TRUE(target->getAllAppenders().empty());
}

TEST(PlatformLoggers, FixedNames)
{
    EXPECT_EQ(getLinuxAbstractionLogger()->getName(), "developer.abstraction");
    EXPECT_EQ(getLinuxPlatformLogger()->getName(), "developer.platform");
    EXPECT_EQ(getLinuxAbstractionLogger(), getLinuxAbstractionLogger());
}

using KvlogDeathTest = KvlogTest;

TEST_F(KvlogDeathTest, ModuleNameLengthLimit)
{
    const std::string tooLong(4071, 'a');
    EXPECT_DEATH(kvlog::getLogger(tooLong),
                 "^\\*\\*\\*\\*\\* Internal Program Error - assertion \\(modulename.size\\(\\) < "
                 "MAX_MODULE_NAME_LENGTH\\) failed in [^\n]*kvlog::getLogger[^\n]*:\n[^\n]*kvlog.cpp\\([0-9]+\\): "
                 "Module name is too long\n");
    // 4070 characters pass the length check; a single path component that long
    // exceeds the file system's name limit, so registration is what fails.
    const std::string longest(4070, 'a');
    EXPECT_DEATH(kvlog::getLogger(longest), "Could not create logger .* File name too long");
}

TEST_F(KvlogDeathTest, RegistrationDirectoryThatCannotBeCreated)
{
    kvlog::detail::setRegistrationPath("/proc/kvlog-no-such-dir/");
    EXPECT_DEATH(kvlog::getLogger("developer.x"), "\\): /proc/kvlog-no-such-dir/ could not be created\n");
}

TEST_F(KvlogDeathTest, ChildLoggerArguments)
{
    kvlog::LoggerPtr none;
    EXPECT_DEATH(kvlog::getChildLogger(none, "c"), "parentlogger && \"parentLogger must be non NULL\"");
    EXPECT_DEATH(kvlog::getChildLogger(kvlog::getLogger("developer.p"), ""),
                 "childname.length\\(\\) > ?0 && \"Child must have a unique name\"");
}

TEST(KvlogAssertDeathTest, ReportFormatAndAbort)
{
    EXPECT_DEATH(BOOST_ASSERT_MSG(1 + 1 == 3, "arithmetic is broken"),
                 "^\\*\\*\\*\\*\\* Internal Program Error - assertion \\(1 \\+ 1 == 3\\) failed in [^\n]*TestBody[^\n]*:\n"
                 "[^\n]*kvlog_test.cpp\\([0-9]+\\): arithmetic is broken\n$");
}

} // namespace
