/*
 * The steps the cipher-string functions are built from. They are exposed for
 * the module's own tests and tools; configuration code uses crypto_funcs.h.
 * Every step logs its own failure line and returns false (or null).
 */
#ifndef SYSTEMKEY_CRYPTO_STEPS_H
#define SYSTEMKEY_CRYPTO_STEPS_H

#include "systemkey/crypto_funcs.h"

#include <cstddef>
#include <openssl/types.h>

typedef enum KIP_CRYPTO_CIPHER_OP {
    KIP_CRYPTO_OPERATION_DECRYPT = 0,
    KIP_CRYPTO_OPERATION_ENCRYPT = 1
} KIP_CRYPTO_CIPHER_OP;

enum {
    SYSTEMKEY_PREFIX_LEN = 8,        /* "{cipher}" */
    SYSTEMKEY_MIN_CIPHER_STRING = 32, /* prefix + Base64 of one block */
    SYSTEMKEY_SALT_LEN = 8
};

/* Splits the private copy cd->cipher_string into key id, cipher and Base64
 * body, overwriting each "$" with a terminator. */
SYSTEMKEY_MUST_CHECK bool parseCipherMetadata(CRYPT_DATA* cd);
/* Writes saltLen random bytes, then `in` and its terminator, to `out`. */
SYSTEMKEY_MUST_CHECK bool addSalt(const char* in, size_t saltLen, unsigned char* out, size_t cap);
/* Initialises `ctx` for `op` with `cipher`, `key` and no IV (all zero). */
SYSTEMKEY_MUST_CHECK bool setupCipherContext(const EVP_CIPHER* cipher, EVP_CIPHER_CTX* ctx,
                                             KIP_CRYPTO_CIPHER_OP op, const unsigned char* key);
/* One whole update and final; `cap` must cover inLen plus one block. */
SYSTEMKEY_MUST_CHECK bool performEncryption(EVP_CIPHER_CTX* ctx, const unsigned char* in,
                                            size_t inLen, unsigned char* out, size_t cap,
                                            size_t* outLen);
SYSTEMKEY_MUST_CHECK bool performDecryption(EVP_CIPHER_CTX* ctx, const unsigned char* in,
                                            size_t inLen, unsigned char* out, size_t cap,
                                            size_t* outLen);
/* Resets `ctx` for reuse or freeing. */
bool cleanCipherContext(EVP_CIPHER_CTX* ctx);

/* Encrypts with a prepared record (cipher, key, key id). */
SYSTEMKEY_MUST_CHECK bool encryptStringWithKey(const CRYPT_DATA* cd, const char* in, char* out,
                                               size_t cap);
/* Decrypts cd->b64_blob with a prepared record. */
SYSTEMKEY_MUST_CHECK bool decryptStringWithKey(const CRYPT_DATA* cd, char* out, size_t cap);

/* Cipher id 1 is AES-128-CBC; other ids give null. */
const EVP_CIPHER* cipherIdToCipher(int id);
/* "1" for AES-128-CBC, else null. */
const char* cipherToCipherId(const EVP_CIPHER* cipher);
/* AES-128-CBC, fetched once for the process. */
const EVP_CIPHER* getDefaultEncryptionCipher(void);
/* The cipher for keys of `keyId`: legacy id "0" or the default. */
const EVP_CIPHER* getEncryptionCipherFromKeyId(const char* keyId);

#endif
