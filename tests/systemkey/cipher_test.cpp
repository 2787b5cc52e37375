#include "fixture.h"
#include "systemkey/crypto_funcs.h"
#include "systemkey/crypto_steps.h"

#include <atomic>
#include <climits>
#include <cstring>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <thread>
#include <vector>

namespace sktest {
namespace {

class CipherTest : public SystemKeyTest {
protected:
    void SetUp() override
    {
        SystemKeyTest::SetUp();
        keys(keyLine("a", kKeyA) + keyLine("b", kKeyB));
    }
    std::string encrypt(const std::string& plain)
    {
        char out[1024] = {};
        EXPECT_TRUE(encryptStringWithSystemKey(plain.c_str(), out, sizeof out)) << log->dump();
        return out;
    }
    // Decrypts into a buffer pre-filled with 'x'; on failure the whole buffer
    // must come back zeroed.
    bool decrypt(const std::string& in, std::string* plain, int cap = 256)
    {
        std::vector<char> out(static_cast<size_t>(cap), 'x');
        const bool ok = decryptStringWithSystemKey(in.c_str(), out.data(), cap);
        if (!ok) {
            EXPECT_TRUE(allZero(out.data(), out.size())) << "output not wiped for " << in;
        }
        *plain = ok ? std::string(out.data()) : std::string();
        return ok;
    }
    static std::string body(const std::string& key, const std::string& plain, const std::string& salt = "saltsalt")
    {
        return b64(referenceEncrypt(key, salt, plain));
    }
};

TEST_F(CipherTest, RoundTripInTheCurrentForm)
{
    for (const std::string& plain : {std::string(""), std::string("p"), std::string("password"),
                                     std::string(15, 'x'), std::string(16, 'y'), std::string(300, 'z')}) {
        const std::string cs = encrypt(plain);
        EXPECT_EQ(cs.compare(0, 13, "{cipher}$a$1$"), 0) << cs;
        // 8 salt bytes plus the text, padded to whole blocks.
        EXPECT_EQ(cs.size() - 13, 4 * ((((plain.size() + 8) / 16 + 1) * 16 + 2) / 3)) << plain.size();
        std::string back;
        EXPECT_TRUE(decrypt(cs, &back, 1024)) << log->dump();
        EXPECT_EQ(back, plain);
    }
}

TEST_F(CipherTest, RandomSaltMakesEveryStringDifferent)
{
    const std::string one = encrypt("same");
    const std::string two = encrypt("same");
    EXPECT_NE(one, two);
    std::string p1, p2;
    EXPECT_TRUE(decrypt(one, &p1) && decrypt(two, &p2));
    EXPECT_EQ(p1, "same");
    EXPECT_EQ(p2, "same");
}

TEST_F(CipherTest, EmptyPlaintextWipesTheWholeOutput)
{
    const std::string cs = encrypt("");
    EXPECT_EQ(cs.size(), 13u + 24u);
    char out[32];
    std::memset(out, 'x', sizeof out);
    ASSERT_TRUE(decryptStringWithSystemKey(cs.c_str(), out, sizeof out));
    EXPECT_TRUE(allZero(out, sizeof out));
}

TEST_F(CipherTest, EmptyInputDecryptsToEmpty)
{
    char out[4] = "xyz";
    EXPECT_TRUE(decryptStringWithSystemKey("", out, sizeof out));
    EXPECT_STREQ(out, "");
}

TEST_F(CipherTest, PrefixedInputIsNeverEncryptedTwice)
{
    const std::string cs = encrypt("once");
    EXPECT_EQ(encrypt(cs), cs);
    const std::string shortOne = "{cipher}" + std::string(23, 'A');
    char out[64];
    EXPECT_FALSE(encryptStringWithSystemKey(shortOne.c_str(), out, sizeof out));
    EXPECT_TRUE(log->has("Prefixed input too short\" Length=\"31"));
}

// Interoperability with strings made by plain library calls, both ways.
TEST_F(CipherTest, LegacyStringsFromPlainLibraryCalls)
{
    const std::string legacy = "{cipher}" + body(kKeyA, "legacy secret");
    char out[64];
    ASSERT_TRUE(decryptStringWithPresharedKey(legacy.c_str(), kKeyA.c_str(), out, sizeof out));
    EXPECT_STREQ(out, "legacy secret");
    ASSERT_TRUE(decryptStringWithKey(legacy.c_str(), kKeyA.c_str(), out, sizeof out));
    EXPECT_STREQ(out, "legacy secret");

    // With a bare key file, legacy strings and strings naming any id decrypt.
    keys(kKeyA);
    std::string plain;
    EXPECT_TRUE(decrypt(legacy, &plain));
    EXPECT_EQ(plain, "legacy secret");
    EXPECT_TRUE(decrypt("{cipher}$zz$1$" + body(kKeyA, "any id"), &plain));
    EXPECT_EQ(plain, "any id");

    // And the bare key encrypts in the legacy form.
    const std::string mine = encrypt("from here");
    ASSERT_EQ(mine.compare(0, 8, "{cipher}"), 0);
    ASSERT_NE(mine[8], '$');
    std::string ref;
    ASSERT_TRUE(referenceDecrypt(kKeyA, unb64(mine.substr(8)), &ref));
    EXPECT_EQ(ref.substr(8), "from here");
}

TEST_F(CipherTest, CurrentFormFromPlainLibraryCalls)
{
    std::string plain;
    EXPECT_TRUE(decrypt("{cipher}$b$1$" + body(kKeyB, "under b"), &plain));
    EXPECT_EQ(plain, "under b");
    EXPECT_TRUE(decrypt("{cipher}$b$01$" + body(kKeyB, "two-digit id"), &plain));
    EXPECT_EQ(plain, "two-digit id");

    char out[128];
    ASSERT_TRUE(encryptStringWithKey("reverse", kKeyB.c_str(), out, sizeof out));
    std::string ref;
    ASSERT_TRUE(referenceDecrypt(kKeyB, unb64(out + 8), &ref));
    EXPECT_EQ(ref.substr(8), "reverse");
}

TEST_F(CipherTest, ParsingOfEveryShape)
{
    const std::string blob = body(kKeyA, "x");
    const std::string id40(40, 'k');
    struct Row {
        std::string in;
        bool ok;
        std::string keyId;
        std::string b64;
        std::vector<std::string> lines;
    } rows[] = {
        {"{cipher}" + blob, true, "0", blob, {}},
        {"{cipher}$a$1$" + blob, true, "a", blob, {}},
        {"{cipher}$" + id40 + "$1$" + blob, true, id40, blob, {}},
        {"{cipher}$a$1$x", true, "a", "x", {}},
        {"{cipher}", false, "", "", {"Cipher string too short"}},
        {"{cipher}$", false, "", "", {}},
        {"{cipher}$a", false, "", "", {}},
        {"{cipher}$$1$" + blob, false, "", "", {}},
        {"{cipher}$a$", false, "", "", {}},
        {"{cipher}$a$1", false, "a", "", {}},
        {"{cipher}$a$1$", false, "a", "", {}},
        {"{cipher}$a$2$" + blob, false, "a", "", {"Unknown cipher Id\" Id=\"2"}},
        {"{cipher}$a$0$" + blob, false, "a", "", {"Unknown cipher Id\" Id=\"0"}},
        {"{cipher}$a$$" + blob, false, "a", "", {"Unknown cipher Id\" Id=\"0"}},
        {"{cipher}$a$x$" + blob, false, "a", "", {"Unknown cipher Id\" Id=\"0"}},
        {"{cipher}$a$123$" + blob, false, "a", "", {"Cipher Id longer than expected"}},
        {"{cipher}$" + std::string(41, 'k') + "$1$" + blob, false, "", blob, {"Key Id too long"}},
        {"{cipher}$" + std::string(41, 'k') + "$123$" + blob, false, "", "",
         {"Key Id too long", "Cipher Id longer than expected"}},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.in);
        log->clear();
        CRYPT_DATA cd;
        cryptDataInit(&cd);
        cd.cipher_string = strdup(r.in.c_str());
        cd.cipher_string_len = r.in.size();
        EXPECT_EQ(parseCipherMetadata(&cd), r.ok);
        EXPECT_EQ(std::string(cd.key_id, cd.key_id_len), r.keyId);
        if (r.ok || !r.b64.empty()) {
            ASSERT_NE(cd.b64_blob, nullptr);
            EXPECT_EQ(std::string(cd.b64_blob, cd.b64_blob_len), r.b64);
        }
        if (r.ok) {
            EXPECT_EQ(cd.cipher, getDefaultEncryptionCipher());
        }
        std::vector<std::string> expect;
        for (const std::string& l : r.lines) {
            expect.push_back(l);
        }
        if (!r.ok) {
            expect.push_back("Failed to parse metadata for cipher string");
        }
        std::vector<std::string> got;
        for (const auto& l : log->lines()) {
            got.push_back(detailOf(l.second));
        }
        EXPECT_EQ(got, expect);
        cryptDataRelease(&cd);
    }
}

// Every broken shape is refused with its line and leaves the output zeroed.
TEST_F(CipherTest, BrokenStringsFailAndWipe)
{
    const std::string good = encrypt("secret value");
    const std::string blob = good.substr(13);
    struct Row {
        std::string in;
        const char* line;
    } rows[] = {
        {"{cipher}AAAA", "Invalid input; not prefixed or too short\" Input=\"{cipher}AAAA"},
        {"{cipher}" + std::string(23, 'A'), "Invalid input; not prefixed or too short"},
        {"xcipher}$a$1$" + blob, "Invalid input; not prefixed or too short"},
        {"plain text that is long enough to pass", "Invalid input; not prefixed or too short"},
        {"{cipher}$a" + blob, "Failed to parse metadata for cipher string"},
        {"{cipher}$$1$" + blob, "Failed to parse metadata for cipher string"},
        {"{cipher}$" + std::string(41, 'k') + "$1$" + blob, "Key Id too long"},
        {"{cipher}$a$2$" + blob, "Unknown cipher Id\" Id=\"2"},
        {"{cipher}$a$123$" + blob, "Cipher Id longer than expected"},
        {"{cipher}$c$1$" + blob, "Failed to find required decryption key\" Id=\"c"},
        {"{cipher}$a$1$" + std::string(24, '='), "Failed to Base64 decode the ciphertext"},
        {"{cipher}$a$1$" + blob.substr(0, blob.size() - 1) + "!", "Failed to Base64 decode the ciphertext"},
        {"{cipher}$a$1$" + blob.substr(0, blob.size() - 4), "Decryption finalisation failed\" Reason=\"error:"},
        {"{cipher}$a$1$" + blob.substr(4), "Decryption finalisation failed\" Reason=\"error:"},
        {"{cipher}$a$1$" + blob.substr(0, blob.size() - 1) + " ", "Failed to Base64 decode the ciphertext"},
        {"{cipher}$a$1$" + body(kKeyA, "", "abc"), "Decrypted output too small; output shorter than salt"},
        {"{cipher}$a$1$" + body(kKeyB, "wrong key"), "Failed to decrypt"},
    };
    for (const Row& r : rows) {
        log->clear();
        std::string plain;
        EXPECT_FALSE(decrypt(r.in, &plain)) << r.in;
        EXPECT_TRUE(log->has(r.line)) << r.in << "\n" << log->dump();
    }
}

TEST_F(CipherTest, DecryptOutputCapacityIsExact)
{
    const std::string cs = encrypt("0123456789");
    std::string plain;
    EXPECT_TRUE(decrypt(cs, &plain, 11));
    EXPECT_EQ(plain, "0123456789");
    EXPECT_FALSE(decrypt(cs, &plain, 10));
    EXPECT_TRUE(log->has("Output buffer too small\" Current-Length=\"10\" Required-Length=\"11")) << log->dump();
}

TEST_F(CipherTest, EncryptOutputCapacityIsExact)
{
    // "password": 16 + 8 -> 32 bytes of ciphertext, 44 Base64 characters.
    char out[128];
    ASSERT_TRUE(encryptStringWithSystemKey("password-16bytes", out, 44 + 1 + 1 + 12));
    log->clear();
    EXPECT_FALSE(encryptStringWithSystemKey("password-16bytes", out, 44 + 1 + 1 + 11));
    EXPECT_TRUE(log->has("Output buffer too small\" Current-Length=\"57\" Required-Length=\"58")) << log->dump();
    log->clear();
    EXPECT_FALSE(encryptStringWithSystemKey("password-16bytes", out, 16));
    EXPECT_TRUE(log->has("Output buffer too short\" Current-Length=\"16\" Required-Length=\"17")) << log->dump();

    // The legacy form needs the Base64 length plus 9.
    ASSERT_TRUE(encryptStringWithKey("password-16bytes", kKeyA.c_str(), out, 44 + 9));
    EXPECT_EQ(std::strlen(out), 52u);
    EXPECT_FALSE(encryptStringWithKey("password-16bytes", kKeyA.c_str(), out, 44 + 8));
}

// AES-CBC has no MAC: about one wrong key in 256 passes the padding check and
// "decrypts" to garbage. Most must fail, none may return the plaintext.
TEST_F(CipherTest, WrongKeysMostlyFailAndNeverReturnThePlaintext)
{
    const std::string legacy = "{cipher}" + body(kKeyA, "the real secret");
    int failed = 0;
    for (int i = 0; i < 64; ++i) {
        unsigned char raw[16];
        ASSERT_EQ(RAND_bytes(raw, sizeof raw), 1);
        std::string key(16, 'a');
        for (int j = 0; j < 16; ++j) {
            key[static_cast<size_t>(j)] = static_cast<char>('A' + raw[j] % 26);
        }
        char out[64];
        std::memset(out, 'x', sizeof out);
        if (decryptStringWithPresharedKey(legacy.c_str(), key.c_str(), out, sizeof out)) {
            EXPECT_STRNE(out, "the real secret");
        } else {
            EXPECT_TRUE(allZero(out, sizeof out));
            ++failed;
        }
    }
    EXPECT_GE(failed, 56);
}

TEST_F(CipherTest, KeyTextMustBeSixteenCharacters)
{
    char out[128];
    for (const char* key : {"0123456789abcde", "0123456789abcdefg", ""}) {
        log->clear();
        EXPECT_FALSE(encryptStringWithKey("x", key, out, sizeof out)) << key;
        EXPECT_TRUE(log->has("Private key value has incorrect length\" Current-Length=\"" +
                             std::to_string(std::strlen(key)) + "\" Required-Length=\"16"));
    }
    const std::string legacy = "{cipher}" + body(kKeyA, "x");
    std::memset(out, 'x', sizeof out);
    EXPECT_FALSE(decryptStringWithPresharedKey(legacy.c_str(), "0123456789abcdefg", out, sizeof out));
    EXPECT_TRUE(allZero(out, sizeof out));
    EXPECT_FALSE(decryptStringWithPresharedKey(legacy.c_str(), "", out, sizeof out));
    EXPECT_TRUE(log->has("Private key value cannot be zero-length"));
}

TEST_F(CipherTest, PresharedKeyIgnoresTheIdOfTheString)
{
    char out[64];
    const std::string cs = "{cipher}$nosuchid$1$" + body(kKeyB, "preshared");
    ASSERT_TRUE(decryptStringWithPresharedKey(cs.c_str(), kKeyB.c_str(), out, sizeof out));
    EXPECT_STREQ(out, "preshared");
}

TEST_F(CipherTest, NullArgumentsAreRefused)
{
    const std::string cs = encrypt("x");
    char out[128];
    EXPECT_FALSE(encryptStringWithSystemKey(nullptr, out, sizeof out));
    EXPECT_TRUE(log->has("Detail=\"Input not provided\""));
    EXPECT_FALSE(encryptStringWithSystemKey("x", nullptr, 128));
    const char* none = nullptr;
    EXPECT_FALSE(encryptStringWithKey(none, kKeyA.c_str(), out, 128));
    EXPECT_FALSE(encryptStringWithKey("x", none, out, 128));
    EXPECT_FALSE(encryptStringWithKey("x", kKeyA.c_str(), nullptr, 128));
    const CRYPT_DATA* noRecord = nullptr;
    EXPECT_FALSE(encryptStringWithKey(noRecord, "x", out, sizeof out));
    EXPECT_FALSE(decryptStringWithKey(noRecord, out, sizeof out));
    EXPECT_EQ(log->count("CRYPT_DATA structure not provided"), 2u);
    EXPECT_FALSE(decryptStringWithSystemKey(cs.c_str(), nullptr, 128));
    EXPECT_FALSE(decryptStringWithSystemKey(cs.c_str(), out, 0));
    std::memset(out, 'x', sizeof out);
    EXPECT_FALSE(decryptStringWithSystemKey(nullptr, out, sizeof out));
    EXPECT_TRUE(allZero(out, sizeof out));
    std::memset(out, 'x', sizeof out);
    EXPECT_FALSE(decryptStringWithPresharedKey(cs.c_str(), nullptr, out, sizeof out));
    EXPECT_TRUE(allZero(out, sizeof out));
    EXPECT_FALSE(reencryptString(nullptr, out, sizeof out, "a"));
}

TEST_F(CipherTest, FormatCheck)
{
    EXPECT_TRUE(isPrefixedAsCiphertext("{cipher}"));
    EXPECT_FALSE(isPrefixedAsCiphertext("{cipher"));
    EXPECT_FALSE(isPrefixedAsCiphertext("{CIPHER}abc"));
    EXPECT_FALSE(isPrefixedAsCiphertext(nullptr));
    const std::string s32 = "{cipher}" + std::string(24, 'A');
    EXPECT_TRUE(checkEncryptedInputFormat(s32.c_str(), 32));
    EXPECT_FALSE(checkEncryptedInputFormat(s32.c_str(), 31));
    EXPECT_FALSE(checkEncryptedInputFormat(("x" + s32).c_str(), 33));
    EXPECT_EQ(log->count("Invalid input; not prefixed or too short"), 2u);
}

// Outside text ("%" in key ids and bodies) must reach the log as it came and
// must not be taken for a format anywhere on the way.
TEST_F(CipherTest, PercentSignsInCipherStringsAreLoggedVerbatim)
{
    struct Row {
        std::string in;
        std::string line;
    } rows[] = {
        {"{cipher}$%n%s%x$1$" + std::string(24, 'A'), "Id=\"%n%s%x\" Operation=\"Decryption"},
        {"{cipher}$a$1$%n%s%x%n%s%x%n%s%x%n%s%x", "Failed to Base64 decode the ciphertext"},
        {"{cipher}%n%s%x%n%s%x%n%s%x%n%s%x", "Failed to find required decryption key\" Id=\"0"},
        {"%n%s%x%n%s%x%n%s%x%n%s%x%n%s%x%n%s%x", "Input=\"%n%s%x%n%s%x%n%s%x%n%s%x%n%s%x%n%s%x"},
    };
    for (const Row& r : rows) {
        log->clear();
        std::string plain;
        EXPECT_FALSE(decrypt(r.in, &plain));
        EXPECT_TRUE(log->has(r.line)) << log->dump();
    }
}

// The same through the real system log sink: a format interpretation of
// "%n" or a run of "%s" would crash the process here.
TEST_F(CipherTest, PercentSignsThroughTheSystemLogSink)
{
    zel_setLogSink(nullptr);
    char out[64];
    const std::string id = "{cipher}$%n%s%s%s%s%s%s%s%s%s%s$1$" + std::string(24, 'A');
    EXPECT_FALSE(decryptStringWithSystemKey(id.c_str(), out, sizeof out));
    const std::string body = "{cipher}$a$1$%s%s%s%s%s%s%s%s%s%s%s%s%n%n";
    EXPECT_FALSE(decryptStringWithSystemKey(body.c_str(), out, sizeof out));
    EXPECT_TRUE(allZero(out, sizeof out));
}

TEST_F(CipherTest, Reencrypt)
{
    keys(keyLine("b", kKeyB));
    const std::string underB = encrypt("rotate me");
    keys(keyLine("a", kKeyA) + keyLine("b", kKeyB));
    char out[256];
    std::string plain;

    ASSERT_TRUE(reencryptString(underB.c_str(), out, sizeof out, nullptr));
    EXPECT_EQ(std::strncmp(out, "{cipher}$a$1$", 13), 0);
    EXPECT_TRUE(decrypt(out, &plain));
    EXPECT_EQ(plain, "rotate me");

    ASSERT_TRUE(reencryptString(underB.c_str(), out, sizeof out, "b"));
    EXPECT_EQ(underB, out) << "already under the target: copied";

    ASSERT_TRUE(reencryptString("plain", out, sizeof out, "b"));
    EXPECT_EQ(std::strncmp(out, "{cipher}$b$1$", 13), 0);
    ASSERT_TRUE(reencryptString("plain", out, sizeof out, ""));
    EXPECT_EQ(std::strncmp(out, "{cipher}$a$1$", 13), 0);

    EXPECT_FALSE(reencryptString(underB.c_str(), nullptr, 256, "a"));
    EXPECT_TRUE(log->has("Output buffer not provided"));
    EXPECT_FALSE(reencryptString(underB.c_str(), out, 10, "a"));
    EXPECT_TRUE(log->has("Output buffer too small\" Current-Length=\"10\" Required-Length=\"" +
                         std::to_string(underB.size())));
    EXPECT_FALSE(reencryptString(underB.c_str(), out, sizeof out, "c"));
    EXPECT_TRUE(log->has("Failed to find required decryption key\" Id=\"c\" Operation=\"Decryption"));

    // Legacy strings and target "0" with a bare key file stay legacy.
    keys(kKeyA);
    const std::string legacy = "{cipher}" + body(kKeyA, "old");
    ASSERT_TRUE(reencryptString(legacy.c_str(), out, sizeof out, "0"));
    EXPECT_EQ(legacy, out);
    ASSERT_TRUE(reencryptString("new", out, sizeof out, "0"));
    EXPECT_NE(out[8], '$');
}

TEST_F(CipherTest, StepsReportTheirOwnFailures)
{
    unsigned char buf[32];
    EXPECT_FALSE(addSalt("x", 2147483648ull, buf, sizeof buf));
    EXPECT_TRUE(log->has("Too many salt bytes requested\" Max=\"2147483647"));
    EXPECT_FALSE(addSalt("abc", 8, buf, 11));
    EXPECT_TRUE(log->has("Output buffer is too small to add salt\" Current-Length=\"11\" Required-Length=\"12"));
    ASSERT_TRUE(addSalt("abc", 8, buf, 12));
    EXPECT_STREQ(reinterpret_cast<char*>(buf) + 8, "abc");

    EXPECT_FALSE(cleanCipherContext(nullptr));
    EXPECT_TRUE(log->has("NULL cipher context provided"));
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    EXPECT_FALSE(setupCipherContext(nullptr, ctx, KIP_CRYPTO_OPERATION_ENCRYPT, buf));
    EXPECT_TRUE(log->has("Failed to initialise the cipher"));
    ASSERT_TRUE(setupCipherContext(getDefaultEncryptionCipher(), ctx, KIP_CRYPTO_OPERATION_ENCRYPT, buf));
    size_t n = 0;
    EXPECT_FALSE(performEncryption(ctx, buf, 16, buf, 31, &n));
    EXPECT_TRUE(log->has("Output buffer is too small for encrypted data\" Current-Length=\"31\" Required-Length=\"32"));
    EXPECT_FALSE(performDecryption(ctx, buf, 16, buf, 31, &n));
    EXPECT_TRUE(log->has("Output buffer too small\" Current-Length=\"31\" Required-Length=\"32"));
    EXPECT_TRUE(cleanCipherContext(ctx));
    EVP_CIPHER_CTX_free(ctx);

    EXPECT_EQ(cipherIdToCipher(1), getDefaultEncryptionCipher());
    EXPECT_EQ(cipherIdToCipher(3), nullptr);
    EXPECT_TRUE(log->has("Unknown cipher Id\" Id=\"3"));
    EXPECT_STREQ(cipherToCipherId(getDefaultEncryptionCipher()), "1");
    EXPECT_EQ(cipherToCipherId(EVP_aes_256_cbc()), nullptr);
    EXPECT_TRUE(log->has("Cannot convert cipher to Id\" Id=\"" + std::to_string(NID_aes_256_cbc)));
    EXPECT_EQ(getEncryptionCipherFromKeyId("0"), getEncryptionCipherFromKeyId("a"));
    EXPECT_EQ(EVP_CIPHER_get_nid(getEncryptionCipherFromKeyId("0")), NID_aes_128_cbc);
}

TEST_F(CipherTest, PreparedRecordChecks)
{
    CRYPT_DATA cd;
    cryptDataInit(&cd);
    char out[128];
    EXPECT_FALSE(encryptStringWithKey(&cd, "x", out, sizeof out));
    EXPECT_TRUE(log->has("Unable to perform encryption. No cipher specified"));
    EXPECT_FALSE(decryptStringWithKey(&cd, out, sizeof out));
    EXPECT_TRUE(log->has("Private key value cannot be zero-length"));
    std::memcpy(cd.priv_key, kKeyA.data(), 16);
    cd.priv_key_len = 16;
    EXPECT_FALSE(decryptStringWithKey(&cd, out, sizeof out));
    EXPECT_TRUE(log->has("Unable to perform decryption. No cipher specified"));
    cd.cipher = getDefaultEncryptionCipher();
    log->clear();
    EXPECT_FALSE(decryptStringWithKey(&cd, out, sizeof out));
    ASSERT_EQ(log->lines().size(), 1u);
    EXPECT_EQ(log->lines()[0].first, 4);
    EXPECT_EQ(detailOf(log->lines()[0].second), "Cipher text input zero-length. Nothing to decrypt");

    // A cipher without an id cannot be written in the current form.
    cd.cipher = EVP_aes_256_cbc();
    std::memset(cd.priv_key, 'k', 32);
    cd.priv_key_len = 32;
    std::strcpy(cd.key_id, "a");
    cd.key_id_len = 1;
    EXPECT_FALSE(encryptStringWithKey(&cd, "x", out, sizeof out));
    EXPECT_TRUE(log->has("Failed to get cipher Id"));
    cryptDataRelease(&cd);
}

TEST_F(CipherTest, RoundTripsOnSeveralThreads)
{
    std::atomic<int> bad{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&bad, t] {
            for (int i = 0; i < 200; ++i) {
                const std::string plain = "secret-" + std::to_string(t) + "-" + std::to_string(i);
                char cs[256];
                char back[256];
                if (!encryptStringWithSystemKey(plain.c_str(), cs, sizeof cs) ||
                    !decryptStringWithSystemKey(cs, back, sizeof back) || plain != back) {
                    ++bad;
                }
            }
        });
    }
    for (auto& th : threads) {
        th.join();
    }
    EXPECT_EQ(bad.load(), 0);
}

} // namespace
} // namespace sktest
