/*
 * House style of the abstraction's log lines: a leading blank, then
 * key="value" pairs separated by blanks, the human text first under Detail,
 * for example  Detail="Thread Created" Name="worker" LWP="1234".
 *
 *   KVLOG_DEBUG(kvos_logger(), kvp("Detail", "Create ptrqueue") << kvp("Name", name));
 *
 * The level macros test the level before the message is built.
 */
#ifndef ABSTRACTION_LINUX_KVOS_LOG_H
#define ABSTRACTION_LINUX_KVOS_LOG_H

#include <ostream>

#include "kvlog/kvlog.h"
#include "platform/linux_logger.h"

inline kvlog::LoggerPtr kvos_logger()
{
    return getLinuxAbstractionLogger();
}

template <typename T>
struct KvPair {
    const char* key;
    const T& value;
};

template <typename T>
KvPair<T> kvp(const char* key, const T& value)
{
    return KvPair<T>{key, value};
}

template <typename T>
std::ostream& operator<<(std::ostream& os, const KvPair<T>& p)
{
    return os << ' ' << p.key << "=\"" << p.value << '"';
}

/* A null C string is shown as "(null)" rather than crashing the stream. */
inline const char* kvos_str(const char* s)
{
    return s ? s : "(null)";
}

#endif
