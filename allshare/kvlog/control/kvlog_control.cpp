/*
 * Log controller and configuration-file monitor.
 *
 * Design notes:
 *  - log4cxx 1.0 must not be reconfigured while another reconfiguration runs;
 *    "kvlog mutex" serialises every reset + configure, the listing and the
 *    monitor's shut-down.
 *  - stop() holds "kvlog mutex" while it waits for the loop to end. A change
 *    already past its stop-flag test but not yet holding the mutex would then
 *    wait for ever, so changes pass a small gate first: stop() closes the gate
 *    and waits for a change in progress to finish before it takes the mutex,
 *    and the loop does not start a change once the gate is closed.
 *  - The built-in properties leave the root and "unittest" loggers without
 *    appenders on purpose. log4cxx would print one "No appender could be
 *    found" warning on stderr for the first record that reaches no appender;
 *    that one warning is used up silently (no_appender_warning.h) before the
 *    controller configures.
 */
#include "kvlog/kvlog_control.h"
#include "no_appender_warning.h"

#include "abstraction/kvos.h"
#include "abstraction/kvos_mutex.h"
#include "abstraction/kvos_task.h"

#include <log4cxx/file.h>
#include <log4cxx/helpers/properties.h>
#include <log4cxx/logmanager.h>
#include <log4cxx/propertyconfigurator.h>

#include <sys/inotify.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>

