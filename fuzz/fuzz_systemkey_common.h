// The fixed world of the system-key fuzz targets: a scratch directory with a
// key file of a few ids (one of them wrapped with a bootstrap RSA key made at
// start-up), the bootstrap key itself and a quiet log sink. Created once per
// process; the directory is removed at exit.
#ifndef FUZZ_SYSTEMKEY_COMMON_H
#define FUZZ_SYSTEMKEY_COMMON_H

#include "scratch_keys.h"
#include "systemkey/systemkey_seams.h"

#include <cstdlib>
#include <openssl/evp.h>
#include <string>

namespace skfuzz {

const std::string kKeyA = "0123456789abcdef";
const std::string kKeyB = "fedcba9876543210";
const std::string kKeyW = "WRAPPEDKEY-16-by";

inline void quietSink(int, const char*) {}

struct World {
    sktest::ScratchDir dir;
    std::string keyFile = dir.file("systemkey");
    std::string bootstrap = dir.file("bootstrap");
    std::string scratchKeyFile = dir.file("fuzzed");
    EVP_PKEY* rsa = nullptr;

    World()
    {
        rsa = sktest::generateRsa(2048);
        if (!dir.ok() || rsa == nullptr || !sktest::writePrivatePem(rsa, bootstrap, false) ||
            !sktest::writeFile(keyFile, "a," + sktest::b64(kKeyA) + "\nb," + sktest::b64(kKeyB) +
                                            ",0\nw," + sktest::wrapKey(rsa, kKeyW) + ",1\n")) {
            std::abort();
        }
        systemkey_setKeyFilePath(keyFile.c_str());
        systemkey_setBootstrapKeyPath(bootstrap.c_str());
        zel_setConfigPath(dir.file("kvlog.conf").c_str());
        zel_setLogSink(quietSink);
    }
    ~World()
    {
        EVP_PKEY_free(rsa);
        systemkey_setKeyFilePath(nullptr);
        systemkey_setBootstrapKeyPath(nullptr);
        zel_setConfigPath(nullptr);
        zel_setLogSink(nullptr);
    }
};

inline World& world()
{
    static World w;
    return w;
}

inline void check(bool cond)
{
    if (!cond) {
        std::abort();
    }
}

inline bool allZero(const char* p, size_t n)
{
    for (size_t i = 0; i < n; ++i) {
        if (p[i] != 0) {
            return false;
        }
    }
    return true;
}

} // namespace skfuzz

#endif
