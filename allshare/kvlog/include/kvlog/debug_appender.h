/**
 * @file
 * In-memory capture of log output, and the per-logger record of the
 * controller's listing.
 *
 * DebugAppender keeps every record it is given, formatted by its layout
 * (SimpleLayout by default: "LEVEL - message\n"). Attach it to a logger to
 * check what was logged; appends are serialised by log4cxx, and getLogs() is
 * meant to be read once logging to it has stopped.
 */
#ifndef KVLOG_DEBUG_APPENDER_H
#define KVLOG_DEBUG_APPENDER_H

#include "kvlog/kvlog.h"

#include <log4cxx/helpers/outputstream.h>
#include <log4cxx/layout.h>
#include <log4cxx/writerappender.h>

#include <sstream>
#include <string>

#pragma GCC visibility push(default)

namespace kvlog {

namespace helpers = log4cxx::helpers;

/** A log4cxx output stream that keeps every byte written to it in memory; DebugAppender writes
 * through one. */
class MemoryOutputStream : public log4cxx::helpers::OutputStream {
public:
    DECLARE_LOG4CXX_OBJECT(MemoryOutputStream)
    BEGIN_LOG4CXX_CAST_MAP()
    LOG4CXX_CAST_ENTRY(MemoryOutputStream)
    LOG4CXX_CAST_ENTRY_CHAIN(log4cxx::helpers::OutputStream)
    END_LOG4CXX_CAST_MAP()

    MemoryOutputStream();
    ~MemoryOutputStream() override;

    /** Nothing: the text stays readable after the appender closes. */
    void close(log4cxx::helpers::Pool& p) override;
    /** Nothing: writes go straight to memory. */
    void flush(log4cxx::helpers::Pool& p) override;
    /** Appends the buffer's remaining bytes and marks them consumed. */
    void write(log4cxx::helpers::ByteBuffer& buf, log4cxx::helpers::Pool& p) override;

    /** Everything written so far. */
    std::string toString() const;

private:
    std::ostringstream m_sstream;
};

/** An appender that keeps the formatted records in memory (see the file note). Attach it to a
 * logger with addAppender; it is shared through DebugAppenderPtr. */
class DebugAppender : public log4cxx::WriterAppender {
public:
    DECLARE_LOG4CXX_OBJECT(DebugAppender)
    BEGIN_LOG4CXX_CAST_MAP()
    LOG4CXX_CAST_ENTRY(DebugAppender)
    LOG4CXX_CAST_ENTRY_CHAIN(log4cxx::WriterAppender)
    END_LOG4CXX_CAST_MAP()

    /** An appender with SimpleLayout ("LEVEL - message\n"). */
    DebugAppender();
    /** An appender that formats records with `layout`. */
    explicit DebugAppender(const log4cxx::LayoutPtr& layout);
    ~DebugAppender() override;

    /** Every formatted record appended so far, in order. */
    std::string getLogs() const;

private:
    void init(const log4cxx::LayoutPtr& layout);

    std::shared_ptr<MemoryOutputStream> m_outputStream;
};

/** Shared handle of a DebugAppender, as log4cxx holds appenders. */
using DebugAppenderPtr = std::shared_ptr<DebugAppender>;

/** One logger of the controller's listing: its name, the level that applies,
 * the log4cxx text of that level, and the ancestor it inherits the level from
 * (empty when the level is the logger's own). */
class LoggerInfo {
public:
    /** A logger whose level is its own. */
    LoggerInfo(const std::string& module, eKVLogLevel level, const std::string& levelStr);
    /** A logger that inherits its level from `parent`. */
    LoggerInfo(const std::string& module, eKVLogLevel level, const std::string& levelStr,
               const std::string& parent);

    /** The logger's name. */
    const std::string& getModule() const { return _module; }
    /** The kvlog level that applies to the logger. */
    eKVLogLevel getLevel() const { return _level; }
    /** log4cxx's text of that level, for example "DEBUG". */
    const std::string& getLevelAsString() const { return _levelStr; }
    /** The ancestor the level is inherited from; empty when the level is the logger's own. */
    const std::string& getParent() const { return _parent; }
    /** True when the level comes from an ancestor. */
    bool isInherited() const { return !_parent.empty(); }

    /** The appender name a configuration file uses for the four root loggers
     * ("adminAppender", "developerAppender", "networkAppender",
     * "configAppender"); empty for every other logger, their children too. */
    std::string getAppender() const;

private:
    std::string _module;
    eKVLogLevel _level;
    std::string _levelStr;
    std::string _parent;
};

} // namespace kvlog

#pragma GCC visibility pop
#endif
