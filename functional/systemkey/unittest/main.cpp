/*
 * The system-key crypto self-test executable. Exit status: the number of
 * failed checks (0 when healthy).
 */
#include "unittest/unittest.h"
#include "unittest_crypto_funcs.h"

#include <openssl/ssl.h>

int main(int, char**)
{
    // Initialising twice is harmless; the library does the work once.
    SSL_library_init();
    SSL_library_init();
    unittest_init("ZEL Crypto tests", UNITTEST_MODE_VERBOSE);
    unittest_crypto_funcs();
    return static_cast<int>(unittest_errors());
}
