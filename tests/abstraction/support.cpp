#include "support.h"

#include <dirent.h>
#include <stdlib.h>

#include <fstream>
#include <mutex>
#include <sstream>

#include <log4cxx/level.h>
#include <log4cxx/spi/loggingevent.h>

#include "abstraction/kvos_mutex.h"
#include "abstraction/kvos_ptrq.h"
#include "abstraction/kvos_task.h"
#include "platform/linux_logger.h"

namespace kvos_test {

namespace {
std::string gDir;
}

std::string installPrivatePathMap()
{
    char tmpl[] = "/tmp/kvos_test.XXXXXX";
    gDir = mkdtemp(tmpl);
    _kv_path_map* map = nullptr;
    map = KVOS_addPathMap(map, PATH_TYPE_ZEL_CONFIG, (gDir + "/etc").c_str());
    map = KVOS_addPathMap(map, PATH_TYPE_PERM, (gDir + "/persistent").c_str());
    map = KVOS_addPathMap(map, PATH_TYPE_TMP, gDir.c_str());
    kvos_set_path_map(map);
    return gDir;
}

const std::string& privateDir()
{
    return gDir;
}

void initOnce()
{
    static std::once_flag once;
    std::call_once(once, [] {
        installPrivatePathMap();
        KVOS_init();
        // Let the reaper list itself and the dispatcher task (creating the
        // task list's lock on the way), so tests start from a settled
        // process whose counters only they change.
        waitFor([] { return kvos_taskListSize() >= 2; });
    });
}

class LogCapture::Appender : public log4cxx::AppenderSkeleton {
public:
    void append(const log4cxx::spi::LoggingEventPtr& event, log4cxx::helpers::Pool&) override
    {
        std::lock_guard<std::mutex> guard(lock_);
        text_ += event->getLevel()->toString() + event->getRenderedMessage() + "\n";
    }
    void close() override {}
    bool requiresLayout() const override { return false; }
    std::string text() const
    {
        std::lock_guard<std::mutex> guard(lock_);
        return text_;
    }

private:
    mutable std::mutex lock_;
    std::string text_;
};

LogCapture::LogCapture() : appender_(std::make_shared<Appender>())
{
    auto logger = getLinuxAbstractionLogger();
    savedLevel_ = logger->getLevel();
    logger->setLevel(log4cxx::Level::getDebug());
    logger->addAppender(appender_);
}

LogCapture::~LogCapture()
{
    auto logger = getLinuxAbstractionLogger();
    logger->removeAppender(appender_);
    logger->setLevel(savedLevel_);
}

std::string LogCapture::text() const
{
    return appender_->text();
}

bool LogCapture::contains(const std::string& fragment) const
{
    return text().find(fragment) != std::string::npos;
}

bool waitFor(const std::function<bool()>& pred, int ms)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

std::string taskDump()
{
    std::ostringstream os;
    KVOS_taskDump(os);
    return os.str();
}

namespace {
thread_local std::string* tDumpTarget;
int appendToTarget(int, const void* text, unsigned length)
{
    tDumpTarget->append(static_cast<const char*>(text), length);
    return 0;
}
int appendMutexLine(int, const char* text, unsigned length)
{
    tDumpTarget->append(text, length);
    return 0;
}
}  // namespace

std::string mutexDump()
{
    std::string out;
    tDumpTarget = &out;
    KVOS_mutexDump(appendMutexLine, 0);
    return out;
}

std::string ptrqDump()
{
    std::string out;
    tDumpTarget = &out;
    KVOS_ptrqDump(appendToTarget, 0);
    return out;
}

std::vector<std::string> linesWith(const std::string& text, const std::string& fragment)
{
    std::vector<std::string> out;
    std::istringstream is(text);
    std::string line;
    while (std::getline(is, line)) {
        if (line.find(fragment) != std::string::npos) {
            out.push_back(line);
        }
    }
    return out;
}

size_t threadCount()
{
    size_t n = 0;
    DIR* d = opendir("/proc/self/task");
    while (struct dirent* e = readdir(d)) {
        if (e->d_name[0] != '.') {
            ++n;
        }
    }
    closedir(d);
    return n;
}

size_t mappingCount()
{
    std::ifstream maps("/proc/self/maps");
    std::string line;
    size_t n = 0;
    while (std::getline(maps, line)) {
        ++n;
    }
    return n;
}

}  // namespace kvos_test

#include <errno.h>

#include <log4cxx/consoleappender.h>
#include <log4cxx/simplelayout.h>

namespace kvos_test {

void logToStderr()
{
    auto logger = getLinuxAbstractionLogger();
    logger->setLevel(log4cxx::Level::getDebug());
    auto layout = std::make_shared<log4cxx::SimpleLayout>();
    auto appender = std::make_shared<log4cxx::ConsoleAppender>(layout, log4cxx::ConsoleAppender::getSystemErr());
    logger->addAppender(appender);
}

namespace {
thread_local int tFailErr;
thread_local int tFailTimes;
}  // namespace

void armFailure(int err, int times)
{
    tFailErr = err;
    tFailTimes = times;
}

void disarmFailure()
{
    tFailTimes = 0;
}

bool takeArmedFailure(int err)
{
    return tFailErr == err && takeArmedFailure();
}

bool takeArmedFailure()
{
    if (tFailTimes == 0) {
        return false;
    }
    if (tFailTimes > 0) {
        --tFailTimes;
    }
    errno = tFailErr;
    return true;
}

}  // namespace kvos_test
