// First lesson in logging: module loggers, the level macros, and a
// configuration file that the controller watches, so that an operator can
// change a level while the service runs.
//
// The configuration file is "kvlog.conf" in the PATH_TYPE_ZEL_CONFIG
// directory of the path map. A real service uses the product's map; this
// example installs a private one under a temporary directory, so that it
// touches nothing of the device.
//
//   build/bin/example_logging; echo "status: $?"
#include "abstraction/kvos.h"
#include "kvlog/kvlog.h"
#include "kvlog/kvlog_control.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

namespace {

void writeConfig(const std::string& path, const char* developerLevel, const std::string& logFile)
{
    // Write a new file and rename it over the old one, as installers do; the
    // monitor watches the directory, so it sees the rename.
    const std::string tmp = path + ".new";
    std::ofstream(tmp) << "log4j.rootLogger=WARN, file\n"
                       << "log4j.logger.developer=" << developerLevel << "\n"
                       << "log4j.appender.file=org.apache.log4j.FileAppender\n"
                       << "log4j.appender.file.File=" << logFile << "\n"
                       << "log4j.appender.file.layout=org.apache.log4j.PatternLayout\n"
                       << "log4j.appender.file.layout.ConversionPattern=%-5p %c -%m%n\n";
    std::rename(tmp.c_str(), path.c_str());
}

// Waits up to two seconds for the monitor to apply a change.
bool waitFor(const kvlog::LoggerPtr& logger, bool debugEnabled)
{
    for (int i = 0; i < 200; ++i) {
        if (kvlog::isDebugEnabled(logger) == debugEnabled) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

} // namespace

int main()
{
    char dirTemplate[] = "/tmp/example_logging.XXXXXX";
    if (mkdtemp(dirTemplate) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    const std::string dir = dirTemplate;
    const std::string config = dir + "/kvlog.conf";
    const std::string logFile = dir + "/service.log";

    // The path map must be in place before KVOS_init.
    _kv_path_map* map = KVOS_addPathMap(nullptr, PATH_TYPE_ZEL_CONFIG, dir.c_str());
    map = KVOS_addPathMap(map, PATH_TYPE_TMP, dir.c_str());
    kvos_set_path_map(map);
    KVOS_init();

    writeConfig(config, "INFO", logFile);
    initKVLog("example", nullptr); // reads kvlog.conf from the map
    initKVLogConfigMonitor();      // the "KVLogConfigFileMonitor" task

    // Take loggers once, keep them: the name says where a record comes from.
    kvlog::LoggerPtr log = kvlog::getDeveloperLogger("example.billing");
    KVLOG_INFO(log, " Detail=\"Service started\" Version=\"1\"");
    KVLOG_DEBUG(log, " Detail=\"Not written: developer is at INFO\"");

    // An operator turns on debugging by editing the file.
    writeConfig(config, "DEBUG", logFile);
    const bool raised = waitFor(log, true);
    KVLOG_DEBUG(log, " Detail=\"Written now\" Invoice=\"" << 42 << "\"");

    writeConfig(config, "INFO", logFile);
    const bool lowered = waitFor(log, false);

    shutdownKVLog();
    KVOS_cleanup();

    // The file holds the start record and the debug record written while
    // debugging was on (with the controller's own reconfiguration notes), and
    // not the debug record written before.
    std::ifstream in(logFile);
    std::string line;
    bool started = false, debugWritten = false, debugDropped = true;
    while (std::getline(in, line)) {
        std::printf("%s\n", line.c_str());
        started |= line.find("Service started") != std::string::npos;
        debugWritten |= line.find("Written now") != std::string::npos;
        debugDropped &= line.find("Not written") == std::string::npos;
    }
    std::remove(config.c_str());
    std::remove(logFile.c_str());
    std::system(("rm -rf '" + dir + "'").c_str());
    return raised && lowered && started && debugWritten && debugDropped ? 0 : 1;
}
