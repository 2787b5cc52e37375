/*
 * Self-test of the system-key crypto module, end to end.
 *
 * The suite provisions its own world in a private directory: key files, a
 * freshly generated 2048-bit bootstrap RSA pair and a logging configuration,
 * and points the module at them through its seams; it never reads or writes
 * the device's /korvenda paths. What the module logs is captured instead of
 * reaching the system log, so the checks read the documented lines.
 *
 * The closing threading self-test runs the per-call cipher steps (context
 * set-up, encryption, Base64 both ways, decryption, clean-up) on several KVOS
 * tasks at once for a fixed time, each task with its own context, and checks
 * every cycle. It needs KVOS_init to have run (main does).
 */
#include "unittest_crypto_funcs.h"

#include "abstraction/kvos.h"
#include "abstraction/kvos_semaphore.h"
#include "abstraction/kvos_task.h"
#include "scratch_keys.h"
#include "systemkey/base64_funcs.h"
#include "systemkey/crypto_funcs.h"
#include "systemkey/crypto_steps.h"
#include "systemkey/systemkey_seams.h"
#include "systemkey/zel-log4os.h"
#include "unittest/unittest.h"

#include <cstring>
#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

const std::string kKeyA = "0123456789abcdef";
const std::string kKeyB = "fedcba9876543210";
const std::string kKeyW = "WRAPPEDKEY-16-by";

struct World {
    sktest::ScratchDir dir;
    std::string keyFile = dir.file("systemkey");
    std::string bootstrap = dir.file("bootstrap");
    std::string logConf = dir.file("kvlog.conf");
    EVP_PKEY* rsa = nullptr;
    ~World() { EVP_PKEY_free(rsa); }
};

std::string keyLine(const std::string& id, const std::string& key)
{
    return id + "," + sktest::b64(key) + "\n";
}

std::string encryptSys(const std::string& plain)
{
    char out[512] = {};
    return encryptStringWithSystemKey(plain.c_str(), out, sizeof out) ? std::string(out) : std::string();
}

bool decryptSys(const std::string& in, std::string* plain)
{
    char out[512];
    std::memset(out, 'x', sizeof out);
    const bool ok = decryptStringWithSystemKey(in.c_str(), out, sizeof out);
    *plain = out;
    return ok;
}

bool allZero(const char* p, size_t n)
{
    for (size_t i = 0; i < n; ++i) {
        if (p[i] != 0) {
            return false;
        }
    }
    return true;
}

void testBase64(sktest::LogCapture& log)
{
    unittest_context("base64");
    char enc[8];
    const unsigned char three[3] = {'A', 'B', 'C'};
    unittest_assert(base64Encode(three, 0, enc, 1) == 0 && enc[0] == '\0');
    unittest_assert(base64Encode(three, 3, enc, 5) == 4 && std::strcmp(enc, "QUJD") == 0);
    log.clear();
    unittest_assert(base64Encode(three, 3, enc, 4) == -1);
    unittest_assert(log.has("Current-Length=4 Required-Minimum=5"));

    unsigned char dec[8];
    unittest_assert(base64Decode("QQ==", 4, dec, 3) == 1 && dec[0] == 'A');
    log.clear();
    unittest_assert(base64Decode("====", 4, dec, 3) == -1);
    unittest_assert(base64Decode("Q", 1, dec, 3) == -1);
    unittest_assert(log.count("Input appears to be all padding. Cannot Base64 decode") == 2);
    std::memset(dec, 0x55, sizeof dec);
    log.clear();
    unittest_assert(base64Decode("QU!D", 4, dec, 6) == -1);
    unittest_assert(log.has("Base64 Encode Error=") && allZero(reinterpret_cast<char*>(dec), 6));
    unittest_assert(base64Decode("QUJDREVG", 8, dec, 5) == -1 && base64Decode("QUJDREVG", 8, dec, 6) == 6);
    log.clear();
    unittest_assert(base64Decode(nullptr, 4, dec, 6) == -1 && base64Encode(three, -1, enc, 8) == -1);
    unittest_assert(log.has("Cannot decode due to invalid input length") &&
                    log.has("Cannot encode due to invalid input length"));
}

