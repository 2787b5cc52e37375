/**
 * @file
 * The log controller: owns the logging configuration of a process.
 *
 * @verbatim
 *   initKVLog(ident, logFile)   configure log4cxx: from "kvlog.conf" in the
 *                               product configuration directory of the path
 *                               map (logFile null), or from built-in properties
 *                               that send everything to logFile
 *   initKVLogConfigMonitor()    optional: start "KVLogConfigFileMonitor", which
 *                               reconfigures log4cxx whenever the configuration
 *                               file is rewritten or replaced
 *   ...                         read and change levels, list the loggers
 *   shutdownKVLog()             stop the monitor, destroy the controller
 * @endverbatim
 *
 * There is at most one controller per process (kvlogController). Calling
 * initKVLog twice, or the other two without a controller, is a programming
 * fault (C assertion).
 *
 * Locking: one KVOS mutex, "kvlog mutex", serialises reconfiguration, the
 * monitor's shut-down and the listing of loggers. Do not shut down while
 * holding a lock that a logging path takes.
 */
#ifndef KVLOG_KVLOG_CONTROL_H
#define KVLOG_KVLOG_CONTROL_H

#include "kvlog/debug_appender.h"
#include "kvlog/kvlog.h"
#include "semaphore/CountingSemaphore.h"

#include <log4cxx/level.h>
#include <log4cxx/spi/loggerrepository.h>

#include <atomic>
#include <list>
#include <map>
#include <memory>
#include <ostream>
#include <string>

#pragma GCC visibility push(default)

namespace kvlog {

/** Levels by logger name. */
typedef std::map<std::string, eKVLogLevel> ModuleLevelMap_t;
/** The controller's listing of loggers. */
typedef std::list<LoggerInfo> LoggerList;

/** Base name of the configuration file; its directory is PATH_TYPE_ZEL_CONFIG. */
extern const char* const configfilename; ///< "kvlog.conf"

/** The log controller (see the file note). Created by initKVLog and destroyed by shutdownKVLog; use
 * the process's one through kvlogController. */
class kvlog_control {
public:
    /** Opens the system log under `ident` (facility LOCAL5), creates "kvlog mutex", removes
     * deprecated configuration files, configures log4cxx from the configuration file (logFile
     * null) or to logFile, records every logger's level as its default and prepares, without
     * starting, the configuration monitor. */
    kvlog_control(const char* ident, const char* logFile);
    ~kvlog_control();
    kvlog_control(const kvlog_control&) = delete;
    kvlog_control& operator=(const kvlog_control&) = delete;

    /** Full path of the configuration file; asserts that the path map has a
     * PATH_TYPE_ZEL_CONFIG entry that fits. */
    std::string getKVLogConfigFilenameAndPath() const;
    /** Removes "kvlog.conf" from the user and the permanent directory (old
     * locations), ignoring failures. */
    void removeDeprecatedKVLogConfFile();
    /** The configuration path; logs an ERROR record when it cannot be opened
     * for reading, and returns it anyway. */
    std::string ensureValidLogFile();
    /** Configures log4cxx from the built-in properties, logging to `file`. */
    void ignoreConfigAndInsteadLogToFile(const char* file) const;

    /** "root" gives the root logger; any other name log4cxx's logger of that
     * name, created if absent (not registered as the factories do). */
    log4cxx::LoggerPtr getLoggerFromModuleName(const std::string& name) const;
    /** True for "root" and for every name the repository has a logger for; creates nothing. */
    bool loggerExists(const std::string& name) const;
    /** The kvlog level of the logger's effective level; KVLOG_NUM_LEVELS when
     * no logger of that name exists. */
    eKVLogLevel getKVLogLevel(const std::string& name) const;
    /** The kvlog level of the logger's effective level; KVLOG_NUM_LEVELS for a null logger. */
    eKVLogLevel getKVLogLevel(const LoggerPtr& logger) const;
    /** Sets the level and clears the level of every descendant, so that they
     * all inherit it. */
    void setKVLogLevel(const std::string& name, eKVLogLevel level);
    /** The level the logger had when the controller finished configuring; a
     * null level when it did not exist then. */
    log4cxx::LevelPtr getDefaultLogLevel(const std::string& name);
    /** Current loggers below `name` (any depth), in the repository's order. */
    log4cxx::LoggerList getChildren(const std::string& name);

