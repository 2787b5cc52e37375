/*
 * The library's handler behind every BOOST_ASSERT / BOOST_ASSERT_MSG.
 *
 * The report is built first and written with a single write(2), so that it
 * arrives whole even when other threads are writing to stderr, and then the
 * process aborts. Nothing here allocates after the report is built or takes
 * a lock that a failing thread might hold.
 */
#include "kvlog/kvlog_assert.h"

#include <cstdlib>
#include <string>
#include <unistd.h>

namespace {

[[noreturn]] void report(const char* expr, const char* msg, const char* function, const char* file, long line)
{
    std::string text;
    text.reserve(256);
    text += "***** Internal Program Error - assertion (";
    text += expr ? expr : "";
    text += ") failed in ";
    text += function ? function : "";
    text += ":\n";
    text += file ? file : "";
    text += "(";
    text += std::to_string(line);
    text += "): ";
    text += msg ? msg : "";
    text += "\n";
    const char* p = text.data();
    size_t left = text.size();
    while (left > 0) {
        ssize_t n = ::write(STDERR_FILENO, p, left);
        if (n <= 0) {
            break;
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
    ::fsync(STDERR_FILENO);
    std::abort();
}

} // namespace

namespace boost {

void assertion_failed_msg(char const* expr, char const* msg, char const* function, char const* file, long line)
{
    report(expr, msg, function, file, line);
}

void assertion_failed(char const* expr, char const* function, char const* file, long line)
{
    report(expr, "", function, file, line);
}

} // namespace boost