void testKeyFile(World& w, sktest::LogCapture& log)
{
    unittest_context("key file");
    // A bare 16-byte key: id "0", legacy strings, any id decrypts.
    sktest::writeFile(w.keyFile, kKeyA);
    const std::string legacy = encryptSys("secret");
    unittest_assert(legacy.rfind("{cipher}", 0) == 0 && legacy[8] != '$');
    std::string plain;
    unittest_assert(decryptSys(legacy, &plain) && plain == "secret");

    log.clear();
    sktest::writeFile(w.keyFile, kKeyA.substr(0, 15));
    unittest_assert(encryptSys("x").empty());
    unittest_assert(log.has("File too short\" Current-Length=\"15"));

    log.clear();
    const std::string bigFile = keyLine("a", kKeyA) + std::string(2 * 1048576, '\n');
    sktest::writeFile(w.keyFile, bigFile);
    const std::string big = encryptSys("big");
    unittest_assert(!big.empty() && big.compare(0, 12, "{cipher}$a$1") == 0);
    unittest_assert(log.has("Key file is larger than maximum size limit\" File-Size=\"" +
                            std::to_string(bigFile.size()) + "\" Max-Size=\"1048576\"\""));

    // Active key is the first line; later lines still decrypt.
    sktest::writeFile(w.keyFile, keyLine("b", kKeyB));
    const std::string underB = encryptSys("moved");
    sktest::writeFile(w.keyFile, keyLine("a", kKeyA) + keyLine("b", kKeyB));
    const std::string underA = encryptSys("fresh");
    unittest_assert(underA.compare(0, 12, "{cipher}$a$1") == 0);
    unittest_assert(decryptSys(underB, &plain) && plain == "moved");

    log.clear();
    sktest::writeFile(w.keyFile, "c," + sktest::b64(kKeyA) + ",2\n" + keyLine("b", kKeyB));
    unittest_assert(encryptSys("x").empty() && log.has("Illegal encoding value"));
    log.clear();
    sktest::writeFile(w.keyFile, "x\n" + keyLine("a", kKeyA));
    unittest_assert(encryptSys("x").empty() && log.has("Failed to parse key file"));
    log.clear();
    sktest::writeFile(w.keyFile, std::string(41, 'i') + "," + sktest::b64(kKeyB) + "\n" + keyLine("a", kKeyA));
    unittest_assert(encryptSys("x").compare(0, 12, "{cipher}$a$1") == 0);
    unittest_assert(log.has("Key Id is longer than expected"));
}

void testWrappedKeys(World& w, sktest::LogCapture& log)
{
    unittest_context("wrapped keys");
    const std::string keyText = keyLine("a", kKeyA) + "w," + sktest::wrapKey(w.rsa, kKeyW) + ",1\n";
    sktest::writeFile(w.keyFile, keyText);
    systemkey_setKeyFilePath(w.keyFile.c_str()); // forget any cached key

    // Encrypt under w with the reference cipher, then decrypt twice.
    const std::string body = sktest::b64(sktest::referenceEncrypt(kKeyW, "saltsalt", "wrapped"));
    const std::string cs = "{cipher}$w$1$" + body;
    log.clear();
    std::string plain;
    unittest_assert(decryptSys(cs, &plain) && plain == "wrapped");
    unittest_assert(decryptSys(cs, &plain) && plain == "wrapped");
    const auto lines = log.lines();
    size_t miss = std::string::npos;
    size_t hit = std::string::npos;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].second.find("Id=\"w\" Result=\"Miss") != std::string::npos && miss == std::string::npos) {
            miss = i;
        }
        if (lines[i].second.find("Id=\"w\" Result=\"Hit") != std::string::npos) {
            hit = i;
        }
    }
    unittest_assert(miss != std::string::npos && hit != std::string::npos && miss < hit);
    unittest_assert(log.count("Result=\"Miss") == 1 && log.count("Result=\"Hit") == 1);

    // Wrapping under the bootstrap's public half gives 344 characters that
    // unwrap to the key bytes.
    CRYPT_DATA cd;
    cryptDataInit(&cd);
    RSA* pub = getBootstrapPrivate(&cd);
    char wrapped[400];
    unittest_assert(pub != nullptr && encryptKeyWithPublicKey("a", pub, wrapped, sizeof wrapped));
    std::string unwrapped;
    unittest_assert(std::strlen(wrapped) == 344 && sktest::unwrapKey(w.rsa, wrapped, &unwrapped) &&
                    unwrapped == kKeyA);
    // Written back as an encoding-1 line, it decrypts what the plain key encrypted.
    sktest::writeFile(w.keyFile, keyLine("a", kKeyA));
    const std::string underA = encryptSys("round the houses");
    sktest::writeFile(w.keyFile, "a," + std::string(wrapped) + ",1\n");
    unittest_assert(decryptSys(underA, &plain) && plain == "round the houses");
    sktest::writeFile(w.keyFile, keyText);
    log.clear();
    unittest_assert(!encryptKeyWithPublicKey("a", pub, wrapped, 344));
    unittest_assert(log.has("Output buffer too small\" Current-Length=\"344\" Required-Length=\"345"));
    cryptDataRelease(&cd);

    // Without the bootstrap file wrapped lines fail, plain ones still work.
    systemkey_setKeyFilePath(w.keyFile.c_str());
    systemkey_setBootstrapKeyPath(w.dir.file("missing").c_str());
    log.clear();
    unittest_assert(!decryptSys(cs, &plain) && plain.empty());
    unittest_assert(log.has("Failed to read private key\" Reason=\"") &&
                    log.has("Bootstrap private failed to load"));
    unittest_assert(decryptSys(encryptSys("plain"), &plain) && plain == "plain");
    systemkey_setBootstrapKeyPath(w.bootstrap.c_str());
}

