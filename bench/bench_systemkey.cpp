// A 32-byte secret encrypted with the system key and decrypted again, against
// a baseline doing the same work directly: read the small key file with
// open/read for each operation, decode its key, AES-128-CBC through EVP with
// a once-fetched cipher, Base64 with the library's block codec. Both run on
// 1 and 2 threads; compare the time ratio at 1 thread and each one's own
// 2-thread/1-thread throughput. The cipher-steps pair shows the scaling of the
// per-call cipher work without the file system in the way.
#include "scratch_keys.h"
#include "systemkey/crypto_funcs.h"
#include "systemkey/crypto_steps.h"
#include "systemkey/systemkey_seams.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <string>
#include <unistd.h>

namespace {

const char kSecret[] = "0123456789abcdef0123456789abcdef"; // 32 bytes

void quietSink(int, const char*) {}

// One scratch key file for the whole run.
struct Setup {
    sktest::ScratchDir dir;
    std::string keyFile = dir.file("systemkey");
    Setup()
    {
        sktest::writeFile(keyFile, "a," + sktest::b64("0123456789abcdef") + "\nb," +
                                       sktest::b64("fedcba9876543210") + "\n");
        systemkey_setKeyFilePath(keyFile.c_str());
        systemkey_setBootstrapKeyPath(dir.file("bootstrap").c_str());
        zel_setConfigPath(dir.file("kvlog.conf").c_str());
        zel_setLogSink(quietSink);
    }
};

Setup& setup()
{
    static Setup s;
    return s;
}

void BM_SystemKeyRoundTrip(benchmark::State& state)
{
    setup();
    char cs[256];
    char back[256];
    for (auto _ : state) {
        if (!encryptStringWithSystemKey(kSecret, cs, sizeof cs) ||
            !decryptStringWithSystemKey(cs, back, sizeof back)) {
            state.SkipWithError("round trip failed");
            break;
        }
        benchmark::DoNotOptimize(back);
    }
    state.SetItemsProcessed(state.iterations());
}

const EVP_CIPHER* baselineCipher()
{
    static const EVP_CIPHER* c = EVP_CIPHER_fetch(nullptr, "AES-128-CBC", nullptr);
    return c;
}

// Reads the key file and decodes the first line's key.
bool baselineKey(unsigned char key[16])
{
    char buf[512];
    const int fd = open(setup().keyFile.c_str(), O_RDONLY);
    if (fd < 0) {
        return false;
    }
    const ssize_t n = read(fd, buf, sizeof buf - 1);
    close(fd);
    if (n <= 0) {
        return false;
    }
    buf[n] = '\0';
    const char* comma = std::strchr(buf, ',');
    const char* end = std::strchr(buf, '\n');
    unsigned char raw[48];
    if (comma == nullptr || end == nullptr ||
        EVP_DecodeBlock(raw, reinterpret_cast<const unsigned char*>(comma + 1),
                        static_cast<int>(end - comma - 1)) < 16) {
        return false;
    }
    std::memcpy(key, raw, 16);
    return true;
}

bool baselineEncrypt(const char* in, char* out)
{
    unsigned char key[16];
    if (!baselineKey(key)) {
        return false;
    }
    unsigned char salted[64];
    unsigned char ct[80];
    const size_t len = std::strlen(in);
    RAND_bytes(salted, 8);
    std::memcpy(salted + 8, in, len);
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    int n = 0;
    int fin = 0;
    EVP_EncryptInit_ex(ctx, baselineCipher(), nullptr, key, nullptr);
    EVP_EncryptUpdate(ctx, ct, &n, salted, static_cast<int>(len + 8));
    EVP_EncryptFinal_ex(ctx, ct + n, &fin);
    EVP_CIPHER_CTX_free(ctx);
    std::memcpy(out, "{cipher}$a$1$", 13);
    EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out + 13), ct, n + fin);
    return true;
}

