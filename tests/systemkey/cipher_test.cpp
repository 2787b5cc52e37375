#include "fixture.h"
#include "systemkey/crypto_steps.h"

#include <cstring>

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
    // Decrypts with the system key, or the preshared `key`, into `out_`
    // pre-filled with 'x', and sets `got`; on failure the whole buffer must
    // come back zeroed.
    bool decrypt(const std::string& in, int cap = 256, const char* key = nullptr)
    {
        out_.assign(static_cast<size_t>(cap), 'x');
        const bool ok = key == nullptr ? decryptStringWithSystemKey(in.c_str(), out_.data(), cap)
                                       : decryptStringWithPresharedKey(in.c_str(), key, out_.data(), cap);
        EXPECT_TRUE(ok || allZero(out_.data(), out_.size())) << "output not wiped for " << in;
        got = ok ? std::string(out_.data()) : std::string();
        return ok;
    }
    static std::string body(const std::string& key, const std::string& plain, const std::string& salt = "saltsalt")
    {
        return b64(referenceEncrypt(key, salt, plain));
    }
    std::vector<char> out_;
    std::string got;
};

TEST_F(CipherTest, RoundTripInTheCurrentForm)
{
    for (const std::string& text : {std::string("p"), std::string(15, 'x'), std::string(16, 'y'),
                                    std::string(300, 'z'), std::string("")}) {
        const std::string cs = encrypt(text);
        EXPECT_EQ(cs.compare(0, 13, "{cipher}$a$1$"), 0) << cs;
        // 8 salt bytes plus the text, padded to whole blocks.
        EXPECT_EQ(cs.size() - 13, 4 * ((((text.size() + 8) / 16 + 1) * 16 + 2) / 3)) << text.size();
        EXPECT_TRUE(decrypt(cs, 1024)) << log->dump();
        EXPECT_EQ(got, text);
    }
    // Salt only: the whole output is zeroed, not just terminated.
    EXPECT_TRUE(allZero(out_.data(), out_.size()));
    EXPECT_TRUE(decrypt("", 4));
    EXPECT_EQ(out_[0], '\0');
}

// Interoperability with plain library calls (AES-128-CBC, zero IV, 8 salt
// bytes) both ways; the preshared key ignores the id the string names.
TEST_F(CipherTest, InteroperatesWithPlainLibraryCalls)
{
    EXPECT_TRUE(decrypt("{cipher}$b$1$" + body(kKeyB, "under b")));
    EXPECT_EQ(got, "under b");
    EXPECT_TRUE(decrypt("{cipher}$b$01$" + body(kKeyB, "two-digit id")));
    EXPECT_EQ(got, "two-digit id");
    char out[128];
    ASSERT_TRUE(decryptStringWithKey(("{cipher}" + body(kKeyA, "legacy")).c_str(), kKeyA.c_str(), out, 128));
    EXPECT_STREQ(out, "legacy");
    EXPECT_TRUE(decrypt("{cipher}$nosuchid$1$" + body(kKeyB, "preshared"), 64, kKeyB.c_str()));
    EXPECT_EQ(got, "preshared");

    std::string ref;
    ASSERT_TRUE(encryptStringWithKey("reverse", kKeyB.c_str(), out, sizeof out));
    ASSERT_TRUE(referenceDecrypt(kKeyB, unb64(out + 8), &ref));
    EXPECT_EQ(ref.substr(8), "reverse");
    ASSERT_TRUE(referenceDecrypt(kKeyA, unb64(encrypt("current").substr(13)), &ref));
    EXPECT_EQ(ref.substr(8), "current");
}

