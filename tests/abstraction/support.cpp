#include "support.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <system_error>

#include <log4cxx/consoleappender.h>
#include <log4cxx/level.h>
#include <log4cxx/simplelayout.h>
#include <log4cxx/spi/loggingevent.h>

#include "platform/linux_logger.h"

namespace kvos_test {

namespace {
std::string gDir;
thread_local int tFailErr;
thread_local int tFailTimes;
}  // namespace

/* Scratch directories. Every process of a test run makes its own under
 * /tmp, and the first process of the run removes
 * them all at exit, whatever the outcome. Death-test children (the binary
 * run again for one statement) end without cleaning up, so the first process
 * makes a directory of its own as it starts and passes its name down in the
 * environment; every directory of the run is named after it:
 * "kvos_test.<its suffix><suffix of their own>". */
namespace {

const char* const kOwnerVariable = "KVOS_TEST_SCRATCH_OWNER";

const char* const kScratchBase = "/tmp";

std::string gOwnedPrefix;  // in the first process: what the run's directories start with

void removeOwnedDirectories()
{
    std::error_code ec;
    std::vector<std::filesystem::path> owned;
    for (std::filesystem::directory_iterator it(kScratchBase, ec), end; !ec && it != end; it.increment(ec)) {
        if (it->path().filename().string().rfind(gOwnedPrefix, 0) == 0) {
            owned.push_back(it->path());
        }
    }
    for (const auto& p : owned) {
        std::filesystem::remove_all(p, ec);
    }
}

// Runs as the process starts.
const bool gOwnerChosen = [] {
    const char* owner = getenv(kOwnerVariable);
    if (owner != nullptr && *owner != '\0') {
        return false;  // a child: the first process cleans up
    }
    std::string tmpl = std::string(kScratchBase) + "/kvos_test.XXXXXX";
    if (mkdtemp(&tmpl[0]) == nullptr) {
        return false;
    }
    const std::string suffix = tmpl.substr(tmpl.size() - 6);
    gOwnedPrefix = "kvos_test." + suffix;
    setenv(kOwnerVariable, suffix.c_str(), 1);
    atexit(removeOwnedDirectories);
    return true;
}();

std::string makeScratchDirectory()
{
    const char* owner = getenv(kOwnerVariable);
    std::string tmpl = std::string(kScratchBase) + "/kvos_test." + (owner != nullptr ? owner : "") + "XXXXXX";
    return mkdtemp(&tmpl[0]) != nullptr ? tmpl : std::string();
}

}  // namespace

std::string installPrivatePathMap()
{
    gDir = makeScratchDirectory();
    _kv_path_map* map = KVOS_addPathMap(nullptr, PATH_TYPE_ZEL_CONFIG, (gDir + "/etc").c_str());
    map = KVOS_addPathMap(map, PATH_TYPE_PERM, (gDir + "/persistent").c_str());
    kvos_set_path_map(KVOS_addPathMap(map, PATH_TYPE_TMP, gDir.c_str()));
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
        // Settle: the reaper and the dispatcher task listed, so tests start
        // from counters only they change.
        waitFor([] { return kvos_taskListSize() >= 2; });
    });
}

bool isDir(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
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

void logToStderr()
{
    auto logger = getLinuxAbstractionLogger();
    logger->setLevel(log4cxx::Level::getDebug());
    logger->addAppender(std::make_shared<log4cxx::ConsoleAppender>(std::make_shared<log4cxx::SimpleLayout>(),
                                                                   log4cxx::ConsoleAppender::getSystemErr()));
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

std::vector<std::string> linesWith(const std::string& text, const std::string& fragment)
{
    std::vector<std::string> out;
    std::istringstream is(text);
    for (std::string line; std::getline(is, line);) {
        if (line.find(fragment) != std::string::npos) {
            out.push_back(line);
        }
    }
    return out;
}

ListInfo listInfo(const std::string& dump)
{
    ListInfo info;
    auto lines = linesWith(dump, "List info:");
    if (lines.size() != 1 || sscanf(lines[0].c_str(), "List info: size %zu, additions %zu, removals %zu",
                                    &info.size, &info.additions, &info.removals) != 3) {
        ADD_FAILURE() << "no single List info line in\n" << dump;
    }
    return info;
}

size_t threadCount()
{
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}));
}

size_t mappingCount()
{
    std::ifstream maps("/proc/self/maps");
    return static_cast<size_t>(std::count(std::istreambuf_iterator<char>(maps), {}, '\n'));
}

std::string threadStat(int lwp)
{
    std::ifstream f("/proc/self/task/" + std::to_string(lwp) + "/stat");
    std::string all((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    size_t close = all.rfind(')');
    return close == std::string::npos ? "" : all.substr(close + 2);
}

Interrupter::Interrupter() : target_(pthread_self())
{
    struct sigaction sa = {};
    sa.sa_handler = [](int) {};
    sigaction(SIGUSR2, &sa, &old_);
    thread_ = std::thread([this] {
        for (std::this_thread::sleep_for(std::chrono::milliseconds(20)); !stop_;
             std::this_thread::sleep_for(std::chrono::milliseconds(20))) {
            pthread_kill(target_, SIGUSR2);
            ++sent;
        }
    });
}

Interrupter::~Interrupter()
{
    stop_ = true;
    thread_.join();
    sigaction(SIGUSR2, &old_, nullptr);
}

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
    tFailTimes -= tFailTimes > 0;
    errno = tFailErr;
    return true;
}

}  // namespace kvos_test
