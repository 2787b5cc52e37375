// Common fixture of the system-key suites: a private scratch directory with
// the key file, bootstrap key and logging configuration the module is pointed
// at, and a capture of everything the module logs.
#ifndef TESTS_SYSTEMKEY_FIXTURE_H
#define TESTS_SYSTEMKEY_FIXTURE_H

#include "scratch_keys.h"
#include "systemkey/systemkey_seams.h"

#include <gtest/gtest.h>

#include <memory>
#include <openssl/evp.h>
#include <string>

namespace sktest {

const std::string kKeyA = "0123456789abcdef";
const std::string kKeyB = "fedcba9876543210";
const std::string kKeyW = "WRAPPEDKEY-16-by";

inline std::string keyLine(const std::string& id, const std::string& key, const std::string& enc = "")
{
    return id + "," + b64(key) + (enc.empty() ? "" : "," + enc) + "\n";
}

// One bootstrap pair per test process: generating RSA keys is slow.
inline EVP_PKEY* bootstrapPair()
{
    static EVP_PKEY* pkey = generateRsa(2048);
    return pkey;
}

class SystemKeyTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(dir.ok());
        // Debug lines (cache traces) are only logged when configured.
        ASSERT_TRUE(writeFile(logConf, "log4j.logger.developer=DEBUG\n"));
        redirect = std::make_unique<Redirect>(keyFile, bootstrap, logConf);
        log = std::make_unique<LogCapture>();
    }
    void TearDown() override
    {
        log.reset();
        redirect.reset();
    }

    void provisionBootstrap(bool traditional = false)
    {
        ASSERT_NE(bootstrapPair(), nullptr);
        ASSERT_TRUE(writePrivatePem(bootstrapPair(), bootstrap, traditional));
    }
    void keys(const std::string& contents)
    {
        ASSERT_TRUE(writeFile(keyFile, contents));
    }

    ScratchDir dir;
    std::string keyFile = dir.file("systemkey");
    std::string bootstrap = dir.file("bootstrap");
    std::string logConf = dir.file("kvlog.conf");
    std::unique_ptr<Redirect> redirect;
    std::unique_ptr<LogCapture> log;
};

inline bool allZero(const void* p, size_t n)
{
    const auto* b = static_cast<const unsigned char*>(p);
    for (size_t i = 0; i < n; ++i) {
        if (b[i] != 0) {
            return false;
        }
    }
    return true;
}

} // namespace sktest

#endif
