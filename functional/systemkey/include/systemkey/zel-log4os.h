/**
 * @file
 * The crypto module's log bridge.
 *
 * The crypto code must not depend on the main logging subsystem, so it logs
 * through these four functions, which write to the system log (facility
 * LOCAL5, no identifier) and honour the per-module levels of the logging
 * configuration file "/korvenda/etc/kvlog.conf".
 *
 * Contracts:
 *  1. `priority` is a syslog priority, 0 (emergency) to 7 (debug).
 *  2. A message is dropped when its priority is above the maximum of the
 *     configuration entry whose logger name is the longest prefix of `module`
 *     ending at a "." or at the end of `module`; without such an entry the
 *     maximum is 6 (info). The configuration is re-read whenever the file's
 *     modification time changes.
 *  3. Every message is one line:
 *       Module="<module>" Level="<word>" UTCTime="<time>" Detail="<detail>"
 *     The detail is not escaped: a double quote inside it closes the field
 *     early, which callers use to add further name="value" pairs.
 *  4. The built line reaches the system log exactly as built: it is never
 *     used as a format a second time, so "%" in outside text is harmless.
 *  5. The functions are thread-safe. They never throw; only an allocation
 *     failure while building a message ends the process.
 */
#ifndef SYSTEMKEY_ZEL_LOG4OS_H
#define SYSTEMKEY_ZEL_LOG4OS_H

#include <cstdarg>

#pragma GCC visibility push(default)

/** Lets the compiler check the format against its arguments. */
#define ZEL_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))

///@{
/** Logs one message (see the contracts above). */
void zel_syslog(const char* module, int priority, const char* format, ...) ZEL_PRINTF(3, 4);
void zel_vsyslog(const char* module, int priority, const char* format, va_list args)
    ZEL_PRINTF(3, 0);
///@}

///@{
/** Builds the message line without logging it or looking at the levels.
 * Returns text allocated with malloc; the caller frees it. */
char* zel_logmessage(const char* module, int priority, const char* format, ...) ZEL_PRINTF(3, 4);
char* zel_vlogmessage(const char* module, int priority, const char* format, va_list args)
    ZEL_PRINTF(3, 0);
///@}

#pragma GCC visibility pop
#endif