// Each shape's parse, and the same string refused by decryption.
TEST_F(CipherTest, ParsingOfEveryShape)
{
    const std::string blob = body(kKeyA, "x");
    const std::string id40(40, 'k');
    const std::string id41(41, 'k');
    const char* unknown0 = "Unknown cipher Id\" Id=\"0";
    struct Row {
        std::string in;
        bool ok;
        std::string keyId;
        std::string b64;
        std::vector<std::string> lines; // before the closing "Failed to parse metadata" of a failure
    } rows[] = {
        {"{cipher}" + blob, true, "0", blob, {}},
        {"{cipher}$a$1$" + blob, true, "a", blob, {}},
        {"{cipher}$" + id40 + "$1$" + blob, true, id40, blob, {}},
        {"{cipher}$a$1$x", true, "a", "x", {}},
        {"{cipher}", false, "", "", {"Cipher string too short"}},
        {"{cipher}$", false, "", "", {}},
        {"{cipher}$a", false, "", "", {}},
        {"{cipher}$a" + blob, false, "", "", {}},
        {"{cipher}$$1$" + blob, false, "", "", {}},
        {"{cipher}$a$", false, "", "", {}},
        {"{cipher}$a$1", false, "a", "", {}},
        {"{cipher}$a$1$", false, "a", "", {}},
        {"{cipher}$a$2$" + blob, false, "a", "", {"Unknown cipher Id\" Id=\"2"}},
        {"{cipher}$a$0$" + blob, false, "a", "", {unknown0}},
        {"{cipher}$a$$" + blob, false, "a", "", {unknown0}},
        {"{cipher}$a$x$" + blob, false, "a", "", {unknown0}},
        {"{cipher}$a$123$" + blob, false, "a", "", {"Cipher Id longer than expected"}},
        {"{cipher}$" + id41 + "$1$" + blob, false, "", blob, {"Key Id too long"}},
        {"{cipher}$" + id41 + "$123$" + blob, false, "", "", {"Key Id too long", "Cipher Id longer than expected"}},
    };
    for (Row& r : rows) {
        SCOPED_TRACE(r.in);
        log->clear();
        Record cd;
        cd.cipher_string = strdup(r.in.c_str());
        cd.cipher_string_len = r.in.size();
        EXPECT_EQ(parseCipherMetadata(&cd), r.ok);
        EXPECT_EQ(std::string(cd.key_id, cd.key_id_len), r.keyId);
        if (!r.b64.empty()) {
            ASSERT_NE(cd.b64_blob, nullptr);
            EXPECT_EQ(std::string(cd.b64_blob, cd.b64_blob_len), r.b64);
        }
        EXPECT_TRUE(!r.ok || cd.cipher == getDefaultEncryptionCipher());
        if (!r.ok) {
            r.lines.push_back("Failed to parse metadata for cipher string");
        }
        EXPECT_EQ(details(), r.lines);
        if (!r.ok && r.in.size() >= 32) {
            EXPECT_FAILS_LOGGING(decrypt(r.in), "Failed to parse metadata for cipher string");
        }
    }
}

// A refused input that lacks the prefix is most likely a plaintext secret
// given where a cipher string belongs: the line shows only its length. A
// prefixed one is shown, to tell which stored string is broken.
TEST_F(CipherTest, RefusedInputIsShownOnlyWhenPrefixed)
{
    const std::string refused = "Invalid input; not prefixed or too short\" Input=\"";
    struct Row {
        const char* text;
        size_t length;
        std::string shown;
    } rows[] = {
        {"hunter2", 7, "<7 characters not shown>"},
        {"plain text that is long enough to pass", 38, "<38 characters not shown>"},
        {"{CIPHER}$a$1$AAAAAAAAAAAAAAAAAAAAAAAA", 37, "<37 characters not shown>"},
        {"{ciphe", 6, "<6 characters not shown>"},
        {"", 0, "<0 characters not shown>"},
        {nullptr, 0, "<0 characters not shown>"},
        {"{cipher}AAAA", 12, "{cipher}AAAA"},
        {"{cipher}", 8, "{cipher}"},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.text != nullptr ? r.text : "(null)");
        log->clear();
        EXPECT_FALSE(checkEncryptedInputFormat(r.text, r.length));
        EXPECT_EQ(details(), std::vector<std::string>{refused + r.shown}) << log->dump();
    }
    // Through the exported functions too.
    char out[64];
    log->clear();
    EXPECT_FALSE(decryptStringWithSystemKey("my password", out, sizeof out));
    EXPECT_FALSE(decryptStringWithPresharedKey("my password", kKeyA.c_str(), out, sizeof out));
    EXPECT_EQ(log->count(refused + "<11 characters not shown>"), 2u) << log->dump();
    EXPECT_EQ(log->count("my password"), 0u);
}

