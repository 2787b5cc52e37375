// Common fixture of the system-key suites: a private scratch directory with
// the key file, bootstrap key and logging configuration the module is pointed
// at, and a capture of everything the module logs.
#ifndef TESTS_SYSTEMKEY_FIXTURE_H
#define TESTS_SYSTEMKEY_FIXTURE_H

#include "scratch_keys.h"
#include "systemkey/crypto_funcs.h"
#include "systemkey/systemkey_seams.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <openssl/evp.h>
#include <string>
#include <vector>

// Expects `call` to fail having logged `line` (in a SystemKeyTest).
#define EXPECT_FAILS_LOGGING(call, line) \
    do { EXPECT_FALSE(call); EXPECT_TRUE(log->has(line)) << log->dump(); } while (0)

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

// A CRYPT_DATA set up and released with the scope.
struct Record : CRYPT_DATA {
    Record() { cryptDataInit(this); }
    ~Record() { cryptDataRelease(this); }
    Record(const Record&) = delete;
    Record& operator=(const Record&) = delete;
};

inline bool allZero(const void* p, size_t n)
{
    const auto* b = static_cast<const unsigned char*>(p);
    return std::all_of(b, b + n, [](unsigned char c) { return c == 0; });
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
    void keys(const std::string& contents) { ASSERT_TRUE(writeFile(keyFile, contents)); }
    // Detail texts of the captured lines, optionally of one priority only.
    std::vector<std::string> details(int priority = -1) const
    {
        std::vector<std::string> d;
        for (const auto& l : log->lines()) {
            if (priority < 0 || l.first == priority) {
                d.push_back(detailOf(l.second));
            }
        }
        return d;
    }

    ScratchDir dir;
    std::string keyFile = dir.file("systemkey");
    std::string bootstrap = dir.file("bootstrap");
    std::string logConf = dir.file("kvlog.conf");
    std::unique_ptr<Redirect> redirect;
    std::unique_ptr<LogCapture> log;
};

} // namespace sktest

#endif
