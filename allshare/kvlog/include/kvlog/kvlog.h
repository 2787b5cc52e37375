/**
 * @file
 * kvlog: the system's logging front end over log4cxx.
 *
 * Every subsystem logs through named loggers that form one dotted hierarchy
 * under five fixed roots ("administrator", "developer", "network", "config",
 * "unittest"), so that whole families can be configured at once.
 *
 * Usage: obtain a logger once, keep it in a function-local static, and log
 * through the level macros:
 *
 *     static const kvlog::LoggerPtr logger = kvlog::getDeveloperLogger("fsm");
 *     KVLOG_INFO(logger, " Detail=\"Started\" Tasks=\"" << n << "\"");
 *
 * The factories touch the file system (each logger name is recorded as an
 * empty file in LOGGER_REGISTRATION_PATH, so management tools can list every
 * logger ever used); they are meant for initialisation, not per record. The
 * macros test the level before formatting anything.
 */
#ifndef KVLOG_KVLOG_H
#define KVLOG_KVLOG_H

#include <log4cxx/logger.h>

#include <cstddef>
#include <exception>
#include <memory>
#include <string>

#pragma GCC visibility push(default)

namespace kvlog {

/** A shared handle of a log4cxx logger; loggers live as long as the process. */
using LoggerPtr = log4cxx::LoggerPtr;

/** Lower value = more severe. */
enum eKVLogLevel {
    KVLOG_LEVEL_FATAL = 0,
    KVLOG_LEVEL_ERROR = 1,
    KVLOG_LEVEL_WARN = 2,
    KVLOG_LEVEL_INFO = 3,
    KVLOG_LEVEL_DEBUG = 4,
    KVLOG_LEVEL_TRACE = 5,
    KVLOG_NUM_LEVELS = 6
};

///@{
/** Name of the root logger, and of the five hierarchy roots below it. */
constexpr char rootModuleName[] = "root";
constexpr char adminstratorHierarchy[] = "administrator";
constexpr char developerHierarchy[] = "developer";
constexpr char networkHierarchy[] = "network";
constexpr char configHierarchy[] = "config";
constexpr char unittestHierarchy[] = "unittest";
///@}

/** Directory where every logger name gets an empty file of that name. */
constexpr char LOGGER_REGISTRATION_PATH[] = "/tmp/management/logging/";
/** A path limit of 4096, less the registration path and a terminator: module
 * names must be shorter than this. */
constexpr std::size_t MAX_MODULE_NAME_LENGTH = 4096 - (sizeof(LOGGER_REGISTRATION_PATH) - 1) - 1;

///@{
/**
 * Logger factories. Each returns a non-null logger and records its name in
 * the registration directory. The name must be shorter than
 * MAX_MODULE_NAME_LENGTH; a longer one, or a registration directory or file
 * that cannot be created, is an installation or programming fault and aborts
 * through the assertion report.
 *
 * getLogger keeps the name's case; the hierarchy factories prepend their root
 * and a dot and lower-case the whole name, so "Foo" and "foo" are one logger.
 */
LoggerPtr getLogger(const std::string& moduleName);
LoggerPtr getAdminLogger(const std::string& moduleName);
LoggerPtr getNetworkLogger(const std::string& moduleName);
LoggerPtr getDeveloperLogger(const std::string& moduleName);
LoggerPtr getConfigLogger(const std::string& moduleName);
LoggerPtr getUnitTestLogger(const std::string& moduleName);
///@}
/** The "developer" root itself. */
LoggerPtr getRootDeveloperLogger();
/** parent's name + "." + childName, case kept. A null parent or an empty child
 * name is a programming fault (C assertion). */
LoggerPtr getChildLogger(const LoggerPtr& parentlogger, const std::string& childname);

///@{
/** False for a null logger, else the logger's own answer. */
bool isTraceEnabled(const LoggerPtr& logger);
bool isDebugEnabled(const LoggerPtr& logger);
bool isInfoEnabled(const LoggerPtr& logger);
bool isWarnEnabled(const LoggerPtr& logger);
bool isErrorEnabled(const LoggerPtr& logger);
bool isFatalEnabled(const LoggerPtr& logger);
///@}

///@{
/**
 * Level mapping. kvlog to log4cxx gives the log4cxx integer of ERROR..TRACE;
 * any other input, FATAL included, gives 2, which is no log4cxx level and so
 * reads back as log4cxx's default (DEBUG). FATAL is never assigned this way.
 * log4cxx to kvlog goes by thresholds: <= 5000 TRACE, <= 10000 DEBUG,
 * <= 20000 INFO, <= 30000 WARN, <= 40000 ERROR, above that FATAL.
 */
int mapKVLogLevelToLog4cxxLevel(eKVLogLevel level);
eKVLogLevel mapLog4cxxLevelToKVLogLevel(int level);
///@}

/** "root", or a name that begins with one of the five roots (a plain prefix
 * test) and consists of ASCII letters, digits, "_" and "." only. */
bool isLegalModuleName(const std::string& name);

/**
 * Logs " Entering function=\"name\"" at TRACE when constructed and
 * " Leaving function=\"name\"" when destroyed, each only if TRACE is enabled
 * at that moment. functionName is borrowed and must outlive the tracer.
 */
class MethodTracer {
public:
    /** Logs the entry line at TRACE if enabled; the destructor logs the leaving line. */
    MethodTracer(const LoggerPtr& logger, const char* functionName);
    ~MethodTracer();
    MethodTracer(const MethodTracer&) = delete;
    MethodTracer& operator=(const MethodTracer&) = delete;

private:
    LoggerPtr m_logger;
    const char* m_functionName;
};

class DebugAppender;

/**
 * Captures what is logged to "unittest." + the lower-cased module name (and
 * its descendants) for the helper's lifetime.
 */
class TestLogHelper {
public:
    /** Attaches an in-memory appender to the logger "unittest." + the lower-cased moduleName; the
     * destructor detaches it. */
    explicit TestLogHelper(const std::string& moduleName);
    ~TestLogHelper();
    TestLogHelper(const TestLogHelper&) = delete;
    TestLogHelper& operator=(const TestLogHelper&) = delete;

