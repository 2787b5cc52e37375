/*
 * What the framework's suites share: KVOS over a private path map, capture
 * of the framework's log, a test specie catalogue, and a harness that
 * registers species by hand so that message handling can be driven from the
 * test thread, one call at a time, without FSM tasks.
 */
#ifndef TESTS_FSM_SUPPORT_H
#define TESTS_FSM_SUPPORT_H

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <log4cxx/level.h>

#include "abstraction/kvos.h"
#include "abstraction/kvos_ptrq.h"
#include "fsm/fsm.h"

namespace fsm_test {

/* KVOS_init over a private path map, once per process. */
void initOnce();
const std::string& privateDir();

/* Species of module FSMMOD_NONFSM in the tests' catalogue. */
enum : SPECIE {
    ALPHA = FSM_MAKE_ID(FSMMOD_NONFSM, 0),
    BETA,
    GAMMA,
    DELTA,
    EPSILON,
    ZETA,
    ETA,
    THETA,
};
extern const char* const kTestSpecies[];

/* Test messages: names that are not in any table (module 5) are fine on
 * the wire, the framework only compares them. */
constexpr MSGNAME msg(unsigned i)
{
    return FSM_MAKE_ID(5, i);
}

/* Captures what "developer.fsm" writes at `level` and above while it
 * lives, one "LEVEL message" line per event. */
class LogCapture {
public:
    explicit LogCapture(const log4cxx::LevelPtr& level = log4cxx::Level::getDebug());
    ~LogCapture();
    std::string text() const;
    bool contains(const std::string& fragment) const { return text().find(fragment) != std::string::npos; }
    size_t count(const std::string& fragment) const;
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

private:
    class Appender;
    std::shared_ptr<Appender> appender_;
    log4cxx::LevelPtr savedLevel_;
};

/* Sends the framework's log to stderr, for death tests. */
void logToStderr();

/* The statistics record of a specie (ADD_FAILURE when there is none). */
FSM_SPECIE_BUFFER_STATS stats(SPECIE s);

/* Installs the test catalogue and builds the tables with a pool record per
 * configured specie; shuts everything down again at the end. */
class FsmSystem {
public:
    explicit FsmSystem(std::vector<SPECIE> configured = {ALPHA, BETA, GAMMA, DELTA});
    ~FsmSystem();
    FsmSystem(const FsmSystem&) = delete;
    FsmSystem& operator=(const FsmSystem&) = delete;

    /* Registers a specie without a task: `count` individuals, on queue q
     * (species on one queue are "in one task"). */
    GLOB_SPEC_D* registerSpecie(SPECIE s, SPEC_DESC* desc, IND_COUNT count, KVOS_PTRQ_ID q);

private:
    std::vector<FSMSPECCONFIG> config_;
};

/* Individual data with the framework's reserved first word. */
struct IndData {
    NORMBUF* saveQueue = nullptr;
    int value = 0;
};

/* Polls pred every millisecond for at most ms milliseconds. */
bool waitFor(const std::function<bool()>& pred, int ms = 10000);

}  // namespace fsm_test

#endif
