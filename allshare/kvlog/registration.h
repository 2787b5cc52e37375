// Internal: where logger names are recorded. Tests point it elsewhere to
// exercise the failure reports without touching the real directory.
#ifndef KVLOG_REGISTRATION_H
#define KVLOG_REGISTRATION_H

#include <string>

namespace kvlog {
namespace detail {

/* The directory, with its trailing slash. Defaults to LOGGER_REGISTRATION_PATH. */
std::string registrationPath();
void setRegistrationPath(const std::string& directoryWithSlash);

} // namespace detail
} // namespace kvlog

#endif
