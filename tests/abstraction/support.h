/*
 * What the KVOS suites share: the headers, a private path map under a fresh
 * temporary directory (nothing is created under /korvenda), capture of the
 * abstraction's log, dumps, /proc counts, signals and failing seams.
 */
#ifndef TESTS_ABSTRACTION_SUPPORT_H
#define TESTS_ABSTRACTION_SUPPORT_H

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <log4cxx/appenderskeleton.h>

#include "abstraction/kvmisc.h"
#include "abstraction/kvos.h"
#include "abstraction/kvos_mutex.h"
#include "abstraction/kvos_ptrq.h"
#include "abstraction/kvos_seams.h"
#include "abstraction/kvos_semaphore.h"
#include "abstraction/kvos_task.h"

/* Sanitizer runtimes report deliberate misuse (a wrong-thread unlock, a
 * self-join, threads never joined) before the code under test can, and map
 * fenced areas of their own: the tests concerned check these. */
#if defined(__SANITIZE_THREAD__)
#define KV_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KV_TSAN 1
#endif
#endif
#if defined(KV_TSAN) || defined(__SANITIZE_ADDRESS__)
#define KV_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KV_SANITIZED 1
#endif
#endif
#ifndef KV_TSAN
#define KV_TSAN 0
#endif
#ifndef KV_SANITIZED
#define KV_SANITIZED 0
#endif

namespace kvos_test {

/* Installs a path map whose PATH_TYPE_TMP is a fresh directory under /tmp
 * (other types below it) and returns that directory. */
std::string installPrivatePathMap();
const std::string& privateDir();
/* Installs a private path map and runs KVOS_init, once per process. */
void initOnce();
bool isDir(const std::string& path);

/* Captures what the "developer.abstraction" logger writes (DEBUG and up)
 * while it lives, one "LEVEL Detail=..." line per event. */
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    std::string text() const;
    bool contains(const std::string& fragment) const { return text().find(fragment) != std::string::npos; }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

private:
    class Appender;
    std::shared_ptr<Appender> appender_;
    log4cxx::LevelPtr savedLevel_;
};
/* Sends the abstraction's log to stderr ("LEVEL - message"), for death tests. */
void logToStderr();

/* Polls pred every millisecond for at most ms milliseconds. */
bool waitFor(const std::function<bool()>& pred, int ms = 5000);

std::string taskDump();
/* What a dump function (KVOS_mutexDump, KVOS_ptrqDump) passes to its output. */
template <typename Text>
std::string collect(void (*dump)(int (*)(int, Text, unsigned), int))
{
    static thread_local std::string* target;
    std::string out;
    target = &out;
    dump([](int, Text text, unsigned n) { target->append(static_cast<const char*>(text), n); return 0; }, 0);
    return out;
}
std::vector<std::string> linesWith(const std::string& text, const std::string& fragment);
/* The one "List info: size N, additions A, removals R" line of a dump. */
struct ListInfo {
    size_t size = 0, additions = 0, removals = 0;
};
ListInfo listInfo(const std::string& dump);

/* Entries of /proc/self/task, lines of /proc/self/maps, and the fields
 * after the name in /proc/self/task/<lwp>/stat (state first). */
size_t threadCount();
size_t mappingCount();
std::string threadStat(int lwp);

/* Interrupts the constructing thread with SIGUSR2 (handled, no SA_RESTART)
 * every 20 ms while it lives. */
class Interrupter {
public:
    Interrupter();
    ~Interrupter();
    std::atomic<int> sent{0};

private:
    pthread_t target_;
    struct sigaction old_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

/* Failures armed on the calling thread only, for its next `times` seam
 * calls (-1: every call); takeArmedFailure() consumes one and sets errno,
 * takeArmedFailure(err) only when err is the armed error. */
void armFailure(int err, int times = -1);
void disarmFailure();
bool takeArmedFailure();
bool takeArmedFailure(int err);

/* Replaces one seam entry for the lifetime of the scope (a captureless
 * lambda will do) and disarms failures at its end. */
template <typename Fn>
class SeamScope {
public:
    SeamScope(std::atomic<Fn>& entry, std::common_type_t<Fn> replacement) : entry_(entry), saved_(entry.load())
    {
        entry_ = replacement;
    }
    ~SeamScope()
    {
        entry_ = saved_;
        disarmFailure();
    }

private:
    std::atomic<Fn>& entry_;
    Fn saved_;
};

}  // namespace kvos_test

#endif