void testCipherStrings(World& w, sktest::LogCapture& log)
{
    unittest_context("cipher strings");
    sktest::writeFile(w.keyFile, keyLine("a", kKeyA));
    const std::string one = encryptSys("password");
    const std::string two = encryptSys("password");
    std::string plain;
    unittest_assert(!one.empty() && one != two);
    unittest_assert(decryptSys(one, &plain) && plain == "password" && decryptSys(two, &plain) &&
                    plain == "password");

    // The empty plaintext is one block: 24 Base64 characters.
    const std::string empty = encryptSys("");
    unittest_assert(empty.size() == 13 + 24 && decryptSys(empty, &plain) && plain.empty());

    // Already-encrypted text is passed through.
    unittest_assert(encryptSys(one) == one);

    // Interoperability with strings built by plain library calls.
    const std::string legacy = "{cipher}" + sktest::b64(sktest::referenceEncrypt(kKeyA, "12345678", "legacy"));
    char out[128];
    unittest_assert(decryptStringWithPresharedKey(legacy.c_str(), kKeyA.c_str(), out, sizeof out) &&
                    std::string(out) == "legacy");
    unittest_assert(encryptStringWithKey("back", kKeyA.c_str(), out, sizeof out));
    std::string ref;
    unittest_assert(sktest::referenceDecrypt(kKeyA, sktest::unb64(out + 8), &ref) && ref.substr(8) == "back");

    struct Bad {
        std::string in;
        const char* line;
    } bad[] = {
        {"{cipher}$a$2$" + one.substr(12), "Unknown cipher Id\" Id=\"2"},
        {"{cipher}$a$123$" + one.substr(12), "Cipher Id longer than expected"},
        {"{cipher}$" + std::string(41, 'k') + "$1$" + one.substr(12), "Key Id too long"},
        {"{cipher}" + std::string(23, 'A'), "Invalid input; not prefixed or too short"},
        {"cipher}$a$1$" + one.substr(12), "Invalid input; not prefixed or too short"},
    };
    for (const Bad& b : bad) {
        log.clear();
        std::memset(out, 'x', sizeof out);
        unittest_assert(!decryptStringWithSystemKey(b.in.c_str(), out, sizeof out));
        unittest_assert(log.has(b.line) && allZero(out, sizeof out));
    }

    // A wrong key fails at the padding check (a fixed vector, known to fail)...
    log.clear();
    std::memset(out, 'x', sizeof out);
    unittest_assert(!decryptStringWithPresharedKey(legacy.c_str(), kKeyB.c_str(), out, sizeof out));
    unittest_assert(log.has("Decryption finalisation failed\" Reason=\"") && allZero(out, sizeof out));

    // ...and so do most random ones; about 1 in 256 passes the check.
    int failures = 0;
    for (int i = 0; i < 16; ++i) {
        unsigned char key[17] = {};
        RAND_bytes(key, 16);
        for (auto& c : key) {
            c = static_cast<unsigned char>('A' + c % 26);
        }
        key[16] = '\0';
        if (!decryptStringWithPresharedKey(one.c_str(), reinterpret_cast<char*>(key), out, sizeof out)) {
            failures += allZero(out, sizeof out) ? 1 : 0;
        }
    }
    unittest_assert(failures >= 12);

    log.clear();
    unittest_assert(!encryptStringWithKey("x", "0123456789abcde", out, sizeof out));
    unittest_assert(!encryptStringWithKey("x", "0123456789abcdefg", out, sizeof out));
    unittest_assert(log.count("Private key value has incorrect length") == 2);
}

