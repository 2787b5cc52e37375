/*
 * Logger factories, levels, module names, the method tracer and the test
 * capture helper.
 *
 * Registration: every factory call makes sure an empty file named after the
 * logger exists in the registration directory. The file's existence is the
 * record; it is never written or removed here. Child names contain dots, never
 * slashes, so all files lie directly in the directory. Failing to create the
 * directory or a file is an installation fault and aborts.
 */
#include "kvlog/kvlog.h"

#include "kvlog/debug_appender.h"
#include "kvlog/kvlog_assert.h"
#include "no_appender_warning.h"
#include "registration.h"

#include <log4cxx/helpers/loglog.h>
#include <log4cxx/level.h>
#include <log4cxx/logmanager.h>

#include <boost/filesystem.hpp>

#include <cassert>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

namespace kvlog {

namespace detail {

namespace {

std::mutex& pathMutex()
{
    static std::mutex m;
    return m;
}

std::string& pathStorage()
{
    static std::string path = LOGGER_REGISTRATION_PATH;
    return path;
}

} // namespace

std::string registrationPath()
{
    std::lock_guard<std::mutex> lock(pathMutex());
    return pathStorage();
}

void setRegistrationPath(const std::string& directoryWithSlash)
{
    std::lock_guard<std::mutex> lock(pathMutex());
    pathStorage() = directoryWithSlash;
}

} // namespace detail

namespace {

void ensureRegistrationDirectory(const std::string& dir)
{
    boost::system::error_code ec;
    const boost::filesystem::file_status st = boost::filesystem::status(dir, ec);
    if (!ec && boost::filesystem::exists(st)) {
        return;
    }
    boost::filesystem::create_directories(dir, ec);
    const std::string message = dir + " could not be created";
    BOOST_ASSERT_MSG(!ec, message.c_str());
}

void registerModuleName(const std::string& modulename)
{
    const std::string dir = detail::registrationPath();
    ensureRegistrationDirectory(dir);
    const std::string path = dir + modulename;
    if (access(path.c_str(), F_OK) == 0) {
        return;
    }
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0660);
    if (fd < 0) {
        const std::string message = "Could not create logger " + path + " " + std::strerror(errno);
        BOOST_ASSERT_MSG(fd >= 0, message.c_str());
    }
    close(fd);
}

LoggerPtr prependModuleNameWithHierarchyName(const std::string& moduleName, const char* prefix)
{
    std::string name = std::string(prefix) + "." + moduleName;
    for (char& c : name) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return getLogger(name);
}

bool startsWith(const std::string& s, const char* prefix)
{
    return s.compare(0, std::strlen(prefix), prefix) == 0;
}

} // namespace

void detail::silenceNoAppenderWarning()
{
    static std::once_flag once;
    std::call_once(once, [] {
        log4cxx::helpers::LogLog::setQuietMode(true);
        log4cxx::LogManager::getLoggerRepository()->emitNoAppenderWarning(log4cxx::Logger::getRootLogger().get());
        log4cxx::helpers::LogLog::setQuietMode(false);
    });
}

LoggerPtr getLogger(const std::string& modulename)
{
    BOOST_ASSERT_MSG(modulename.size() < MAX_MODULE_NAME_LENGTH, "Module name is too long");
    registerModuleName(modulename);
    detail::silenceNoAppenderWarning();
    return log4cxx::Logger::getLogger(modulename);
}

LoggerPtr getAdminLogger(const std::string& moduleName)
{
    return prependModuleNameWithHierarchyName(moduleName, adminstratorHierarchy);
}

LoggerPtr getNetworkLogger(const std::string& moduleName)
{
    return prependModuleNameWithHierarchyName(moduleName, networkHierarchy);
}

LoggerPtr getDeveloperLogger(const std::string& moduleName)
{
    return prependModuleNameWithHierarchyName(moduleName, developerHierarchy);
}

LoggerPtr getConfigLogger(const std::string& moduleName)
{
    return prependModuleNameWithHierarchyName(moduleName, configHierarchy);
}

LoggerPtr getUnitTestLogger(const std::string& moduleName)
{
    return prependModuleNameWithHierarchyName(moduleName, unittestHierarchy);
}

