/*
 * Self-test unit of the logging subsystem, written as object-style tests:
 * module names, level mapping, logger factories, the debug appender and
 * TestLogHelper, the sanitiser with its decision rules, and the controller's
 * level handling.
 *
 * The unit writes only below the "unittest" hierarchy and uses the test
 * variant of the certification-mode marker ("/tmp/temp-test-file"), which it
 * creates and removes itself.
 */
#include "abstraction/kvos.h"
#include "kvlog/debug_appender.h"
#include "kvlog/kvlog.h"
#include "kvlog/kvlog_control.h"
#include "kvlog/kvlog_sanitiser.h"
#include "kvlog/unittests.h"
#include "unittest/cplusplus/ITest.h"
#include "unittest/cplusplus/TestSuite.h"
#include "unittest/unittest.h"

#include <log4cxx/level.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <unistd.h>

namespace {

class ModuleNameTest : public ITest {
public:
    void run() override
    {
        unittest_context("module names");
        const char* legal[] = {"root", "developer", "developer.111", "developer.aaa_bbb", "network.aaa1.bbb2.ccc3",
                               "administrator.aaa1.bbb2.ccc3", "unittest.aaa", "developerfoo"};
        const char* illegal[] = {"", "aaa", "develop", "developer.module a", "developer.module-a",
                                 "developer.module%a", "developer.module!a", "Developer.x"};
        for (const char* name : legal) {
            ITEST_CHECK(kvlog::isLegalModuleName(name));
        }
        for (const char* name : illegal) {
            ITEST_CHECK(!kvlog::isLegalModuleName(name));
        }
    }
};

class LevelMappingTest : public ITest {
public:
    void run() override
    {
        unittest_context("level mapping");
        ITEST_CHECK(kvlog::mapKVLogLevelToLog4cxxLevel(kvlog::KVLOG_LEVEL_ERROR) == 40000);
        ITEST_CHECK(kvlog::mapKVLogLevelToLog4cxxLevel(kvlog::KVLOG_LEVEL_WARN) == 30000);
        ITEST_CHECK(kvlog::mapKVLogLevelToLog4cxxLevel(kvlog::KVLOG_LEVEL_INFO) == 20000);
        ITEST_CHECK(kvlog::mapKVLogLevelToLog4cxxLevel(kvlog::KVLOG_LEVEL_DEBUG) == 10000);
        ITEST_CHECK(kvlog::mapKVLogLevelToLog4cxxLevel(kvlog::KVLOG_LEVEL_TRACE) == 5000);
        // FATAL is never assigned this way: it maps to 2, no log4cxx level.
        ITEST_CHECK(kvlog::mapKVLogLevelToLog4cxxLevel(kvlog::KVLOG_LEVEL_FATAL) == 2);
        ITEST_CHECK(kvlog::mapLog4cxxLevelToKVLogLevel(5000) == kvlog::KVLOG_LEVEL_TRACE);
        ITEST_CHECK(kvlog::mapLog4cxxLevelToKVLogLevel(5001) == kvlog::KVLOG_LEVEL_DEBUG);
        ITEST_CHECK(kvlog::mapLog4cxxLevelToKVLogLevel(20000) == kvlog::KVLOG_LEVEL_INFO);
        ITEST_CHECK(kvlog::mapLog4cxxLevelToKVLogLevel(40000) == kvlog::KVLOG_LEVEL_ERROR);
        ITEST_CHECK(kvlog::mapLog4cxxLevelToKVLogLevel(40001) == kvlog::KVLOG_LEVEL_FATAL);
        ITEST_CHECK(kvlog::mapLog4cxxLevelToKVLogLevel(log4cxx::Level::ALL_INT) == kvlog::KVLOG_LEVEL_TRACE);
        ITEST_CHECK(kvlog::mapLog4cxxLevelToKVLogLevel(log4cxx::Level::OFF_INT) == kvlog::KVLOG_LEVEL_FATAL);
    }
};

class FactoryTest : public ITest {
public:
    void run() override
    {
        unittest_context("logger factories");
        ITEST_CHECK(kvlog::getUnitTestLogger("KVLog_Unit")->getName() == "unittest.kvlog_unit");
        ITEST_CHECK(kvlog::getUnitTestLogger("KVLog_Unit") == kvlog::getUnitTestLogger("kvlog_unit"));
        ITEST_CHECK(kvlog::getLogger("unittest.KVLog_Unit")->getName() == "unittest.KVLog_Unit");
        const kvlog::LoggerPtr parent = kvlog::getUnitTestLogger("kvlog_unit.myclass");
        ITEST_CHECK(kvlog::getChildLogger(parent, "mySub")->getName() == "unittest.kvlog_unit.myclass.mySub");
        ITEST_CHECK(access((std::string(kvlog::LOGGER_REGISTRATION_PATH) + "unittest.kvlog_unit.myclass.mySub").c_str(),
                           F_OK) == 0);
        ITEST_CHECK(!kvlog::isDebugEnabled(kvlog::LoggerPtr()));
    }
};

class DebugAppenderTest : public ITest {
public:
    void run() override
    {
        unittest_context("debug appender");
        const kvlog::LoggerPtr logger = kvlog::getUnitTestLogger("kvlog_unit.appender");
        const log4cxx::LevelPtr saved = logger->getLevel();
        logger->setLevel(log4cxx::Level::getInfo());
        auto appender = std::make_shared<kvlog::DebugAppender>();
        auto other = std::make_shared<kvlog::DebugAppender>(); // keeps the logger from having none
        ITEST_CHECK(appender->getLogs().empty());
        logger->addAppender(other);
        logger->addAppender(appender);
        KVLOG_INFO(logger, "hello " << 42);
        KVLOG_DEBUG(logger, "below the level");
        logger->removeAppender(appender);
        KVLOG_INFO(logger, "after removal");
        logger->removeAppender(other);
        logger->setLevel(saved);
        ITEST_CHECK(appender->getLogs() == "INFO - hello 42\n");
        ITEST_CHECK(other->getLogs() == "INFO - hello 42\nINFO - after removal\n");

        ITEST_CHECK(kvlog::LoggerInfo("developer", kvlog::KVLOG_LEVEL_INFO, "INFO").getAppender() ==
                    "developerAppender");
        ITEST_CHECK(kvlog::LoggerInfo("developer.abstraction", kvlog::KVLOG_LEVEL_INFO, "INFO", "developer")
                        .getAppender()
                        .empty());
        ITEST_CHECK(!kvlog::LoggerInfo("network", kvlog::KVLOG_LEVEL_WARN, "WARN").isInherited());
        ITEST_CHECK(kvlog::LoggerInfo("network.x", kvlog::KVLOG_LEVEL_WARN, "WARN", "network").isInherited());
    }
};

class TestLogHelperTest : public ITest {
public:
    void run() override
    {
        unittest_context("test log helper");
        kvlog::LoggerPtr logger;
        {
            kvlog::TestLogHelper helper("KVLog_Unit.Helper");
            logger = helper.getLogger();
            ITEST_CHECK(logger->getName() == "unittest.kvlog_unit.helper");
            const log4cxx::LevelPtr saved = logger->getLevel();
            logger->setLevel(log4cxx::Level::getWarn());
            KVLOG_WARN(logger, "captured");
            KVLOG_INFO(logger, "filtered");
            logger->setLevel(saved);
            ITEST_CHECK(helper.getAllLoggedMessages() == "WARN - captured\n");
        }
        ITEST_CHECK(logger->getAllAppenders().empty());
    }
};

std::string sanitise(void (*f)(std::ostream&, const std::string&, kvlog::bool_opt_t), const std::string& text,
                     kvlog::bool_opt_t decision)
{
    std::ostringstream out;
    f(out, text, decision);
    return out.str();
}

class SanitiserTest : public ITest {
public:
    void run() override
    {
        unittest_context("sanitiser");
        const std::string sip = "REGISTER sip:example.net SIP/2.0\r\nAuthorization: Bearer token=\"";
        const std::string end = "\"\r\nContent-Length: 0\r\n\r\n";
        ITEST_CHECK(sanitise(kvlog::streamStringReplaceOauthTokenParam, sip + "abcDEF1234567" + end, boost::none) ==
                    sip + std::string(13, '.') + end);
        ITEST_CHECK(kvlog::stringReplaceOauthTokenTag("<a/><token>0123456789abc</token><b/>") ==
                    "<a/><token>" + std::string(13, '.') + "</token><b/>");
        ITEST_CHECK(kvlog::stringReplaceOauthTokenJson(R"({"token":"a.b","n":"c"})") == R"({"token":"...","n":"c"})");
        // OAuth: any explicit decision means "as is".
        ITEST_CHECK(sanitise(kvlog::streamStringReplaceOauthTokenParam, "token=\"x\"", false) == "token=\"x\"");

        const std::string sdp = "a=crypto:3 AES_CM_128_HMAC_SHA1_80 inline:" + std::string(43, 'K') +
                                "|2^48 UNENCRYPTED_SRTCP\r\na=x inline:";
        ITEST_CHECK(sanitise(kvlog::streamStringReplaceSdpKeys, sdp, false) ==
                    "a=crypto:3 AES_CM_128_HMAC_SHA1_80 inline" + std::string(48, '.') +
                        " UNENCRYPTED_SRTCP\r\na=x inline");
        ITEST_CHECK(sanitise(kvlog::streamStringReplaceSdpKeys, "inline: abc", false) == "inline abc");
        ITEST_CHECK(sanitise(kvlog::streamStringReplaceDebugKeys, "[  0] keys=" + std::string(45, 'k') + ", params={}",
                             false) == "[  0] keys=" + std::string(45, '.') + ", params={}");
        ITEST_CHECK(sanitise(kvlog::streamStringReplaceDebugKeys, "keys=abc", true) == "keys=abc");

        const unsigned char bytes[] = {'h', 'i', 0x00, 0xff};
        ITEST_CHECK(kvlog::hexDumpToString(bytes, sizeof(bytes)) ==
                    "0000  68 69 00 ff" + std::string(39, ' ') + "|hi..|\n");
    }
};

class CertModeTest : public ITest {
public:
    void run() override
    {
        unittest_context("certification mode");
        const kvlog::LoggerPtr cryptoKeys = kvlog::getDeveloperLogger("cryptokeys");
        const log4cxx::LevelPtr saved = cryptoKeys->getLevel();
        ::unlink(kvlog::CERT_MODE_TEST_MARKER_PATH);
        cryptoKeys->setLevel(log4cxx::Level::getTrace());
        ITEST_CHECK(!kvlog::isCertModeLoggingEnabled(true));
        ITEST_CHECK(kvlog::shouldLogCryptoKeys(true));
        FILE* f = std::fopen(kvlog::CERT_MODE_TEST_MARKER_PATH, "w");
        ITEST_CHECK(f != nullptr);
        if (f) {
            std::fclose(f);
        }
        ITEST_CHECK(kvlog::isCertModeLoggingEnabled(true));
        ITEST_CHECK(!kvlog::shouldLogCryptoKeys(true));
        ::unlink(kvlog::CERT_MODE_TEST_MARKER_PATH);
        ITEST_CHECK(kvlog::shouldLogCryptoKeys(true));
        cryptoKeys->setLevel(log4cxx::Level::getDebug());
        ITEST_CHECK(!kvlog::shouldLogCryptoKeys(true)); // DEBUG is not enough
        cryptoKeys->setLevel(saved);
    }
};

// The controller's level handling, on the process's controller when there is
// one, else on a controller of its own whose configuration directory is a
// scratch directory (installed in the path map for the duration).
class ControllerTest : public ITest {
public:
    void run() override
    {
        unittest_context("controller");
        _kv_path_map* savedMap = kvos_get_path_map();
        _kv_path_map* ownMap = nullptr;
        std::string scratch;
        const bool own = kvlog::getKVLogController() == nullptr;
        if (own) {
            char tmpl[] = "/tmp/unittest-kvlog-XXXXXX";
            if (::mkdtemp(tmpl) == nullptr) {
                doFail("mkdtemp(tmpl) != nullptr", __FILE__, __LINE__);
                return;
            }
            scratch = tmpl;
            ownMap = KVOS_addPathMap(nullptr, PATH_TYPE_ZEL_CONFIG, scratch.c_str());
            kvos_set_path_map(ownMap);
            initKVLog("unittest_kvlog", (scratch + "/kvlog.log").c_str());
        }
        kvlog::kvlog_control* ctl = kvlog::getKVLogController();
        const kvlog::LoggerPtr module = kvlog::getUnitTestLogger("kvlog_unit.ctl.module");
        const kvlog::LoggerPtr child = kvlog::getUnitTestLogger("kvlog_unit.ctl.module.child");
        const kvlog::LoggerPtr module2 = kvlog::getUnitTestLogger("kvlog_unit.ctl.module2");
        child->setLevel(log4cxx::Level::getError());
        module2->setLevel(log4cxx::Level::getError());

        ITEST_CHECK(ctl->loggerExists("root"));
        ITEST_CHECK(ctl->loggerExists("unittest.kvlog_unit.ctl.module.child"));
        ITEST_CHECK(!ctl->loggerExists("unittest.kvlog_unit.wibble"));
        ITEST_CHECK(ctl->getKVLogLevel("unittest.kvlog_unit.wibble") == kvlog::KVLOG_NUM_LEVELS);
        ctl->setKVLogLevel("unittest.kvlog_unit.ctl.module", kvlog::KVLOG_LEVEL_TRACE);
        ITEST_CHECK(ctl->getKVLogLevel("unittest.kvlog_unit.ctl.module.child") == kvlog::KVLOG_LEVEL_TRACE);
        ITEST_CHECK(!child->getLevel());
        ITEST_CHECK(ctl->getKVLogLevel("unittest.kvlog_unit.ctl.module2") == kvlog::KVLOG_LEVEL_ERROR);
        ITEST_CHECK(ctl->getChildren("unittest.kvlog_unit.ctl.module").size() == 1);

        std::ostringstream dump;
        ctl->dumpKVLogStatus(dump);
        ITEST_CHECK(dump.str().find("\nunittest.kvlog_unit.ctl.module, TRACE (assigned)\n") != std::string::npos);
        ITEST_CHECK(dump.str().find("\nunittest.kvlog_unit.ctl.module.child, TRACE (inherited from "
                                    "unittest.kvlog_unit.ctl.module)\n") != std::string::npos);

        module->setLevel(log4cxx::LevelPtr());
        module2->setLevel(log4cxx::LevelPtr());
        if (own) {
            shutdownKVLog();
            kvos_set_path_map(savedMap);
            kvos_free_path_map(ownMap);
            std::system(("rm -rf " + scratch).c_str());
        }
    }
};

} // namespace

void unittest_kvlog(void)
{
    TestSuite suite("kvlog");
    suite.addTest(new ModuleNameTest);
    suite.addTest(new LevelMappingTest);
    suite.addTest(new FactoryTest);
    suite.addTest(new DebugAppenderTest);
    suite.addTest(new TestLogHelperTest);
    suite.addTest(new SanitiserTest);
    suite.addTest(new CertModeTest);
    suite.addTest(new ControllerTest);
    suite.run();
    unittest_context("kvlog");
    suite.report();
    // Every failure above is already a failed runner check; this one shows
    // that the suite ran at all.
    unittest_assert(suite.getNumPassed() > 0);
    suite.free();
}
