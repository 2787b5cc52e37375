#include "support.h"

#include "abstraction/kvos_task.h"

#include <stdlib.h>

#include <chrono>
#include <mutex>
#include <thread>

#include <log4cxx/appenderskeleton.h>
#include <log4cxx/consoleappender.h>
#include <log4cxx/simplelayout.h>
#include <log4cxx/spi/loggingevent.h>

namespace fsm_test {

namespace {
std::string gDir;
}

const char* const kTestSpecies[] = {"ALPHA", "BETA", "GAMMA", "DELTA", "EPSILON", "ZETA", "ETA", "THETA", nullptr};

void initOnce()
{
    static std::once_flag once;
    std::call_once(once, [] {
        char tmpl[] = "/tmp/fsm_test.XXXXXX";
        gDir = mkdtemp(tmpl);
        _kv_path_map* map = KVOS_addPathMap(nullptr, PATH_TYPE_PARAM, (gDir + "/param").c_str());
        map = KVOS_addPathMap(map, PATH_TYPE_PERM, (gDir + "/persistent").c_str());
        kvos_set_path_map(KVOS_addPathMap(map, PATH_TYPE_TMP, gDir.c_str()));
        KVOS_init();
        // Settle: the reaper and the D-Bus dispatcher listed, so that tests
        // count only the tasks they start.
        waitFor([] { return kvos_taskListSize() >= 2; });
    });
}

const std::string& privateDir()
{
    return gDir;
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

LogCapture::LogCapture(const log4cxx::LevelPtr& level) : appender_(std::make_shared<Appender>())
{
    auto logger = fsm_getDeveloperLogger();
    savedLevel_ = logger->getLevel();
    logger->setLevel(level);
    logger->addAppender(appender_);
}

LogCapture::~LogCapture()
{
    auto logger = fsm_getDeveloperLogger();
    logger->removeAppender(appender_);
    logger->setLevel(savedLevel_);
}

std::string LogCapture::text() const
{
    return appender_->text();
}

size_t LogCapture::count(const std::string& fragment) const
{
    std::string all = text();
    size_t n = 0;
    for (size_t at = all.find(fragment); at != std::string::npos; at = all.find(fragment, at + fragment.size())) {
        ++n;
    }
    return n;
}

void logToStderr()
{
    auto logger = fsm_getDeveloperLogger();
    logger->setLevel(log4cxx::Level::getDebug());
    logger->addAppender(std::make_shared<log4cxx::ConsoleAppender>(std::make_shared<log4cxx::SimpleLayout>(),
                                                                   log4cxx::ConsoleAppender::getSystemErr()));
}

FSM_SPECIE_BUFFER_STATS stats(SPECIE s)
{
    FSM_SPECIE_BUFFER_STATS out{};
    if (!fsm_getPoolStats(s, &out)) {
        ADD_FAILURE() << "no statistics record for specie " << std::hex << s;
    }
    return out;
}

FsmSystem::FsmSystem(std::vector<SPECIE> configured)
{
    initOnce();
    for (SPECIE s : configured) {
        config_.push_back(FSMSPECCONFIG{s, nullptr, 0, 1});
    }
    config_.push_back(FSMSPECCONFIG{NO_SPECIE, nullptr, 0, 0});
    fsm_setProductSpecieNames(kTestSpecies);
    sys_initFSMSystem(config_.data());
}

FsmSystem::~FsmSystem()
{
    fsm_procShutdown();
}

GLOB_SPEC_D* FsmSystem::registerSpecie(SPECIE s, SPEC_DESC* desc, IND_COUNT count, KVOS_PTRQ_ID q)
{
    GLOB_SPEC_D* d = fsm_getGlobalSpecieDesc(s);
    d->pSpecDesc = desc;
    d->HighInd = count - 1;
    d->RtosQid = q;
    d->indInfoArray = static_cast<IND_INFO*>(calloc(count, sizeof(IND_INFO)));
    d->stateArray = static_cast<STATE*>(calloc(count, sizeof(STATE)));
    return d;
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

}  // namespace fsm_test