namespace kvlog {

const char* const configfilename = "kvlog.conf";
kvlog_control* kvlogController = nullptr;

namespace {

KVOS_MUTEX kvlogmutex;
// openlog keeps the pointer it is given.
std::string gSyslogIdent;

constexpr int kPathBufferSize = 100;
constexpr size_t kNotificationBufferSize = 3200;
constexpr uint32_t kWatchMask = IN_CLOSE_WRITE | IN_MOVED_TO | IN_Q_OVERFLOW;    // 0x4088
constexpr uint32_t kChangeMask = IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_TO;       // 0x8a
constexpr KVOS_TASK_PRI kMonitorPriority = 70;
constexpr unsigned kMonitorStackSize = 0x7A000;
constexpr const char* kMonitorTaskName = "KVLogConfigFileMonitor";

const char* const kConversionPattern =
    "UTCTime=\"%d{}{GMT}\" Module=\"%c\" Level=\"%p\" CodeLocation=\"%l\" Method=\"%C::%M\" Thread=\"%t\": %m%n";

const LoggerPtr& controlLogger()
{
    static const LoggerPtr logger = getDeveloperLogger("kvlog.control");
    return logger;
}

std::string errorText(int err)
{
    return std::strerror(err);
}

class MutexLock {
public:
    MutexLock() { KVOS_mutexLock(&kvlogmutex); }
    ~MutexLock() { KVOS_mutexUnlock(&kvlogmutex); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;
};

// The gate in front of "kvlog mutex" for the monitor's changes (see the
// design notes). One per process, like the mutex.
struct ChangeGate {
    std::mutex m;
    std::condition_variable cv;
    bool closed = false;
    bool changing = false;
};
ChangeGate gate;

bool threadAlive(pid_t lwp)
{
    struct stat st;
    return lwp > 0 && ::stat(("/proc/self/task/" + std::to_string(lwp)).c_str(), &st) == 0;
}

std::atomic<pid_t> monitorLwp{0};

} // namespace

kvlog_control* getKVLogController()
{
    return kvlogController;
}

// ---------------------------------------------------------------- controller

kvlog_control::kvlog_control(const char* ident, const char* logFile)
{
    gSyslogIdent = ident ? ident : "";
    openlog(gSyslogIdent.c_str(), LOG_NDELAY, LOG_LOCAL5);

    if (KVOS_mutexCreate(&kvlogmutex, "kvlog mutex") != 1) {
        std::fputs("Failed to create kvlog mutex\n", stderr);
    }
    removeDeprecatedKVLogConfFile();

    detail::silenceNoAppenderWarning();
    if (logFile == nullptr) {
        const std::string path = ensureValidLogFile();
        log4cxx::PropertyConfigurator::configure(log4cxx::File(path));
    } else {
        ignoreConfigAndInsteadLogToFile(logFile);
    }

    _rootLogger = log4cxx::Logger::getRootLogger();
    assert(_rootLogger);
    _repo = log4cxx::LogManager::getLoggerRepository(); // the root logger's repository

    for (const LoggerPtr& logger : _repo->getCurrentLoggers()) {
        _defaultLogLevels.insert(std::make_pair(logger->getName(), getKVLogLevel(logger->getName())));
    }

    _monitor.reset(new KVLogConfigFileMonitor(*this));
}

kvlog_control::~kvlog_control()
{
    _monitor->stop();
    _monitor.reset();
    // The task has left its loop; give it the moment it needs to end, so that
    // no thread of ours outlives the controller.
    const pid_t lwp = monitorLwp.exchange(0);
    for (int i = 0; i < 1000 && threadAlive(lwp); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    closelog();
    KVOS_mutexDelete(&kvlogmutex);
    _defaultLogLevels.clear();
    _repo.reset();
    _rootLogger.reset();
}

std::string kvlog_control::getKVLogConfigFilenameAndPath() const
{
    char buffer[kPathBufferSize];
    const char* path = KV_getPath(buffer, kPathBufferSize, configfilename, PATH_TYPE_ZEL_CONFIG);
    assert(path != NULL && "no path for the kvlog configuration file");
    return path;
}

void kvlog_control::removeDeprecatedKVLogConfFile()
{
    for (KV_PATH_TYPE type : {PATH_TYPE_USER, PATH_TYPE_PERM}) {
        char buffer[kPathBufferSize];
        if (KV_getPath(buffer, kPathBufferSize, configfilename, type) != nullptr) {
            ::unlink(buffer);
        }
    }
}

std::string kvlog_control::ensureValidLogFile()
{
    const std::string path = getKVLogConfigFilenameAndPath();
    FILE* f = std::fopen(path.c_str(), "r");
    if (f == nullptr) {
        const int err = errno;
        KVLOG_ERROR(controlLogger(), "fopen failed when opening file: \"" << path << "\" with err number: " << err
                                                                         << ", error description: \""
                                                                         << errorText(err) << "\"");
    } else {
        std::fclose(f);
    }
    return path;
}

void kvlog_control::ignoreConfigAndInsteadLogToFile(const char* file) const
{
    log4cxx::helpers::Properties p;
    p.setProperty("log4j.logger.developer", "INFO, developerFileAppender");
    p.setProperty("log4j.additivity.developer", "true");
    p.setProperty("log4j.logger.network", "WARN, developerFileAppender");
    p.setProperty("log4j.additivity.network", "true");
    p.setProperty("log4j.logger.config", "INFO, developerFileAppender");
    p.setProperty("log4j.additivity.config", "true");
    p.setProperty("log4j.logger.administrator", "INFO, developerFileAppender");
    p.setProperty("log4j.additivity.administrator", "true");
    p.setProperty("log4j.appender.developerFileAppender", "org.apache.log4j.RollingFileAppender");
    p.setProperty("log4j.appender.developerFileAppender.MaxFileSize", "500000KB");
    p.setProperty("log4j.appender.developerFileAppender.MaxBackupIndex", "1");
    p.setProperty("log4j.appender.developerFileAppender.File", file ? file : "");
    p.setProperty("log4j.appender.developerFileAppender.layout", "org.apache.log4j.PatternLayout");
    p.setProperty("log4j.appender.developerFileAppender.layout.ConversionPattern", kConversionPattern);
    log4cxx::PropertyConfigurator::configure(p);
}

log4cxx::LoggerPtr kvlog_control::getLoggerFromModuleName(const std::string& name) const
{
    log4cxx::LoggerPtr logger = name == rootModuleName ? _rootLogger : log4cxx::Logger::getLogger(name);
    assert(logger);
    return logger;
}

bool kvlog_control::loggerExists(const std::string& name) const
{
    return name == rootModuleName || _repo->exists(name) != nullptr;
}

eKVLogLevel kvlog_control::getKVLogLevel(const std::string& name) const
{
    if (!loggerExists(name)) {
        return KVLOG_NUM_LEVELS;
    }
    return getKVLogLevel(getLoggerFromModuleName(name));
}

eKVLogLevel kvlog_control::getKVLogLevel(const LoggerPtr& logger) const
{
    if (!logger) {
        return KVLOG_NUM_LEVELS;
    }
    return mapLog4cxxLevelToKVLogLevel(logger->getEffectiveLevel()->toInt());
}

void kvlog_control::setKVLogLevel(const std::string& name, eKVLogLevel level)
{
    const log4cxx::LevelPtr l4level = log4cxx::Level::toLevel(mapKVLogLevelToLog4cxxLevel(level));
    getLoggerFromModuleName(name)->setLevel(l4level);
    for (const log4cxx::LoggerPtr& child : getChildren(name)) {
        child->setLevel(log4cxx::LevelPtr());
    }
}

log4cxx::LevelPtr kvlog_control::getDefaultLogLevel(const std::string& name)
{
    const ModuleLevelMap_t::const_iterator it = _defaultLogLevels.find(name);
    if (it == _defaultLogLevels.end()) {
        return log4cxx::LevelPtr();
    }
    return log4cxx::Level::toLevel(mapKVLogLevelToLog4cxxLevel(it->second));
}

log4cxx::LoggerList kvlog_control::getChildren(const std::string& name)
{
    log4cxx::LoggerList children;
    for (const log4cxx::LoggerPtr& logger : _repo->getCurrentLoggers()) {
        const std::string& candidate = logger->getName();
        if (candidate.size() > name.size() && candidate.compare(0, name.size(), name) == 0 &&
            candidate[name.size()] == '.') {
            children.push_back(logger);
        }
    }
    return children;
}

bool kvlog_control::isLegalModuleName(const std::string& name) const
{
    return kvlog::isLegalModuleName(name);
}

int kvlog_control::mapKVLogLevelToLog4cxxLevel(eKVLogLevel level) const
{
    return kvlog::mapKVLogLevelToLog4cxxLevel(level);
}

eKVLogLevel kvlog_control::mapLog4cxxLevelToKVLogLevel(int level) const
{
    return kvlog::mapLog4cxxLevelToKVLogLevel(level);
}

LoggerList kvlog_control::getRegisteredLoggerInfo() const
{
    LoggerList list;
    const MutexLock lock;
    for (const log4cxx::LoggerPtr& logger : _repo->getCurrentLoggers()) {
        const log4cxx::LevelPtr own = logger->getLevel();
        if (own) {
            list.push_back(LoggerInfo(logger->getName(), mapLog4cxxLevelToKVLogLevel(own->toInt()), own->toString()));
            continue;
        }
        for (log4cxx::LoggerPtr parent = logger->getParent(); parent; parent = parent->getParent()) {
            const log4cxx::LevelPtr inherited = parent->getLevel();
            if (inherited) {
                list.push_back(LoggerInfo(logger->getName(), mapLog4cxxLevelToKVLogLevel(inherited->toInt()),
                                          inherited->toString(), parent->getName()));
                break;
            }
        }
    }
    return list;
}

void kvlog_control::dumpKVLogStatus(std::ostream& out) const
{
    const LoggerList list = getRegisteredLoggerInfo();
    out << "\nLogger name, level (assigned/inherited)" << std::endl;
    out << "---------------------------------------" << std::endl;
    for (const LoggerInfo& info : list) {
        if (!info.isInherited()) {
            out << info.getModule() << ", " << info.getLevelAsString() << " (assigned)" << std::endl;
        }
    }
    for (const LoggerInfo& info : list) {
        if (info.isInherited()) {
            out << info.getModule() << ", " << info.getLevelAsString() << " (inherited from " << info.getParent()
                << ")" << std::endl;
        }
    }
}

void kvlog_control::kvlogConfigFileMonitorThread()
{
    _monitor->run();
}

bool kvlog_control::startConfigFileMonitor()
{
    if (_monitor->started()) {
        return true;
    }
    KVOS_TASK_ATTR* attr = KVOS_taskAttrCreate();
    KVOS_taskAttrSetPriority(attr, kMonitorPriority);
    KVOS_taskAttrSetName(attr, kMonitorTaskName);
    KVOS_taskAttrSetStackSize(attr, kMonitorStackSize);
    const KVOS_TASK_ID task = KVOS_taskCreate(kvlogConfigFileMonitorThreadEntry, this, attr);
    KVOS_taskAttrDestroy(attr);
    if (task == KVOS_NO_TASK_ID) {
        KVLOG_ERROR(controlLogger(), " Name=\"" << kMonitorTaskName
                                                << "\" Detail=\"Unable to start configuration file monitor\"");
        return false;
    }
    _monitor->setStarted();
    return true;
}

// ------------------------------------------------------------------- monitor

kvlog_control::KVLogConfigFileMonitor::KVLogConfigFileMonitor(kvlog_control& tc)
    : _tc(tc), _fd(-1), _wd(-1), _stopping(false), _logger(getDeveloperLogger("kvlog.monitor")), _sem(0)
{
    const std::string path = _tc.getKVLogConfigFilenameAndPath();
    const size_t slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
    _filename = slash == std::string::npos ? path : path.substr(slash + 1);

    {
        const std::lock_guard<std::mutex> g(gate.m);
        gate.closed = false;
        gate.changing = false;
    }

    _fd = inotify_init1(IN_NONBLOCK);
    if (_fd < 0) {
        const int err = errno;
        KVLOG_ERROR(_logger, " File-Name=\"" << path << "\" Error=\"" << errorText(err)
                                             << "\" Detail=\"Unable to register with filesystem monitor\"");
        return;
    }
    _wd = inotify_add_watch(_fd, directory.c_str(), kWatchMask);
    if (_wd < 0) {
        const int err = errno;
        KVLOG_ERROR(_logger, " File-Name=\"" << path << "\" Error=\"" << errorText(err)
                                             << "\" Detail=\"Unable to add filesystem monitor to watch for changes\"");
    }
}

kvlog_control::KVLogConfigFileMonitor::~KVLogConfigFileMonitor()
{
    if (!_stopped) {
        stop();
    }
}

void kvlog_control::KVLogConfigFileMonitor::run()
{
    monitorLwp = static_cast<pid_t>(::syscall(SYS_gettid));
    try {
        while (!_stopping) {
            fd_set readable;
            FD_ZERO(&readable);
            if (_fd >= 0) {
                FD_SET(_fd, &readable);
            }
            struct timeval timeout = {0, 100000};
            const int n = ::select(_fd >= 0 ? _fd + 1 : 0, &readable, nullptr, nullptr, &timeout);
            if (n > 0 && _fd >= 0 && FD_ISSET(_fd, &readable)) {
                {
                    std::lock_guard<std::mutex> g(gate.m);
                    if (gate.closed) {
                        continue; // stopping: the flag is seen on the next test
                    }
                    gate.changing = true;
                }
                changeDetected();
                {
                    std::lock_guard<std::mutex> g(gate.m);
                    gate.changing = false;
                }
                gate.cv.notify_all();
            }
        }
    } catch (...) {
        // Nothing may escape the task. stop() still waits for the loop's end,
        // so the end is signalled on this path too.
        {
            std::lock_guard<std::mutex> g(gate.m);
            gate.changing = false;
        }
        gate.cv.notify_all();
    }
    _sem.release();
}

void kvlog_control::KVLogConfigFileMonitor::changeDetected()
{
    const MutexLock lock;
    alignas(struct inotify_event) char buffer[kNotificationBufferSize];
    const ssize_t length = ::read(_fd, buffer, sizeof(buffer));
    if (length < 0) {
        const int err = errno;
        if (err == EAGAIN) {
            return;
        }
        if (err == EBADF) {
            KVLOG_INFO(_logger, " Detail=\"kvlog subsystem configuration file change monitor stopped\"");
        } else {
            KVLOG_ERROR(_logger,
                        " Error=\"" << errorText(err) << "\" Detail=\"Unable to read filesystem change notification\"");
        }
        return;
    }
    for (ssize_t offset = 0; offset + static_cast<ssize_t>(sizeof(struct inotify_event)) <= length;) {
        const struct inotify_event* event = reinterpret_cast<const struct inotify_event*>(buffer + offset);
        offset += static_cast<ssize_t>(sizeof(struct inotify_event) + event->len);
        const std::string target = event->len > 0 ? std::string(event->name) : std::string("(Unknown)");
        if (isTraceEnabled(_logger)) {
            KVLOG_TRACE(_logger, " Watch-Id=\"" << event->wd << "\" Cookie=\"" << event->cookie << "\" Target=\""
                                                << target << "\" Detail=\"Filesystem event notification received\"");
        }
        if (event->mask & IN_Q_OVERFLOW) {
            KVLOG_ERROR(_logger,
                        " Detail=\"Filesystem event notification queue saturated - observers may be out of sync!\"");
        }
        if (target == _filename && (event->mask & kChangeMask) != 0) {
            KVLOG_INFO(_logger, " Config-File=\"" << _tc.getKVLogConfigFilenameAndPath()
                                                  << "\" Detail=\"Reconfiguring kvlog subsystem due to configuration "
                                                     "file update\"");
            const std::string path = _tc.ensureValidLogFile();
            log4cxx::LogManager::resetConfiguration();
            log4cxx::PropertyConfigurator::configure(log4cxx::File(path));
        }
    }
}

void kvlog_control::KVLogConfigFileMonitor::stop()
{
    {
        // Let a change in progress finish, and start no other.
        std::unique_lock<std::mutex> g(gate.m);
        gate.closed = true;
        gate.cv.wait(g, [] { return !gate.changing; });
    }
    const MutexLock lock;
    if (isDebugEnabled(_logger)) {
        KVLOG_DEBUG(_logger, " Detail=\"Stopping configuration file monitor\"");
    }
    _stopping = true;
    if (_started) {
        _sem.acquire(true);
    }
    if (_fd >= 0) {
        if (_wd >= 0) {
            inotify_rm_watch(_fd, _wd);
        }
        ::close(_fd);
        _fd = -1;
        _wd = -1;
    }
    _stopped = true;
}

} // namespace kvlog

// ----------------------------------------------------------- entry points

void kvlogConfigFileMonitorThreadEntry(void* kvlogController)
{
    assert(kvlogController);
    static_cast<kvlog::kvlog_control*>(kvlogController)->kvlogConfigFileMonitorThread();
}

void initKVLog(const char* ident, const char* logFile)
{
    assert(kvlog::kvlogController==0);
    kvlog::kvlogController = new kvlog::kvlog_control(ident, logFile);
}

void initKVLogConfigMonitor(void)
{
    assert(kvlog::kvlogController != 0);
    kvlog::kvlogController->startConfigFileMonitor();
}

void shutdownKVLog(void)
{
    assert(kvlog::kvlogController!=0);
    delete kvlog::kvlogController;
    kvlog::kvlogController = nullptr;
}
