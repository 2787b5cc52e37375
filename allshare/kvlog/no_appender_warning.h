// Internal to the logging library (loggers and controller).
#ifndef KVLOG_NO_APPENDER_WARNING_H
#define KVLOG_NO_APPENDER_WARNING_H

namespace kvlog {
namespace detail {

/* Records logged before the controller configures log4cxx, and records of
 * the loggers its built-in properties leave without appenders (the root and
 * "unittest"), reach no appender and are dropped on purpose. log4cxx would
 * say so once per process on stderr ("No appender could be found ..."); the
 * first call uses that one warning up silently, later calls do nothing.
 * Called by every logger factory and by the controller before it configures,
 * whichever comes first. */
void silenceNoAppenderWarning();

} // namespace detail
} // namespace kvlog

#endif
