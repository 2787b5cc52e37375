/**
 * @file
 * The loggers of the OS abstraction and the platform glue. Each is created on
 * first call (thread-safe) and kept for the life of the process.
 */
#ifndef PLATFORM_LINUX_LOGGER_H
#define PLATFORM_LINUX_LOGGER_H

#include "kvlog/kvlog.h"

#pragma GCC visibility push(default)

/** "developer.abstraction" */
kvlog::LoggerPtr getLinuxAbstractionLogger();
/** "developer.platform" */
kvlog::LoggerPtr getLinuxPlatformLogger();

#pragma GCC visibility pop
#endif
