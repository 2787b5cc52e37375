/**
 * @file
 * Message assertions for programming and installation faults.
 *
 * BOOST_ASSERT_MSG(expr, msg) reports through the library's handler (the
 * `kvlog` target defines BOOST_ENABLE_ASSERT_HANDLER for all its users), which
 * writes in one go to stderr
 *
 * @verbatim
 *   ***** Internal Program Error - assertion (<expr>) failed in <function>:
 *   <file>(<line>): <msg>
 * @endverbatim
 *
 * and aborts. It never returns, whatever the build type.
 */
#ifndef KVLOG_KVLOG_ASSERT_H
#define KVLOG_KVLOG_ASSERT_H

#ifndef BOOST_ENABLE_ASSERT_HANDLER
#error "BOOST_ENABLE_ASSERT_HANDLER must be defined for every translation unit (link the kvlog target)"
#endif

#include <boost/assert.hpp>

#pragma GCC visibility push(default)

#pragma GCC visibility pop
#endif