void testReencrypt(World& w)
{
    unittest_context("reencrypt");
    sktest::writeFile(w.keyFile, keyLine("b", kKeyB));
    const std::string underB = encryptSys("rotate");
    sktest::writeFile(w.keyFile, keyLine("a", kKeyA) + keyLine("b", kKeyB));
    char out[256];
    std::string plain;
    unittest_assert(reencryptString(underB.c_str(), out, sizeof out, nullptr));
    unittest_assert(std::strncmp(out, "{cipher}$a$1$", 13) == 0 && decryptSys(out, &plain) && plain == "rotate");
    unittest_assert(reencryptString(underB.c_str(), out, sizeof out, "b") && underB == out);
    unittest_assert(reencryptString("clear", out, sizeof out, "b") && std::strncmp(out, "{cipher}$b$1$", 13) == 0);
}

void testLogBridge(World& w, sktest::LogCapture& log)
{
    unittest_context("log bridge");
    sktest::writeFile(w.logConf, "log4j.logger.developer=ERROR, syslog\n"
                                 "log4j.logger.developer.zel_crypto=DEBUG\n");
    zel_setConfigPath(w.logConf.c_str());
    log.clear();
    zel_syslog("developer.zel_crypto_server", 7, "trace");
    zel_syslog("developer.zel_crypto_server", 3, "error");
    zel_syslog("developer.zel_cryptoZ", 7, "continued name");
    zel_syslog("developer.zel_crypto.sub", 7, "child");
    unittest_assert(!log.has("trace") && log.has("Detail=\"error\""));
    unittest_assert(!log.has("continued name") && log.has("child"));

    sktest::writeFile(w.logConf, "log4j.logger.developer=DEBUG\n");
    struct timespec times[2] = {{0, UTIME_OMIT}, {1000000000, 0}};
    utimensat(AT_FDCWD, w.logConf.c_str(), times, 0);
    log.clear();
    zel_syslog("developer.zel_crypto_server", 7, "now shown");
    unittest_assert(log.has("now shown"));

    char* info = zel_logmessage("m", 6, "x");
    char* err = zel_logmessage("m", 5, "x");
    // "UTCTime=\"YYYY-mm-dd HH:MM:SS\"" at 6; a comma and three digits elsewhere.
    unittest_assert(std::strstr(info, "Level=\"INFO\"") != nullptr && std::strstr(info, ",") == nullptr);
    unittest_assert(std::strstr(err, "Level=\"INFO\"") != nullptr && std::strlen(err) == std::strlen(info) + 4);
    std::free(info);
    std::free(err);

    // Outside text reaches the log exactly as it came.
    sktest::writeFile(w.keyFile, keyLine("a", kKeyA));
    log.clear();
    std::string plain;
    unittest_assert(!decryptSys("{cipher}$%n%s%x$1$%n%s%x%n%s%x%n%s%x%n%s%x", &plain));
    unittest_assert(log.has("Id=\"%n%s%x\" Operation=\"Decryption"));
}

// Threading self-test: per-call cipher steps on several KVOS tasks at once,
// each with its own context. Each task counts its cycles and its bad cycles
// and posts the semaphore when its time is up; the unit's own thread waits
// for every post and makes the checks.
struct CycleTask {
    int seed = 0;
    unsigned durationMs = 0;
    long cycles = 0;
    long bad = 0;
    KVOS_SEMAPHORE* done = nullptr;
};