// Strings that pass the parse but not the rest, and strings the format check
// refuses (32 characters is the shortest it takes): each fails with its
// line and leaves the output zeroed.
TEST_F(CipherTest, BrokenStringsFailAndWipe)
{
    const std::string blob = encrypt("secret value").substr(13);
    const std::string cut = blob.substr(0, blob.size() - 1);
    const char* refused = "Invalid input; not prefixed or too short";
    const char* undecodable = "Failed to Base64 decode the ciphertext";
    const char* badPadding = "Decryption finalisation failed\" Reason=\"error:";
    struct Row {
        std::string in;
        const char* line;
    } rows[] = {
        {"{cipher}AAAA", "Invalid input; not prefixed or too short\" Input=\"{cipher}AAAA"},
        {"{cipher}" + std::string(23, 'A'), refused},
        {"{cipher}" + std::string(24, 'A'), "Failed to find required decryption key\" Id=\"0"},
        {"xcipher}$a$1$" + blob, refused},
        {"{CIPHER}$a$1$" + blob, refused},
        {"plain text that is long enough to pass", refused},
        {"{cipher}$c$1$" + blob, "Failed to find required decryption key\" Id=\"c"},
        {"{cipher}$a$1$" + std::string(24, '='), undecodable},
        {"{cipher}$a$1$" + cut + "!", undecodable},
        {"{cipher}$a$1$" + cut + " ", undecodable},
        {"{cipher}$a$1$" + blob.substr(0, blob.size() - 4), badPadding},
        {"{cipher}$a$1$" + blob.substr(4), badPadding},
        {"{cipher}$a$1$" + body(kKeyA, "", "abc"), "Decrypted output too small; output shorter than salt"},
        {"{cipher}$a$1$" + body(kKeyB, "wrong key"), "Failed to decrypt"},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.in);
        log->clear();
        EXPECT_FAILS_LOGGING(decrypt(r.in), r.line);
    }
    EXPECT_TRUE(isPrefixedAsCiphertext("{cipher}"));
    EXPECT_FALSE(isPrefixedAsCiphertext("{cipher") || isPrefixedAsCiphertext(nullptr));
    EXPECT_TRUE(checkEncryptedInputFormat(rows[2].in.c_str(), 32));
    EXPECT_FALSE(checkEncryptedInputFormat(rows[2].in.c_str(), 31));
}

TEST_F(CipherTest, OutputCapacitiesAreExact)
{
    const std::string cs = encrypt("0123456789");
    EXPECT_TRUE(decrypt(cs, 11));
    EXPECT_EQ(got, "0123456789");
    EXPECT_FAILS_LOGGING(decrypt(cs, 10),
                         "Output buffer too small\" Current-Length=\"10\" Required-Length=\"11");

    // 16 + 8 bytes give 32 of ciphertext, 44 Base64 characters; "{cipher}$a$1$"
    // and the terminator make 58. The legacy form needs 44 + 9.
    const char* in = "password-16bytes";
    char out[128];
    ASSERT_TRUE(encryptStringWithSystemKey(in, out, 58));
    EXPECT_FAILS_LOGGING(encryptStringWithSystemKey(in, out, 57),
                         "Output buffer too small\" Current-Length=\"57\" Required-Length=\"58");
    EXPECT_FAILS_LOGGING(encryptStringWithSystemKey(in, out, 16),
                         "Output buffer too short\" Current-Length=\"16\" Required-Length=\"17");
    ASSERT_TRUE(encryptStringWithKey(in, kKeyA.c_str(), out, 44 + 9));
    EXPECT_EQ(std::strlen(out), 52u);
    EXPECT_FALSE(encryptStringWithKey(in, kKeyA.c_str(), out, 44 + 8));

    // Prefixed input is copied, never encrypted twice, and must be long enough.
    EXPECT_EQ(encrypt(cs), cs);
    EXPECT_FAILS_LOGGING(encryptStringWithSystemKey(("{cipher}" + std::string(23, 'A')).c_str(), out, 128),
                         "Prefixed input too short\" Length=\"31");
}

