#include "platform/linux_logger.h"

// Never released: records may be logged from static destructors and from
// threads that outlive main's return.
kvlog::LoggerPtr getLinuxAbstractionLogger()
{
    static const kvlog::LoggerPtr* logger = new kvlog::LoggerPtr(kvlog::getDeveloperLogger("abstraction"));
    return *logger;
}

kvlog::LoggerPtr getLinuxPlatformLogger()
{
    static const kvlog::LoggerPtr* logger = new kvlog::LoggerPtr(kvlog::getDeveloperLogger("platform"));
    return *logger;
}
