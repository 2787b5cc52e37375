// First lesson in the crypto module: keep a configuration secret as a
// "{cipher}" string under a pre-shared 16-byte key, read it back, and see
// what a wrong key or a damaged string gives. Every function reports failure
// by its result (and a line in the system log); none throws, and a failed
// decryption leaves the whole output buffer zeroed.
//
// Services normally use encryptStringWithSystemKey/decryptStringWithSystemKey,
// which take the key from the device's key file; the pre-shared form keeps
// this example independent of that file.
//
//   build/bin/example_crypto; echo "failed steps: $?"
#include "systemkey/crypto_funcs.h"

#include <cstdio>
#include <cstring>

int main()
{
    const char* key = "0123456789abcdef"; // AES-128: exactly 16 bytes
    const char* secret = "sip-password: s3cr3t";
    int failures = 0;

    char cipher[256];
    if (!encryptStringWithKey(secret, key, cipher, sizeof cipher)) {
        std::printf("encryption failed\n");
        return 1;
    }
    std::printf("stored as      %s\n", cipher);
    if (!isPrefixedAsCiphertext(cipher)) {
        ++failures;
    }

    // Salted: the same secret encrypts differently each time.
    char again[256];
    if (!encryptStringWithKey(secret, key, again, sizeof again) || std::strcmp(cipher, again) == 0) {
        ++failures;
    }

    char plain[256];
    if (decryptStringWithPresharedKey(cipher, key, plain, sizeof plain) && std::strcmp(plain, secret) == 0) {
        std::printf("read back as   %s\n", plain);
    } else {
        ++failures;
    }

    // A wrong key almost always fails the padding check; when it does not,
    // the result is still not the secret.
    const bool wrong = decryptStringWithPresharedKey(cipher, "fedcba9876543210", plain, sizeof plain);
    std::printf("wrong key:     %s\n", wrong ? "garbage, not the secret" : "refused");
    if (wrong && std::strcmp(plain, secret) == 0) {
        ++failures;
    }

    // A damaged string is refused, and nothing of a plaintext is left behind.
    char damaged[256];
    std::snprintf(damaged, sizeof damaged, "%.*s", static_cast<int>(std::strlen(cipher) - 4), cipher);
    const bool accepted = decryptStringWithPresharedKey(damaged, key, plain, sizeof plain);
    std::printf("damaged:       %s\n", accepted ? "accepted?" : "refused");
    if (accepted || plain[0] != '\0') {
        ++failures;
    }

    // An output buffer that is too small is refused rather than overrun.
    char tiny[8];
    if (encryptStringWithKey(secret, key, tiny, sizeof tiny)) {
        ++failures;
    }
    return failures;
}