    /** The captured logger: log through it (or its children) to have records captured. */
    LoggerPtr getLogger() const;
    /** Everything captured since construction, in order. */
    std::string getAllLoggedMessages() const;

private:
    LoggerPtr m_logger;
    std::shared_ptr<DebugAppender> m_appender;
};

} // namespace kvlog

namespace kvlog {
namespace detail {

/** The logging call of the level macros. A record that cannot be written
 * never reaches the caller as an exception: log4cxx 1.0 file appenders let
 * I/O errors (a full disk, /dev/full) escape from the logging call, which
 * would end a thread that merely logged. Only std::exception is caught, so
 * thread cancellation still unwinds. */
template <typename Text>
inline void forcedLog(const LoggerPtr& logger, const log4cxx::LevelPtr& level, const Text& text,
                      const log4cxx::spi::LocationInfo& location)
{
    try {
        logger->forcedLog(level, text, location);
    } catch (const std::exception&) {
    }
}

} // namespace detail
} // namespace kvlog

///@{
/** One macro per level: thin wrappers over log4cxx's own, so a disabled level
 * costs one check and formats nothing. `message` is a stream expression; it
 * is built outside the guard, so an exception the caller's own expression
 * throws (`v.at(3)`) reaches the caller. */
#define KVLOG_LOG_(logger, enabledFor, level, message)                                                                \
    do {                                                                                                               \
        if (::log4cxx::Logger::enabledFor(logger)) {                                                                   \
            ::log4cxx::helpers::MessageBuffer kvlogBuffer_;                                                            \
            ::kvlog::detail::forcedLog(logger, ::log4cxx::Level::level(), kvlogBuffer_.str(kvlogBuffer_ << message),   \
                                       LOG4CXX_LOCATION);                                                              \
        }                                                                                                              \
    } while (0)
#define KVLOG_TRACE(logger, message) KVLOG_LOG_(logger, isTraceEnabledFor, getTrace, message)
#define KVLOG_DEBUG(logger, message) KVLOG_LOG_(logger, isDebugEnabledFor, getDebug, message)
#define KVLOG_INFO(logger, message) KVLOG_LOG_(logger, isInfoEnabledFor, getInfo, message)
#define KVLOG_WARN(logger, message) KVLOG_LOG_(logger, isWarnEnabledFor, getWarn, message)
#define KVLOG_ERROR(logger, message) KVLOG_LOG_(logger, isErrorEnabledFor, getError, message)
#define KVLOG_FATAL(logger, message) KVLOG_LOG_(logger, isFatalEnabledFor, getFatal, message)
///@}

/** Traces entry to and exit from the enclosing function. */
#define KVLOG_TRACE_METHOD(logger) ::kvlog::MethodTracer kvlogMethodTracer_(logger, __func__)

#pragma GCC visibility pop
#endif
