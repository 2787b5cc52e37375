/*
 * Helpers shared by the KVOS suites: a private path map under a fresh
 * temporary directory (nothing is created under /korvenda), capture of the
 * abstraction's log lines, waiting for the reaper, and dump collection.
 */
#ifndef TESTS_ABSTRACTION_SUPPORT_H
#define TESTS_ABSTRACTION_SUPPORT_H

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <log4cxx/appenderskeleton.h>

#include "abstraction/kvos.h"

/* ThreadSanitizer reports deliberate misuse (a wrong-thread unlock, a
 * self-join, threads left unjoined on purpose) itself, before the code under
 * test can: the tests that provoke it skip those steps in that build. */
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KV_TSAN 1
#endif
#endif
#if !defined(KV_TSAN) && defined(__SANITIZE_THREAD__)
#define KV_TSAN 1
#endif
#ifndef KV_TSAN
#define KV_TSAN 0
#endif

namespace kvos_test {

/* Installs a path map whose PATH_TYPE_TMP is a fresh directory under /tmp
 * (and whose other types live below it) and returns that directory. */
std::string installPrivatePathMap();
/* The directory of the last installPrivatePathMap. */
const std::string& privateDir();

/* Installs a private path map and runs KVOS_init, once per process. */
void initOnce();

/* Captures everything the "developer.abstraction" logger writes (at DEBUG
 * and above) while it lives, as "LEVEL message\n" lines. */
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    std::string text() const;
    bool contains(const std::string& fragment) const;
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

private:
    class Appender;
    std::shared_ptr<Appender> appender_;
    log4cxx::LevelPtr savedLevel_;
};

/* Polls pred every millisecond for at most ms milliseconds. */
bool waitFor(const std::function<bool()>& pred, int ms = 5000);

std::string taskDump();
std::string mutexDump();
std::string ptrqDump();

/* Lines of text that contain fragment. */
std::vector<std::string> linesWith(const std::string& text, const std::string& fragment);

/* Entries of /proc/self/task and lines of /proc/self/maps. */
size_t threadCount();
size_t mappingCount();

}  // namespace kvos_test

#include <atomic>

namespace kvos_test {

/* Sends the abstraction's log lines to stderr as "LEVEL - message", so a
 * death test can match what was logged before the process ended. */
void logToStderr();

/* Replaces one seam entry for the lifetime of the scope. */
template <typename Fn>
class SeamScope {
public:
    SeamScope(std::atomic<Fn>& entry, Fn replacement) : entry_(entry), saved_(entry.load()) { entry_.store(replacement); }
    ~SeamScope() { entry_.store(saved_); }
    SeamScope(const SeamScope&) = delete;
    SeamScope& operator=(const SeamScope&) = delete;

private:
    std::atomic<Fn>& entry_;
    Fn saved_;
};

/* Seam replacements fail only on the thread that armed them, with the
 * armed error, for the armed number of calls (-1: every call). */
void armFailure(int err, int times = -1);
void disarmFailure();
/* True (and errno set) when the calling thread's armed failure applies. */
bool takeArmedFailure();
/* The same, but only when the armed error is err. */
bool takeArmedFailure(int err);

}  // namespace kvos_test

#endif
