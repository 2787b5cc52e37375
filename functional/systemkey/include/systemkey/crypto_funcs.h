/**
 * @file
 * System-key crypto: "{cipher}" strings encrypted with the device's keys.
 *
 * A secret is stored as a cipher string, the prefix "{cipher}" and either
 *     $<key id>$<cipher id>$<Base64 body>      (current form)
 * or the Base64 body directly                   (legacy form: key id "0").
 * The body is AES-128-CBC (PKCS#7 padding, all-zero IV) over 8 random salt
 * bytes followed by the plaintext; the salt, not the IV, makes equal secrets
 * encrypt differently, and stored strings depend on the zero IV.
 *
 * Keys come from the system key file "/korvenda/persistent/systemkey": either
 * exactly 16 bytes (one bare key, id "0"), or lines "id,base64[,encoding]"
 * whose first line is the active key. Encoding 1 means the value is wrapped
 * with the bootstrap RSA key "/korvenda/persistent/crypto/bootstrap" (OAEP);
 * the last unwrapped key is kept in a one-entry cache.
 *
 * Conventions of this interface:
 *  1. Results are true for success and false for failure; every failure logs
 *     its line(s) through the crypto log bridge (systemkey/zel-log4os.h).
 *  2. Capacities count every byte the function may write, terminator
 *     included.
 *  3. A failed decryption leaves the whole output capacity zeroed.
 *  4. Key bytes and plaintext scratch are wiped on every path.
 *  5. All functions may be called from several threads at once.
 *  6. Nothing throws.
 */
#ifndef SYSTEMKEY_CRYPTO_FUNCS_H
#define SYSTEMKEY_CRYPTO_FUNCS_H

#include <cstddef>
#include <openssl/types.h>

#pragma GCC visibility push(default)

/** Makes the compiler warn when a caller ignores the result. */
#define SYSTEMKEY_MUST_CHECK __attribute__((warn_unused_result))

/** Encrypts `in` with the active key of the key file into the current form
 * (the legacy form when the file is a bare key). */
SYSTEMKEY_MUST_CHECK bool encryptStringWithSystemKey(const char* in, char* out, int outCap);
/** Decrypts a cipher string with the key its id names. The empty text
 * decrypts to the empty text. */
SYSTEMKEY_MUST_CHECK bool decryptStringWithSystemKey(const char* in, char* out, int outCap);
/** Encrypts with the key given as text (its first 64 characters at most;
 * AES-128 needs exactly 16) into the legacy form. */
SYSTEMKEY_MUST_CHECK bool encryptStringWithKey(const char* in, const char* key, char* out,
                                               int outCap);
/** Decrypts with the key given as text; the key id of the string is parsed
 * but not used. */
SYSTEMKEY_MUST_CHECK bool decryptStringWithPresharedKey(const char* in, const char* key,
                                                        char* out, int outCap);
/** The same as decryptStringWithPresharedKey. */
SYSTEMKEY_MUST_CHECK bool decryptStringWithKey(const char* in, const char* key, char* out,
                                               int outCap);
/** Moves a secret to the key `targetKeyId` (null or empty: the active key).
 * A plaintext is encrypted; a cipher string under another key is decrypted
 * and encrypted again; one already under the target key is copied. */
SYSTEMKEY_MUST_CHECK bool reencryptString(const char* in, char* out, int outCap,
                                          const char* targetKeyId);
/** True when `text` begins with "{cipher}". */
bool isPrefixedAsCiphertext(const char* text);
/** True when `text` is prefixed and at least 32 characters long; otherwise
 * logs "Invalid input; not prefixed or too short" with the input, or, when
 * the input is not prefixed (likely a plaintext secret), only its length:
 * Input="<N characters not shown>". */
bool checkEncryptedInputFormat(const char* text, size_t length);

/* ---- Key file, key selection and wrapped keys ---------------------------- */

/** The working record of one operation. Set it up with cryptDataInit (or zero
 * it and set key_id_size 41 and priv_key_size 64) and, on every exit path,
 * release it with cryptDataRelease: the key bytes are wiped, the bootstrap
 * key and the cipher-string copy are freed. */
typedef struct CRYPT_DATA {
    char* cipher_string;      /**< private copy of the input; parsing cuts it */
    size_t cipher_string_len;
    char* b64_blob;           /**< the Base64 body, inside cipher_string */
    size_t b64_blob_len;
    char key_id[48];
    size_t key_id_size;       /**< 41: ids of at most 40 characters */
    size_t key_id_len;
    unsigned char priv_key[64];
    size_t priv_key_size;     /**< 64 */
    size_t priv_key_len;
    const EVP_CIPHER* cipher; /**< null until chosen */
    RSA* bootstrap_private;   /**< the loaded bootstrap key, or null */
} CRYPT_DATA;

/** Zeroes the record and sets key_id_size to 41 and priv_key_size to 64, ready for one operation. */
void cryptDataInit(CRYPT_DATA* cd);
/** Wipes the key bytes and the cipher-string copy, frees the copy and the bootstrap key, and leaves
 * the record reusable after cryptDataInit; null does nothing. Call it on every exit path. */
void cryptDataRelease(CRYPT_DATA* cd);

/** Capacity that callers give readSystemKeyFile: the most bytes of a key file
 * that are ever read. The buffer needs one more byte for the terminator. */
enum { SYSTEMKEY_MAX_FILE_SIZE = 1048576 };

/** Reads the key file into buf (capacity `cap`, buf must hold cap + 1 bytes)
 * and terminates it; *len is the number of bytes read. A file larger than the
 * limit or the capacity is reported and read in part. */
SYSTEMKEY_MUST_CHECK bool readSystemKeyFile(char* buf, size_t cap, size_t* len);
/** Selects a key from key-file text into cd->priv_key: the first well-formed
 * line when `active` (its id goes to cd->key_id), else the line whose id is
 * cd->key_id. Wrapped keys are unwrapped with the bootstrap key. */
SYSTEMKEY_MUST_CHECK bool getPrivateKey(CRYPT_DATA* cd, const char* text, size_t len, bool active);
/** Reads the key file and selects the active key. */
SYSTEMKEY_MUST_CHECK bool getActivePrivateKey(CRYPT_DATA* cd);
/** Reads the key file and selects the key whose id is in cd->key_id. */
SYSTEMKEY_MUST_CHECK bool getPrivateKeyByID(CRYPT_DATA* cd);

/** Loads the bootstrap RSA private key into cd->bootstrap_private once per
 * record and returns it, or null (logged). The record owns the key. */
RSA* getBootstrapPrivate(CRYPT_DATA* cd);
/** Wraps the key `keyId` of the key file with `pub` (RSA OAEP) and writes the
 * Base64 of the result into `out`: 344 characters for a 2048-bit key. */
SYSTEMKEY_MUST_CHECK bool encryptKeyWithPublicKey(const char* keyId, RSA* pub, char* out,
                                                  int outCap);

#pragma GCC visibility pop
#endif
