/*
 * Crypto log bridge: message lines for the system log, filtered by the
 * per-module levels of the logging configuration file.
 *
 * Level table. The configuration's "log4j.logger.<name>=<LEVEL>[, ...]" lines
 * give each logger a maximum syslog priority (FATAL 2, ERROR 3, WARN 4,
 * INFO 6, DEBUG 7, TRACE 7); other lines are ignored. The table is kept with
 * the file's modification time and reloaded when that time differs from the
 * one loaded; a file that cannot be opened gives an empty table. The table is
 * guarded by one mutex held only for the stat, the reload and the lookup,
 * never while a message is formatted or sent.
 *
 * Time stamps. The UTC time carries a sub-second part, except at priority 6,
 * printed as ",%03lu" of the microseconds and cut to three digits: these are
 * the leading digits of the microsecond count (12345 us gives ",123"), not
 * zero-padded milliseconds. Log readers depend on both quirks.
 *
 * Messages carry key ids and refused inputs, so every text the bridge
 * formats is wiped before it is freed.
 *
 * The bridge's state is allocated once and never destroyed, so that code
 * running during static destruction (the key cache logs as it goes) still
 * finds it intact.
 */
#include "systemkey/zel-log4os.h"

#include "seam_path.h"
#include "systemkey/systemkey_seams.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <openssl/crypto.h>
#include <string>
#include <strings.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <vector>

