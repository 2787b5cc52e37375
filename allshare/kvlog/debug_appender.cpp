#include "kvlog/debug_appender.h"

#include <log4cxx/helpers/bytebuffer.h>
#include <log4cxx/helpers/outputstreamwriter.h>
#include <log4cxx/helpers/pool.h>
#include <log4cxx/simplelayout.h>

// log4cxx's class registration macros must be used at global scope with the
// unqualified class name.
using kvlog::DebugAppender;
using kvlog::MemoryOutputStream;
IMPLEMENT_LOG4CXX_OBJECT(MemoryOutputStream)
IMPLEMENT_LOG4CXX_OBJECT(DebugAppender)

namespace kvlog {

MemoryOutputStream::MemoryOutputStream() = default;
MemoryOutputStream::~MemoryOutputStream() = default;

void MemoryOutputStream::close(log4cxx::helpers::Pool&) {}

void MemoryOutputStream::flush(log4cxx::helpers::Pool&) {}

void MemoryOutputStream::write(log4cxx::helpers::ByteBuffer& buf, log4cxx::helpers::Pool&)
{
    m_sstream.write(buf.current(), static_cast<std::streamsize>(buf.remaining()));
    buf.position(buf.limit());
}

std::string MemoryOutputStream::toString() const
{
    return m_sstream.str();
}

DebugAppender::DebugAppender() : m_outputStream(std::make_shared<MemoryOutputStream>())
{
    init(std::make_shared<log4cxx::SimpleLayout>());
}

DebugAppender::DebugAppender(const log4cxx::LayoutPtr& layout)
    : m_outputStream(std::make_shared<MemoryOutputStream>())
{
    init(layout);
}

DebugAppender::~DebugAppender()
{
    finalize();
}

void DebugAppender::init(const log4cxx::LayoutPtr& layout)
{
    setLayout(layout);
    log4cxx::helpers::OutputStreamPtr os = m_outputStream;
    setWriter(std::make_shared<log4cxx::helpers::OutputStreamWriter>(os));
    log4cxx::helpers::Pool pool;
    activateOptions(pool);
}

std::string DebugAppender::getLogs() const
{
    return m_outputStream->toString();
}

LoggerInfo::LoggerInfo(const std::string& module, eKVLogLevel level, const std::string& levelStr)
    : _module(module), _level(level), _levelStr(levelStr)
{
}

LoggerInfo::LoggerInfo(const std::string& module, eKVLogLevel level, const std::string& levelStr,
                       const std::string& parent)
    : _module(module), _level(level), _levelStr(levelStr), _parent(parent)
{
}

std::string LoggerInfo::getAppender() const
{
    // Whole-name comparison on purpose: only the roots themselves have these
    // conventional appender names, not their children.
    if (_module == adminstratorHierarchy) {
        return "adminAppender";
    }
    if (_module == developerHierarchy) {
        return "developerAppender";
    }
    if (_module == networkHierarchy) {
        return "networkAppender";
    }
    if (_module == configHierarchy) {
        return "configAppender";
    }
    return std::string();
}

} // namespace kvlog
