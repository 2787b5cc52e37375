/* The system-key crypto self-test suite. */
#ifndef SYSTEMKEY_UNITTEST_CRYPTO_FUNCS_H
#define SYSTEMKEY_UNITTEST_CRYPTO_FUNCS_H

/* Runs every check of the system-key module against scratch key files in a
 * private temporary directory, then the cipher threading self-test. */
void unittest_crypto_funcs(void);

#endif