bool cipherCycle(const unsigned char key[16], const unsigned char* plain, size_t len)
{
    unsigned char ct[64];
    char text[128];
    unsigned char decoded[96];
    unsigned char back[112];
    size_t ctLen = 0;
    size_t backLen = 0;
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    bool ok = setupCipherContext(getDefaultEncryptionCipher(), ctx, KIP_CRYPTO_OPERATION_ENCRYPT, key) &&
              performEncryption(ctx, plain, len, ct, sizeof ct, &ctLen) && cleanCipherContext(ctx);
    const int textLen = ok ? base64Encode(ct, static_cast<int>(ctLen), text, sizeof text) : -1;
    const int decLen = textLen > 0 ? base64Decode(text, textLen, decoded, sizeof decoded) : -1;
    ok = ok && decLen == static_cast<int>(ctLen) &&
         setupCipherContext(getDefaultEncryptionCipher(), ctx, KIP_CRYPTO_OPERATION_DECRYPT, key) &&
         performDecryption(ctx, decoded, static_cast<size_t>(decLen), back, sizeof back, &backLen) &&
         cleanCipherContext(ctx) && backLen == len && std::memcmp(back, plain, len) == 0;
    EVP_CIPHER_CTX_free(ctx);
    return ok;
}

void cipherCycleTask(void* arg)
{
    auto* t = static_cast<CycleTask*>(arg);
    unsigned char key[16];
    for (int i = 0; i < 16; ++i) {
        key[i] = static_cast<unsigned char>(t->seed * 31 + i);
    }
    const unsigned start = KVOS_ticksCurrent();
    const unsigned ticks = t->durationMs / 10;
    while (KVOS_ticksElapsed(start) < ticks) {
        unsigned char plain[48];
        for (int i = 0; i < 48; ++i) {
            plain[i] = static_cast<unsigned char>(t->seed + t->cycles + i);
        }
        t->bad += cipherCycle(key, plain, sizeof plain) ? 0 : 1;
        ++t->cycles;
    }
    KVOS_semaphorePost(t->done);
}

void testThreading()
{
    unittest_context("threading");
    constexpr int kTasks = 4;
    unittest_assert(KVOS_isInited());
    KVOS_SEMAPHORE done{};
    unittest_assert(KVOS_semaphoreCreate(&done, "cryptoThreadsDone", 0) == 1);
    CycleTask tasks[kTasks];
    int started = 0;
    for (int i = 0; i < kTasks; ++i) {
        tasks[i].seed = i + 1;
        tasks[i].durationMs = 300;
        tasks[i].done = &done;
        KVOS_TASK_ATTR* attr = KVOS_taskAttrCreate();
        const std::string name = "cryptoCycle" + std::to_string(i);
        KVOS_taskAttrSetName(attr, name.c_str());
        KVOS_taskAttrSetStackSize(attr, 256 * 1024);
        if (KVOS_taskCreate(cipherCycleTask, &tasks[i], attr) != KVOS_NO_TASK_ID) {
            ++started;
        }
        KVOS_taskAttrDestroy(attr);
    }
    unittest_assert(started == kTasks);
    for (int i = 0; i < started; ++i) {
        KVOS_semaphoreWait(&done);
    }
    KVOS_semaphoreDelete(&done);
    long bad = 0;
    for (const CycleTask& t : tasks) {
        bad += t.bad;
        unittest_assert(t.cycles > 0);
    }
    unittest_assert(bad == 0);
}

} // namespace

void unittest_crypto_funcs(void)
{
    World w;
    unittest_context("provision");
    // Without its own directory the suite has nowhere private to put keys:
    // it stops here rather than write them anywhere else.
    unittest_assert(w.dir.ok());
    if (!w.dir.ok()) {
        return;
    }
    w.rsa = sktest::generateRsa(2048);
    unittest_assert(w.rsa != nullptr && sktest::writePrivatePem(w.rsa, w.bootstrap, false));
    if (w.rsa == nullptr) {
        return;
    }
    // Debug traces (the cache's) are dropped unless the configuration asks for them.
    unittest_assert(sktest::writeFile(w.logConf, "log4j.logger.developer=DEBUG\n"));
    sktest::Redirect redirect(w.keyFile, w.bootstrap, w.logConf);
    {
        sktest::LogCapture log;
        testBase64(log);
        testKeyFile(w, log);
        testWrappedKeys(w, log);
        testCipherStrings(w, log);
        testReencrypt(w);
        testLogBridge(w, log);
    }
    testThreading();
}