TEST_F(CipherTest, KeysMustBeSixteenBytes)
{
    char out[128];
    for (const char* key : {"0123456789abcde", "0123456789abcdefg", ""}) {
        EXPECT_FAILS_LOGGING(encryptStringWithKey("x", key, out, sizeof out),
                             "Private key value has incorrect length\" Current-Length=\"" +
                                 std::to_string(std::strlen(key)) + "\" Required-Length=\"16");
    }
    const std::string legacy = "{cipher}" + body(kKeyA, "x");
    EXPECT_FALSE(decrypt(legacy, 64, "0123456789abcdefg"));
    EXPECT_FAILS_LOGGING(decrypt(legacy, 64, ""), "Private key value cannot be zero-length");
    // The key file may hold other lengths; the cipher refuses them.
    keys(keyLine("a", std::string(63, 'k')) + keyLine("b", kKeyB));
    EXPECT_FAILS_LOGGING(encryptStringWithSystemKey("x", out, sizeof out),
                         "Private key value has incorrect length\" Current-Length=\"63\" Required-Length=\"16");
}

TEST_F(CipherTest, NullArguments)
{
    const std::string cs = encrypt("x");
    char out[128];
    EXPECT_FAILS_LOGGING(encryptStringWithSystemKey(nullptr, out, sizeof out), "Detail=\"Input not provided\"");
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
    out_.assign(64, 'x');
    EXPECT_FALSE(decryptStringWithPresharedKey(cs.c_str(), nullptr, out_.data() + 32, 32));
    EXPECT_FALSE(decryptStringWithSystemKey(nullptr, out_.data(), 32));
    EXPECT_TRUE(allZero(out_.data(), out_.size()));
    EXPECT_FALSE(reencryptString(nullptr, out, sizeof out, "a"));
}

// Outside text ("%" in key ids and bodies) must reach the log as it came and
// must not be taken for a format anywhere on the way: first through the
// capture, then through the real system log sink, where "%n" or a run of "%s"
// taken for a format would crash the process.
TEST_F(CipherTest, PercentSignsInCipherStringsAreNeverAFormat)
{
    struct Row {
        std::string in;
        std::string line;
    } rows[] = {
        {"{cipher}$%n%s%x$1$" + std::string(24, 'A'), "Id=\"%n%s%x\" Operation=\"Decryption"},
        {"{cipher}$a$1$%n%s%x%n%s%x%n%s%x%n%s%x", "Failed to Base64 decode the ciphertext"},
        {"{cipher}%n%s%x%n%s%x%n%s%x%n%s%x", "Failed to find required decryption key\" Id=\"0"},
        {"{cipher}%n%s%x%n%s%x", "Input=\"{cipher}%n%s%x%n%s%x"},
    };
    for (const Row& r : rows) {
        log->clear();
        EXPECT_FAILS_LOGGING(decrypt(r.in), r.line);
    }
    zel_setLogSink(nullptr);
    EXPECT_FALSE(decrypt("{cipher}$%n%s%s%s%s%s%s%s%s%s%s$1$" + std::string(24, 'A')));
    EXPECT_FALSE(decrypt("{cipher}$a$1$%s%s%s%s%s%s%s%s%s%s%s%s%n%n"));
}