LoggerPtr getRootDeveloperLogger()
{
    return getLogger(developerHierarchy);
}

LoggerPtr getChildLogger(const LoggerPtr& parentlogger, const std::string& childname)
{
    assert(parentlogger && "parentLogger must be non NULL");
    assert(childname.length() > 0 && "Child must have a unique name");
    return getLogger(parentlogger->getName() + "." + childname);
}

bool isTraceEnabled(const LoggerPtr& logger)
{
    return logger && logger->isTraceEnabled();
}

bool isDebugEnabled(const LoggerPtr& logger)
{
    return logger && logger->isDebugEnabled();
}

bool isInfoEnabled(const LoggerPtr& logger)
{
    return logger && logger->isInfoEnabled();
}

bool isWarnEnabled(const LoggerPtr& logger)
{
    return logger && logger->isWarnEnabled();
}

bool isErrorEnabled(const LoggerPtr& logger)
{
    return logger && logger->isErrorEnabled();
}

bool isFatalEnabled(const LoggerPtr& logger)
{
    return logger && logger->isFatalEnabled();
}

int mapKVLogLevelToLog4cxxLevel(eKVLogLevel level)
{
    switch (level) {
    case KVLOG_LEVEL_ERROR:
        return log4cxx::Level::ERROR_INT;
    case KVLOG_LEVEL_WARN:
        return log4cxx::Level::WARN_INT;
    case KVLOG_LEVEL_INFO:
        return log4cxx::Level::INFO_INT;
    case KVLOG_LEVEL_DEBUG:
        return log4cxx::Level::DEBUG_INT;
    case KVLOG_LEVEL_TRACE:
        return log4cxx::Level::TRACE_INT;
    default:
        // Deliberately no log4cxx level: FATAL is never set through this path.
        return 2;
    }
}

eKVLogLevel mapLog4cxxLevelToKVLogLevel(int level)
{
    if (level <= log4cxx::Level::TRACE_INT) {
        return KVLOG_LEVEL_TRACE;
    }
    if (level <= log4cxx::Level::DEBUG_INT) {
        return KVLOG_LEVEL_DEBUG;
    }
    if (level <= log4cxx::Level::INFO_INT) {
        return KVLOG_LEVEL_INFO;
    }
    if (level <= log4cxx::Level::WARN_INT) {
        return KVLOG_LEVEL_WARN;
    }
    if (level <= log4cxx::Level::ERROR_INT) {
        return KVLOG_LEVEL_ERROR;
    }
    return KVLOG_LEVEL_FATAL;
}

bool isLegalModuleName(const std::string& name)
{
    if (name == rootModuleName) {
        return true;
    }
    static const char* const roots[] = {adminstratorHierarchy, developerHierarchy, networkHierarchy,
                                        configHierarchy, unittestHierarchy};
    bool rooted = false;
    for (const char* root : roots) {
        rooted = rooted || startsWith(name, root);
    }
    if (!rooted) {
        return false;
    }
    for (char c : name) {
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '.') {
            return false;
        }
    }
    return true;
}

// The records carry this file's location, not the traced function's: the
// function is named in the message.
MethodTracer::MethodTracer(const LoggerPtr& logger, const char* functionName)
    : m_logger(logger), m_functionName(functionName)
{
    if (isTraceEnabled(m_logger)) {
        KVLOG_TRACE(m_logger, " Entering function=\"" << m_functionName << "\"");
    }
}

MethodTracer::~MethodTracer()
{
    if (isTraceEnabled(m_logger)) {
        KVLOG_TRACE(m_logger, " Leaving function=\"" << m_functionName << "\"");
    }
}

TestLogHelper::TestLogHelper(const std::string& moduleName)
    : m_appender(std::make_shared<DebugAppender>())
{
    m_logger = getUnitTestLogger(moduleName);
    m_logger->addAppender(m_appender);
}

TestLogHelper::~TestLogHelper()
{
    m_logger->removeAppender(m_appender);
}

LoggerPtr TestLogHelper::getLogger() const
{
    return m_logger;
}

std::string TestLogHelper::getAllLoggedMessages() const
{
    return m_appender->getLogs();
}

} // namespace kvlog