    /** kvlog::isLegalModuleName. */
    bool isLegalModuleName(const std::string& name) const;
    /** kvlog::mapKVLogLevelToLog4cxxLevel. */
    int mapKVLogLevelToLog4cxxLevel(eKVLogLevel level) const;
    /** kvlog::mapLog4cxxLevelToKVLogLevel. */
    eKVLogLevel mapLog4cxxLevelToKVLogLevel(int level) const;

    /** Every current logger with the level that applies to it: its own
     * (assigned) or that of the nearest ancestor with a level (inherited). */
    LoggerList getRegisteredLoggerInfo() const;
    /** Header, then the assigned records, then the inherited ones. */
    void dumpKVLogStatus(std::ostream& out) const;

    /** Body of the monitor task. */
    void kvlogConfigFileMonitorThread();
    /** Starts the monitor task (once; later calls do nothing); false when the
     * task could not be created. */
    bool startConfigFileMonitor();

    /**
     * Watches the configuration directory (not the file: editors and
     * installers replace the file by renaming a new one over it) and
     * reconfigures log4cxx when a notification names the file.
     */
    class KVLogConfigFileMonitor {
    public:
        /** Opens a non-blocking inotify descriptor watching the configuration directory; failures
         * are logged under "developer.kvlog.monitor" and leave a monitor that never sees a change. */
        explicit KVLogConfigFileMonitor(kvlog_control& tc);
        ~KVLogConfigFileMonitor();
        KVLogConfigFileMonitor(const KVLogConfigFileMonitor&) = delete;
        KVLogConfigFileMonitor& operator=(const KVLogConfigFileMonitor&) = delete;

        /** Polls the notification descriptor every 100 ms until stopped. */
        void run();
        /** Reads the pending notifications and reconfigures if one names the
         * configuration file; under "kvlog mutex". */
        void changeDetected();
        /** Under "kvlog mutex": sets the stop flag, waits for the loop to end
         * (when it was started), then releases the watch and the descriptor. */
        void stop();

        /** Records that a task runs the loop, so that stop() waits for it. */
        void setStarted() { _started = true; }
        /** True once setStarted has been called. */
        bool started() const { return _started; }

    private:
        kvlog_control& _tc;
        std::string _filename;
        int _fd;
        int _wd;
        std::atomic<bool> _stopping;
        LoggerPtr _logger;
        CountingSemaphore _sem;
        /// Whether a task runs the loop: stop() waits for it only then.
        bool _started = false;
        bool _stopped = false;
    };

private:
    LoggerPtr _rootLogger;
    ModuleLevelMap_t _defaultLogLevels;
    log4cxx::spi::LoggerRepositoryPtr _repo;
    std::unique_ptr<KVLogConfigFileMonitor> _monitor;
};

///@{
/** The process's controller, or null. */
extern kvlog_control* kvlogController;
kvlog_control* getKVLogController();
///@}

} // namespace kvlog

extern "C" {
/** Creates the process's controller (kvlog_control(ident, logFile)); a second call asserts. */
void initKVLog(const char* ident, const char* logFile);
/** Starts the configuration monitor task of the controller; asserts that there is one. */
void initKVLogConfigMonitor(void);
/** Stops the monitor, closes the system log and destroys the controller, leaving kvlogController
 * null; asserts that there is one. */
void shutdownKVLog(void);
/** Task entry of the monitor; the argument is the controller. */
void kvlogConfigFileMonitorThreadEntry(void* kvlogController);
}

#pragma GCC visibility pop
#endif
