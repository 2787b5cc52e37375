/*
 * Shared between the module's source files; not part of its interface.
 */
#ifndef SYSTEMKEY_SYSTEMKEY_INTERNAL_H
#define SYSTEMKEY_SYSTEMKEY_INTERNAL_H

#include "systemkey/crypto_funcs.h"
#include "systemkey/zel-log4os.h"

#include <cstdlib>
#include <openssl/crypto.h>

#define SK_MODULE "developer.zel_crypto_server"
#define SK_ERROR(...) zel_syslog(SK_MODULE, 3, __VA_ARGS__)
#define SK_WARN(...) zel_syslog(SK_MODULE, 4, __VA_ARGS__)
#define SK_DEBUG(...) zel_syslog(SK_MODULE, 7, __VA_ARGS__)

constexpr size_t kKeyIdSize = 41;
constexpr size_t kPrivKeySize = 64;

/* The files of the module call one way: crypto_funcs.cpp (cipher strings)
 * -> system_key_file.cpp (key file, key cache) -> bootstrap_key.cpp (RSA),
 * and all of them -> ssl_errors.cpp, base64_funcs.cpp, zel-log4os.cpp. */

/* The cipher library's text for the oldest error still queued on this
 * thread (the root cause), or "" if none (ssl_errors.cpp). */
const char* sslErrorText(char* buf, size_t size);

/* Drops stale entries of this thread's error queue, so that a failure reports
 * its own error. Looks before clearing: clearing an empty queue is not free. */
void clearStaleErrors(void);

/* RSA helpers, the only users of the library's RSA key API (bootstrap_key.cpp). */
int bootstrapModulusSize(const RSA* rsa);
int bootstrapOaepDecrypt(RSA* rsa, const unsigned char* in, int inLen, unsigned char* out);
/* Encrypts inLen bytes with the public key `pub` (OAEP) into `out`, which
 * holds bootstrapModulusSize(pub) bytes; the length written, or -1. */
int rsaOaepEncrypt(RSA* pub, const unsigned char* in, int inLen, unsigned char* out);
void bootstrapKeyFree(RSA* rsa);

/* The one-entry cache of unwrapped keys (system_key_file.cpp). */
void keyCacheForget(void);

/* Heap scratch that is wiped over its whole size and freed at scope end. */
class Scratch {
public:
    explicit Scratch(size_t size)
        : data_(static_cast<unsigned char*>(std::malloc(size == 0 ? 1 : size))),
          size_(data_ != nullptr ? size : 0)
    {
    }
    ~Scratch()
    {
        if (data_ != nullptr) {
            OPENSSL_cleanse(data_, size_);
            std::free(data_);
        }
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    bool ok() const { return data_ != nullptr; }
    unsigned char* data() { return data_; }
    char* chars() { return reinterpret_cast<char*>(data_); }
    size_t size() const { return size_; }

private:
    unsigned char* data_;
    size_t size_;
};

#endif
