#include "kvlog/debug_appender.h"

#include <gtest/gtest.h>
#include <log4cxx/helpers/bytebuffer.h>
#include <log4cxx/helpers/pool.h>
#include <log4cxx/patternlayout.h>

namespace {

TEST(DebugAppender, FreshAppenderIsEmpty)
{
    kvlog::DebugAppender appender;
    EXPECT_EQ(appender.getLogs(), "");
}

TEST(DebugAppender, DefaultLayoutIsLevelDashMessage)
{
    auto appender = std::make_shared<kvlog::DebugAppender>();
    kvlog::LoggerPtr l = kvlog::getUnitTestLogger("debug_appender_default");
    l->setLevel(log4cxx::Level::getTrace());
    l->addAppender(appender);
    KVLOG_INFO(l, "hello " << 42);
    KVLOG_DEBUG(l, "two\nlines");
    l->removeAppender(appender);
    KVLOG_INFO(l, "not captured");
    EXPECT_EQ(appender->getLogs(), "INFO - hello 42\nDEBUG - two\nlines\n");
}

TEST(DebugAppender, GivenLayout)
{
    auto appender = std::make_shared<kvlog::DebugAppender>(std::make_shared<log4cxx::PatternLayout>("[%c] %m%n"));
    kvlog::LoggerPtr l = kvlog::getUnitTestLogger("debug_appender_layout");
    l->addAppender(appender);
    KVLOG_WARN(l, "w");
    l->removeAppender(appender);
    EXPECT_EQ(appender->getLogs(), "[unittest.debug_appender_layout] w\n");
}

TEST(MemoryOutputStream, ConsumesTheWholeBuffer)
{
    kvlog::MemoryOutputStream os;
    char data[] = "abcdef";
    log4cxx::helpers::ByteBuffer buf(data, 6);
    buf.position(2);
    log4cxx::helpers::Pool pool;
    os.write(buf, pool);
    EXPECT_EQ(buf.position(), buf.limit());
    EXPECT_EQ(os.toString(), "cdef");
    EXPECT_TRUE(os.instanceof(log4cxx::helpers::OutputStream::getStaticClass()));
}

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
        kvlog::LoggerInfo info(r.module, kvlog::KVLOG_LEVEL_INFO, "INFO");
        EXPECT_EQ(info.getAppender(), r.appender) << r.module;
    }
}

TEST(LoggerInfo, InheritedOnlyWithAParent)
{
    kvlog::LoggerInfo own("developer.x", kvlog::KVLOG_LEVEL_DEBUG, "DEBUG");
    EXPECT_FALSE(own.isInherited());
    EXPECT_EQ(own.getParent(), "");
    kvlog::LoggerInfo inherited("developer.x", kvlog::KVLOG_LEVEL_WARN, "WARN", "developer");
    EXPECT_TRUE(inherited.isInherited());
    EXPECT_EQ(inherited.getModule(), "developer.x");
    EXPECT_EQ(inherited.getLevel(), kvlog::KVLOG_LEVEL_WARN);
    EXPECT_EQ(inherited.getLevelAsString(), "WARN");
    EXPECT_EQ(inherited.getParent(), "developer");
}

} // namespace
