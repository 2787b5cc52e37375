/*
 * The system-key crypto self-test executable. Exit status: the number of
 * failed checks (0 when healthy).
 *
 * The OS abstraction is started around the suite when the build has it.
 */
#include "unittest/unittest.h"
#include "unittest_crypto_funcs.h"

#include <openssl/ssl.h>

#if __has_include("abstraction/kvos.h")
#include "abstraction/kvos.h"
#define ZEL_CRYPTO_TESTS_WITH_KVOS 1
#endif

int main(int, char**)
{
    // Initialising twice is harmless; the library does the work once.
    SSL_library_init();
    SSL_library_init();
#ifdef ZEL_CRYPTO_TESTS_WITH_KVOS
    KVOS_init();
#endif
    unittest_init("ZEL Crypto tests", UNITTEST_MODE_VERBOSE);
    unittest_crypto_funcs();
#ifdef ZEL_CRYPTO_TESTS_WITH_KVOS
    KVOS_cleanup();
#endif
    return static_cast<int>(unittest_errors());
}