namespace {

constexpr int kDefaultMaxPriority = 6;
constexpr const char* kLoggerPrefix = "log4j.logger.";

struct LevelName {
    const char* word;
    int priority;
};
constexpr LevelName kLevelNames[] = {
    {"FATAL", 2}, {"ERROR", 3}, {"WARN", 4}, {"INFO", 6}, {"DEBUG", 7}, {"TRACE", 7},
};

struct LevelEntry {
    std::string name;
    int maxPriority;
};

struct BridgeState {
    std::mutex lock;
    std::vector<LevelEntry> entries;
    bool loaded = false;
    struct timespec mtime = {0, 0};
};

BridgeState& state()
{
    static BridgeState* s = new BridgeState;
    return *s;
}

SeamPath gConfigPath("/korvenda/etc/kvlog.conf");

void syslogSink(int priority, const char* message)
{
    static std::once_flag opened;
    std::call_once(opened, [] { openlog(nullptr, LOG_ODELAY, LOG_LOCAL5); });
    syslog(priority, "%s", message);
}

std::atomic<zel_log_sink> gSink{syslogSink};

const char* levelWord(int priority)
{
    switch (priority) {
    case 0:
    case 1:
    case 2:
        return "CRITICAL";
    case 3:
        return "ERROR";
    case 4:
        return "WARNING";
    case 5:
    case 6:
        return "INFO";
    default:
        return "DEBUG";
    }
}

std::string trim(const std::string& s)
{
    const char* ws = " \t\r\n";
    const size_t b = s.find_first_not_of(ws);
    if (b == std::string::npos) {
        return std::string();
    }
    return s.substr(b, s.find_last_not_of(ws) - b + 1);
}

// The first word of the value names the level; the rest lists appenders.
int priorityOfValue(const std::string& value)
{
    const std::string v = trim(value);
    const std::string word = v.substr(0, v.find_first_of(", \t"));
    for (const LevelName& l : kLevelNames) {
        if (strcasecmp(word.c_str(), l.word) == 0) {
            return l.priority;
        }
    }
    return kDefaultMaxPriority;
}

void parseLine(const std::string& line, std::vector<LevelEntry>& out)
{
    if (line.compare(0, std::strlen(kLoggerPrefix), kLoggerPrefix) != 0) {
        return;
    }
    const size_t eq = line.find('=');
    if (eq == std::string::npos) {
        return;
    }
    const size_t start = std::strlen(kLoggerPrefix);
    std::string name = trim(line.substr(start, eq - start));
    if (name.empty()) {
        return;
    }
    out.push_back({name, priorityOfValue(line.substr(eq + 1))});
}

// Reads the file in pieces; lines may span pieces.
std::vector<LevelEntry> loadEntries(const char* path)
{
    std::vector<LevelEntry> entries;
    FILE* f = std::fopen(path, "r");
    if (f == nullptr) {
        return entries;
    }
    std::string line;
    char piece[1024];
    size_t n;
    while ((n = std::fread(piece, 1, sizeof piece, f)) > 0) {
        for (size_t i = 0; i < n; ++i) {
            if (piece[i] == '\n') {
                parseLine(line, entries);
                line.clear();
            } else {
                line.push_back(piece[i]);
            }
        }
    }
    parseLine(line, entries);
    std::fclose(f);
    return entries;
}

bool sameTime(const struct timespec& a, const struct timespec& b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

// The maximum priority for `module`, reloading the table first if the file's
// modification time changed.
int maxPriorityFor(const char* module)
{
    BridgeState& s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    const char* path = gConfigPath.get();
    struct stat st;
    struct timespec mtime = {0, 0};
    if (stat(path, &st) == 0) {
        mtime = st.st_mtim;
    }
    if (!s.loaded || !sameTime(mtime, s.mtime)) {
        s.entries = loadEntries(path);
        s.mtime = mtime;
        s.loaded = true;
    }

    const size_t moduleLen = std::strlen(module);
    size_t bestLen = 0;
    int best = kDefaultMaxPriority;
    for (const LevelEntry& e : s.entries) {
        const size_t len = e.name.size();
        if (len <= moduleLen && len > bestLen && std::memcmp(module, e.name.data(), len) == 0 &&
            (module[len] == '.' || module[len] == '\0')) {
            bestLen = len;
            best = e.maxPriority;
        }
    }
    return best;
}

// Frees a formatted text after wiping it: messages carry key ids and
// refused inputs.
void wipeAndFree(char* text)
{
    if (text != nullptr) {
        OPENSSL_cleanse(text, std::strlen(text));
        std::free(text);
    }
}

// Formats into a stack buffer first: measuring with a null buffer would
// make the C library expand the text into scratch space of its own, which
// nobody wipes. Only texts longer than the buffer are formatted twice.
char* formatAlloc(const char* format, va_list args) ZEL_PRINTF(1, 0);
char* formatAlloc(const char* format, va_list args)
{
    char local[1024];
    va_list copy;
    va_copy(copy, args);
    const int n = std::vsnprintf(local, sizeof local, format, copy);
    va_end(copy);
    const size_t size = n < 0 ? 1 : static_cast<size_t>(n) + 1;
    char* text = static_cast<char*>(std::malloc(size));
    if (text == nullptr) {
        std::abort();
    }
    text[0] = '\0';
    if (n > 0 && size <= sizeof local) {
        std::memcpy(text, local, size);
    } else if (n > 0) {
        std::vsnprintf(text, size, format, args);
    }
    OPENSSL_cleanse(local, sizeof local);
    return text;
}

char* buildLine(const char* fmt, ...) ZEL_PRINTF(1, 2);
char* buildLine(const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    char* text = formatAlloc(fmt, args);
    va_end(args);
    return text;
}

} // namespace

char* zel_vlogmessage(const char* module, int priority, const char* format, va_list args)
{
    struct timeval now;
    gettimeofday(&now, nullptr);
    struct tm utc;
    gmtime_r(&now.tv_sec, &utc);
    char stamp[64];
    size_t len = std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &utc);
    if (priority != 6) {
        char sub[32];
        std::snprintf(sub, sizeof sub, ",%03lu", static_cast<unsigned long>(now.tv_usec));
        sub[4] = '\0'; // the comma and three digits
        std::snprintf(stamp + len, sizeof stamp - len, "%s", sub);
    }

    char* detail = formatAlloc(format, args);
    char* line = buildLine("Module=\"%s\" Level=\"%s\" UTCTime=\"%s\" Detail=\"%s\"",
                           module != nullptr ? module : "", levelWord(priority), stamp, detail);
    wipeAndFree(detail);
    return line;
}

char* zel_logmessage(const char* module, int priority, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    char* line = zel_vlogmessage(module, priority, format, args);
    va_end(args);
    return line;
}

void zel_vsyslog(const char* module, int priority, const char* format, va_list args)
{
    if (priority > maxPriorityFor(module != nullptr ? module : "")) {
        return;
    }
    char* line = zel_vlogmessage(module, priority, format, args);
    gSink.load(std::memory_order_acquire)(priority, line);
    wipeAndFree(line);
}

void zel_syslog(const char* module, int priority, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    zel_vsyslog(module, priority, format, args);
    va_end(args);
}

void zel_setConfigPath(const char* path)
{
    BridgeState& s = state();
    std::lock_guard<std::mutex> guard(s.lock);
    gConfigPath.set(path);
    s.entries.clear();
    s.loaded = false;
}

void zel_setLogSink(zel_log_sink sink)
{
    gSink.store(sink != nullptr ? sink : syslogSink, std::memory_order_release);
}