bool baselineDecrypt(const char* in, char* out)
{
    unsigned char key[16];
    if (!baselineKey(key)) {
        return false;
    }
    unsigned char ct[96];
    unsigned char plain[112];
    const char* body = in + 13;
    const size_t bodyLen = std::strlen(body);
    int ctLen = EVP_DecodeBlock(ct, reinterpret_cast<const unsigned char*>(body), static_cast<int>(bodyLen));
    for (size_t i = bodyLen; i > 0 && body[i - 1] == '='; --i) {
        --ctLen;
    }
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    int n = 0;
    int fin = 0;
    EVP_DecryptInit_ex(ctx, baselineCipher(), nullptr, key, nullptr);
    EVP_DecryptUpdate(ctx, plain, &n, ct, ctLen);
    const bool ok = EVP_DecryptFinal_ex(ctx, plain + n, &fin) == 1;
    EVP_CIPHER_CTX_free(ctx);
    std::memcpy(out, plain + 8, static_cast<size_t>(n + fin - 8));
    out[n + fin - 8] = '\0';
    return ok;
}

void BM_BaselineRoundTrip(benchmark::State& state)
{
    setup();
    char cs[256];
    char back[256];
    for (auto _ : state) {
        if (!baselineEncrypt(kSecret, cs) || !baselineDecrypt(cs, back) || std::strcmp(back, kSecret) != 0) {
            state.SkipWithError("baseline round trip failed");
            break;
        }
        benchmark::DoNotOptimize(back);
    }
    state.SetItemsProcessed(state.iterations());
}

// The per-call cipher steps alone (no key file): the work that several tasks
// run at once in the threading self-test, against the same calls made
// directly on the library.
void BM_CipherStepsCycle(benchmark::State& state)
{
    const unsigned char key[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    unsigned char plain[40] = {};
    unsigned char ct[64];
    unsigned char back[80];
    for (auto _ : state) {
        EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
        size_t ctLen = 0;
        size_t backLen = 0;
        const bool ok = setupCipherContext(getDefaultEncryptionCipher(), ctx, KIP_CRYPTO_OPERATION_ENCRYPT, key) &&
                        performEncryption(ctx, plain, sizeof plain, ct, sizeof ct, &ctLen) &&
                        cleanCipherContext(ctx) &&
                        setupCipherContext(getDefaultEncryptionCipher(), ctx, KIP_CRYPTO_OPERATION_DECRYPT, key) &&
                        performDecryption(ctx, ct, ctLen, back, sizeof back, &backLen) && cleanCipherContext(ctx);
        EVP_CIPHER_CTX_free(ctx);
        if (!ok) {
            state.SkipWithError("cycle failed");
            break;
        }
        benchmark::DoNotOptimize(back);
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_BaselineCipherCycle(benchmark::State& state)
{
    const unsigned char key[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    unsigned char plain[40] = {};
    unsigned char ct[64];
    unsigned char back[80];
    for (auto _ : state) {
        EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
        int n = 0;
        int fin = 0;
        EVP_EncryptInit_ex(ctx, baselineCipher(), nullptr, key, nullptr);
        EVP_EncryptUpdate(ctx, ct, &n, plain, sizeof plain);
        EVP_EncryptFinal_ex(ctx, ct + n, &fin);
        const int ctLen = n + fin;
        EVP_DecryptInit_ex(ctx, baselineCipher(), nullptr, key, nullptr);
        EVP_DecryptUpdate(ctx, back, &n, ct, ctLen);
        EVP_DecryptFinal_ex(ctx, back + n, &fin);
        EVP_CIPHER_CTX_free(ctx);
        benchmark::DoNotOptimize(back);
    }
    state.SetItemsProcessed(state.iterations());
}

} // namespace

BENCHMARK(BM_CipherStepsCycle)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_BaselineCipherCycle)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_SystemKeyRoundTrip)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_BaselineRoundTrip)->Threads(1)->Threads(2)->UseRealTime();