TEST_F(CipherTest, Reencrypt)
{
    keys(keyLine("b", kKeyB));
    const std::string underB = encrypt("rotate me");
    keys(keyLine("a", kKeyA) + keyLine("b", kKeyB));
    char out[256];
    ASSERT_TRUE(reencryptString("plain", out, sizeof out, ""));
    EXPECT_EQ(std::strncmp(out, "{cipher}$a$1$", 13), 0);
    EXPECT_FAILS_LOGGING(reencryptString(underB.c_str(), nullptr, 256, "a"), "Output buffer not provided");
    EXPECT_FAILS_LOGGING(reencryptString(underB.c_str(), out, 10, "a"),
                         "Output buffer too small\" Current-Length=\"10\" Required-Length=\"" +
                             std::to_string(underB.size()));
    EXPECT_FAILS_LOGGING(reencryptString(underB.c_str(), out, sizeof out, "c"),
                         "Failed to find required decryption key\" Id=\"c\" Operation=\"Decryption");

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
    EXPECT_FAILS_LOGGING(addSalt("x", 2147483648ull, buf, sizeof buf),
                         "Too many salt bytes requested\" Max=\"2147483647");
    EXPECT_FAILS_LOGGING(addSalt("abc", 8, buf, 11),
                         "Output buffer is too small to add salt\" Current-Length=\"11\" Required-Length=\"12");
    ASSERT_TRUE(addSalt("abc", 8, buf, 12));
    EXPECT_STREQ(reinterpret_cast<char*>(buf) + 8, "abc");

    EXPECT_FAILS_LOGGING(cleanCipherContext(nullptr), "NULL cipher context provided");
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    EXPECT_FAILS_LOGGING(setupCipherContext(nullptr, ctx, KIP_CRYPTO_OPERATION_ENCRYPT, buf),
                         "Failed to initialise the cipher");
    ASSERT_TRUE(setupCipherContext(getDefaultEncryptionCipher(), ctx, KIP_CRYPTO_OPERATION_ENCRYPT, buf));
    size_t n = 0;
    EXPECT_FAILS_LOGGING(performEncryption(ctx, buf, 16, buf, 31, &n),
                         "Output buffer is too small for encrypted data\" Current-Length=\"31\" Required-Length=\"32");
    EXPECT_FAILS_LOGGING(performDecryption(ctx, buf, 16, buf, 31, &n),
                         "Output buffer too small\" Current-Length=\"31\" Required-Length=\"32");
    EXPECT_TRUE(cleanCipherContext(ctx));
    EVP_CIPHER_CTX_free(ctx);

    EXPECT_EQ(cipherIdToCipher(1), getDefaultEncryptionCipher());
    EXPECT_STREQ(cipherToCipherId(getDefaultEncryptionCipher()), "1");
    // Two paths to the same cipher, kept apart on purpose.
    EXPECT_EQ(getEncryptionCipherFromKeyId("0"), getEncryptionCipherFromKeyId("a"));
    EXPECT_EQ(EVP_CIPHER_get_nid(getEncryptionCipherFromKeyId("0")), NID_aes_128_cbc);
}

TEST_F(CipherTest, PreparedRecordChecks)
{
    Record cd;
    char out[128];
    EXPECT_FAILS_LOGGING(encryptStringWithKey(&cd, "x", out, 128), "Unable to perform encryption. No cipher specified");
    EXPECT_FAILS_LOGGING(decryptStringWithKey(&cd, out, sizeof out), "Private key value cannot be zero-length");
    std::memcpy(cd.priv_key, kKeyA.data(), 16);
    cd.priv_key_len = 16;
    EXPECT_FAILS_LOGGING(decryptStringWithKey(&cd, out, 128), "Unable to perform decryption. No cipher specified");
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
    EXPECT_FAILS_LOGGING(encryptStringWithKey(&cd, "x", out, sizeof out), "Failed to get cipher Id");
    EXPECT_TRUE(log->has("Cannot convert cipher to Id\" Id=\"" + std::to_string(NID_aes_256_cbc)));
}

} // namespace
} // namespace sktest
