/*
 * Cipher strings: parsing, encryption and decryption.
 *
 * Every operation builds its own CRYPT_DATA and cipher context; the only
 * process-wide objects are the AES-128-CBC cipher, fetched once (a lookup by
 * name per operation would take a provider lock), and the key cache. So
 * operations on several threads run in parallel without a common lock.
 *
 * Scratch buffers (salted plaintext, decrypted plaintext) are heap blocks that
 * are wiped over their whole size on every path (Scratch). A failed decryption
 * wipes the caller's whole output buffer.
 */
#include "systemkey/crypto_steps.h"

#include "systemkey/base64_funcs.h"
#include "systemkey_internal.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <openssl/evp.h>
#include <openssl/rand.h>

namespace {

constexpr const char* kPrefix = "{cipher}";
constexpr const char* chosen_cipher = "aes-128-cbc";
constexpr int kAesCbcCipherId = 1;
constexpr size_t kMaxSaltLen = 2147483647;
constexpr size_t kMaxCipherIdLen = 2;

struct CtxFree {
    void operator()(EVP_CIPHER_CTX* ctx) const { EVP_CIPHER_CTX_free(ctx); }
};
using CtxPtr = std::unique_ptr<EVP_CIPHER_CTX, CtxFree>;

// Releases a CRYPT_DATA on every path.
struct CryptDataGuard {
    CRYPT_DATA cd;
    CryptDataGuard() { cryptDataInit(&cd); }
    ~CryptDataGuard() { cryptDataRelease(&cd); }
    CryptDataGuard(const CryptDataGuard&) = delete;
    CryptDataGuard& operator=(const CryptDataGuard&) = delete;
};

const EVP_CIPHER* fetchAes128Cbc()
{
    // Kept for the life of the process; the library drops its providers at exit.
    static const EVP_CIPHER* cipher = EVP_CIPHER_fetch(nullptr, chosen_cipher, nullptr);
    return cipher;
}

size_t capOf(int cap)
{
    return cap < 0 ? 0 : static_cast<size_t>(cap);
}

void wipeOut(char* out, size_t cap)
{
    if (out != nullptr && cap > 0) {
        OPENSSL_cleanse(out, cap);
    }
}

// Loads a key given as text (at most 64 characters) into the record.
void setKeyFromText(CRYPT_DATA* cd, const char* key)
{
    const size_t len = strnlen(key, kPrivKeySize);
    std::memcpy(cd->priv_key, key, len);
    cd->priv_key_len = len;
}

// Makes the private copy of a cipher string that parsing cuts up.
bool copyCipherString(CRYPT_DATA* cd, const char* in)
{
    const size_t len = std::strlen(in);
    cd->cipher_string = static_cast<char*>(std::malloc(len + 1));
    if (cd->cipher_string == nullptr) {
        SK_ERROR("Failed to parse metadata for cipher string");
        return false;
    }
    std::memcpy(cd->cipher_string, in, len + 1);
    cd->cipher_string_len = len;
    return true;
}

bool keyLengthMatches(const CRYPT_DATA* cd)
{
    const size_t required = static_cast<size_t>(EVP_CIPHER_get_key_length(cd->cipher));
    if (cd->priv_key_len != required) {
        SK_ERROR("Private key value has incorrect length\" Current-Length=\"%zu\" Required-Length=\"%zu",
                 cd->priv_key_len, required);
        return false;
    }
    return true;
}

// Decryption shared by the system-key form (presharedKey null: the key file
// supplies the key the string names) and the preshared-key form. The output
// is wiped over its whole capacity on every failure.
bool decryptCipherString(const char* in, char* out, int outCap, const char* presharedKey)
{
    const size_t cap = capOf(outCap);
    if (out == nullptr || cap == 0) {
        SK_ERROR("Output buffer not provided");
        return false;
    }
    if (in == nullptr) {
        checkEncryptedInputFormat("", 0);
        wipeOut(out, cap);
        return false;
    }
    if (in[0] == '\0') {
        out[0] = '\0';
        return true;
    }
    bool ok = false;
    {
        CryptDataGuard g;
        CRYPT_DATA* cd = &g.cd;
        if (checkEncryptedInputFormat(in, std::strlen(in)) && copyCipherString(cd, in) &&
            parseCipherMetadata(cd)) {
            if (presharedKey != nullptr) {
                setKeyFromText(cd, presharedKey);
                ok = decryptStringWithKey(cd, out, cap);
            } else if (getPrivateKeyByID(cd)) {
                ok = decryptStringWithKey(cd, out, cap);
            } else {
                SK_ERROR("Failed to find required decryption key\" Id=\"%s", cd->key_id);
            }
        }
    }
    if (!ok) {
        wipeOut(out, cap);
    }
    return ok;
}

// Encrypts `in` with the key of `keyId` (null or empty: the active key).
bool encryptWithKeyId(const char* in, const char* keyId, char* out, size_t cap)
{
    CryptDataGuard g;
    CRYPT_DATA* cd = &g.cd;
    const size_t idLen = keyId != nullptr ? std::strlen(keyId) : 0;
    if (idLen == 0) {
        if (!getActivePrivateKey(cd)) {
            return false;
        }
    } else {
        if (idLen >= cd->key_id_size) {
            SK_ERROR("Key Id too long");
            return false;
        }
        std::memcpy(cd->key_id, keyId, idLen + 1);
        cd->key_id_len = idLen;
        if (!getPrivateKeyByID(cd)) {
            return false;
        }
    }
    cd->cipher = getEncryptionCipherFromKeyId(cd->key_id);
    return encryptStringWithKey(cd, in, out, cap);
}

} // namespace

/* ---- Ciphers ------------------------------------------------------------------ */

const EVP_CIPHER* getDefaultEncryptionCipher(void)
{
    return fetchAes128Cbc();
}

const EVP_CIPHER* getEncryptionCipherFromKeyId(const char* keyId)
{
    if (keyId != nullptr && std::strcmp(keyId, "0") == 0) {
        return fetchAes128Cbc(); // legacy keys are AES-128-CBC by definition
    }
    return getDefaultEncryptionCipher();
}

const EVP_CIPHER* cipherIdToCipher(int id)
{
    if (id == kAesCbcCipherId) {
        return fetchAes128Cbc();
    }
    SK_ERROR("Unknown cipher Id\" Id=\"%d", id);
    return nullptr;
}

const char* cipherToCipherId(const EVP_CIPHER* cipher)
{
    const int nid = cipher != nullptr ? EVP_CIPHER_get_nid(cipher) : 0;
    if (nid == NID_aes_128_cbc) {
        return "1";
    }
    SK_ERROR("Cannot convert cipher to Id\" Id=\"%d", nid);
    return nullptr;
}

/* ---- Format ------------------------------------------------------------------- */

bool isPrefixedAsCiphertext(const char* text)
{
    return text != nullptr && std::strncmp(text, kPrefix, SYSTEMKEY_PREFIX_LEN) == 0;
}

bool checkEncryptedInputFormat(const char* text, size_t length)
{
    if (length >= SYSTEMKEY_MIN_CIPHER_STRING && isPrefixedAsCiphertext(text)) {
        return true;
    }
    if (isPrefixedAsCiphertext(text)) {
        SK_ERROR("Invalid input; not prefixed or too short\" Input=\"%s", text);
    } else {
        // Without the prefix this is most likely a plaintext secret given
        // where a cipher string belongs: the system log gets its length only.
        SK_ERROR("Invalid input; not prefixed or too short\" Input=\"<%zu characters not shown>",
                 text != nullptr ? std::strlen(text) : static_cast<size_t>(0));
    }
    return false;
}

bool parseCipherMetadata(CRYPT_DATA* cd)
{
    char* s = cd->cipher_string;
    const size_t len = s != nullptr ? std::strlen(s) : 0;
    if (len < SYSTEMKEY_PREFIX_LEN + 1) {
        SK_ERROR("Cipher string too short");
        SK_ERROR("Failed to parse metadata for cipher string");
        return false;
    }
    if (s[SYSTEMKEY_PREFIX_LEN] != '$') {
        std::memcpy(cd->key_id, "0", 2);
        cd->key_id_len = 1;
        cd->cipher = fetchAes128Cbc();
        cd->b64_blob = s + SYSTEMKEY_PREFIX_LEN;
        cd->b64_blob_len = std::strlen(cd->b64_blob);
        if (cd->b64_blob_len == 0) {
            SK_ERROR("Failed to parse metadata for cipher string");
            return false;
        }
        return true;
    }

    bool ok = true;
    char* id = s + SYSTEMKEY_PREFIX_LEN + 1;
    char* idEnd = std::strchr(id, '$');
    if (idEnd == nullptr || idEnd == id || idEnd[1] == '\0') {
        SK_ERROR("Failed to parse metadata for cipher string");
        return false;
    }
    *idEnd = '\0';
    const size_t idLen = static_cast<size_t>(idEnd - id);
    if (idLen >= cd->key_id_size) {
        SK_ERROR("Key Id too long");
        ok = false; // reported once the rest has been parsed
    } else {
        std::memcpy(cd->key_id, id, idLen + 1);
        cd->key_id_len = idLen;
    }

    char* cipherId = idEnd + 1;
    char* cipherEnd = std::strchr(cipherId, '$');
    if (cipherEnd == nullptr || cipherEnd[1] == '\0') {
        SK_ERROR("Failed to parse metadata for cipher string");
        return false;
    }
    *cipherEnd = '\0';
    if (std::strlen(cipherId) > kMaxCipherIdLen) {
        SK_ERROR("Cipher Id longer than expected");
        SK_ERROR("Failed to parse metadata for cipher string");
        return false;
    }
    const int number = std::atoi(cipherId);
    const bool digitsOnly = cipherId[0] != '\0' && std::strspn(cipherId, "0123456789") == std::strlen(cipherId);
    cd->cipher = digitsOnly ? cipherIdToCipher(number) : nullptr;
    if (!digitsOnly) {
        SK_ERROR("Unknown cipher Id\" Id=\"%d", number);
    }
    if (cd->cipher == nullptr) {
        SK_ERROR("Failed to parse metadata for cipher string");
        return false;
    }
    cd->b64_blob = cipherEnd + 1;
    cd->b64_blob_len = std::strlen(cd->b64_blob);
    if (!ok) {
        SK_ERROR("Failed to parse metadata for cipher string");
    }
    return ok;
}

/* ---- Steps -------------------------------------------------------------------- */

bool addSalt(const char* in, size_t saltLen, unsigned char* out, size_t cap)
{
    if (saltLen > kMaxSaltLen) {
        SK_ERROR("Too many salt bytes requested\" Max=\"%zu", kMaxSaltLen);
        return false;
    }
    const size_t inLen = std::strlen(in);
    const size_t required = saltLen + inLen + 1;
    if (out == nullptr || cap < required) {
        SK_ERROR("Output buffer is too small to add salt\" Current-Length=\"%zu\" Required-Length=\"%zu",
                 cap, required);
        return false;
    }
    if (RAND_bytes(out, static_cast<int>(saltLen)) != 1) {
        return false;
    }
    std::memcpy(out + saltLen, in, inLen + 1);
    return true;
}

bool setupCipherContext(const EVP_CIPHER* cipher, EVP_CIPHER_CTX* ctx, KIP_CRYPTO_CIPHER_OP op,
                        const unsigned char* key)
{
    const int enc = op == KIP_CRYPTO_OPERATION_ENCRYPT ? 1 : 0;
    if (cipher == nullptr || ctx == nullptr || key == nullptr ||
        EVP_CipherInit_ex(ctx, cipher, nullptr, key, nullptr, enc) != 1) {
        clearStaleErrors();
        SK_ERROR("Failed to initialise the cipher");
        return false;
    }
    return true;
}

bool performEncryption(EVP_CIPHER_CTX* ctx, const unsigned char* in, size_t inLen,
                       unsigned char* out, size_t cap, size_t* outLen)
{
    const size_t block = static_cast<size_t>(EVP_CIPHER_CTX_get_block_size(ctx));
    if (cap < inLen + block || inLen > INT_MAX - block) {
        SK_ERROR("Output buffer is too small for encrypted data\" Current-Length=\"%zu\" "
                 "Required-Length=\"%zu",
                 cap, inLen + block);
        return false;
    }
    char err[256];
    clearStaleErrors();
    int n = 0;
    if (EVP_EncryptUpdate(ctx, out, &n, in, static_cast<int>(inLen)) != 1) {
        SK_ERROR("Encrypt failure\" Reason=\"%s", sslErrorText(err, sizeof err));
        return false;
    }
    int fin = 0;
    if (EVP_EncryptFinal_ex(ctx, out + n, &fin) != 1) {
        SK_ERROR("Failed to finalise encryption\" Reason=\"%s", sslErrorText(err, sizeof err));
        return false;
    }
    *outLen = static_cast<size_t>(n) + static_cast<size_t>(fin);
    return true;
}

bool performDecryption(EVP_CIPHER_CTX* ctx, const unsigned char* in, size_t inLen,
                       unsigned char* out, size_t cap, size_t* outLen)
{
    const size_t block = static_cast<size_t>(EVP_CIPHER_CTX_get_block_size(ctx));
    if (cap < inLen + block || inLen > INT_MAX - block) {
        SK_ERROR("Output buffer too small\" Current-Length=\"%zu\" Required-Length=\"%zu", cap,
                 inLen + block);
        return false;
    }
    char err[256];
    clearStaleErrors();
    int n = 0;
    if (EVP_DecryptUpdate(ctx, out, &n, in, static_cast<int>(inLen)) != 1) {
        SK_ERROR("Decrypt failure\" Reason=\"%s", sslErrorText(err, sizeof err));
        return false;
    }
    int fin = 0;
    if (EVP_DecryptFinal_ex(ctx, out + n, &fin) != 1) {
        SK_ERROR("Decryption finalisation failed\" Reason=\"%s", sslErrorText(err, sizeof err));
        return false;
    }
    *outLen = static_cast<size_t>(n) + static_cast<size_t>(fin);
    return true;
}

bool cleanCipherContext(EVP_CIPHER_CTX* ctx)
{
    if (ctx == nullptr) {
        SK_ERROR("NULL cipher context provided");
        return false;
    }
    if (EVP_CIPHER_CTX_reset(ctx) != 1) {
        char err[256];
        SK_ERROR("Failed to clean-up the context\" Reason=\"%s", sslErrorText(err, sizeof err));
        return false;
    }
    return true;
}

/* ---- With a prepared record ---------------------------------------------------- */

bool encryptStringWithKey(const CRYPT_DATA* cd, const char* in, char* out, size_t cap)
{
    if (cd == nullptr || in == nullptr || out == nullptr) {
        SK_ERROR(cd == nullptr ? "CRYPT_DATA structure not provided"
                               : in == nullptr ? "Input not provided" : "Output buffer not provided");
        return false;
    }
    if (cd->cipher == nullptr) {
        SK_ERROR("Unable to perform encryption. No cipher specified");
        return false;
    }
    if (!keyLengthMatches(cd)) {
        return false;
    }
    const size_t inLen = std::strlen(in);
    if (cap <= inLen) {
        SK_ERROR("Output buffer too short\" Current-Length=\"%zu\" Required-Length=\"%zu", cap,
                 inLen + 1);
        return false;
    }
    if (isPrefixedAsCiphertext(in)) {
        if (inLen < SYSTEMKEY_MIN_CIPHER_STRING) {
            SK_ERROR("Prefixed input too short\" Length=\"%zu", inLen);
            return false;
        }
        std::memcpy(out, in, inLen + 1); // never encrypted twice
        return true;
    }
    if (inLen > INT_MAX / 2) {
        SK_ERROR("Failed to add salt to input");
        return false;
    }

    const size_t block = static_cast<size_t>(EVP_CIPHER_get_block_size(cd->cipher));
    Scratch salted(inLen + SYSTEMKEY_SALT_LEN + 1);
    Scratch cipherText(inLen + SYSTEMKEY_SALT_LEN + block);
    if (!salted.ok() || !cipherText.ok() ||
        !addSalt(in, SYSTEMKEY_SALT_LEN, salted.data(), salted.size())) {
        SK_ERROR("Failed to add salt to input");
        return false;
    }
    CtxPtr ctx(EVP_CIPHER_CTX_new());
    if (!setupCipherContext(cd->cipher, ctx.get(), KIP_CRYPTO_OPERATION_ENCRYPT, cd->priv_key)) {
        SK_ERROR("Failed to setup cipher context");
        cleanCipherContext(ctx.get());
        return false;
    }
    size_t ctLen = 0;
    const bool encrypted = performEncryption(ctx.get(), salted.data(), inLen + SYSTEMKEY_SALT_LEN,
                                             cipherText.data(), cipherText.size(), &ctLen);
    cleanCipherContext(ctx.get());
    if (!encrypted) {
        SK_ERROR("Failed to encrypt");
        return false;
    }

    Scratch b64(static_cast<size_t>(calcRequiredBase64EncodeBufferSize(ctLen)));
    const int b64Len = b64.ok() ? base64Encode(cipherText.data(), static_cast<int>(ctLen),
                                               b64.chars(), static_cast<int>(b64.size()))
                                : -1;
    if (b64Len < 0) {
        SK_ERROR("Failed to Base64 encode ciphertext");
        return false;
    }

    if (cd->key_id_len == 1 && cd->key_id[0] == '0') {
        const size_t required = static_cast<size_t>(b64Len) + 9;
        if (cap < required) {
            SK_ERROR("Output buffer too small\" Current-Length=\"%zu\" Required-Length=\"%zu", cap,
                     required);
            return false;
        }
        std::memcpy(out, kPrefix, SYSTEMKEY_PREFIX_LEN);
        std::memcpy(out + SYSTEMKEY_PREFIX_LEN, b64.chars(), static_cast<size_t>(b64Len) + 1);
        return true;
    }
    const char* cipherId = cipherToCipherId(cd->cipher);
    if (cipherId == nullptr) {
        SK_ERROR("Failed to get cipher Id");
        return false;
    }
    const size_t required = static_cast<size_t>(b64Len) + cd->key_id_len + std::strlen(cipherId) + 12;
    if (cap < required) {
        SK_ERROR("Output buffer too small\" Current-Length=\"%zu\" Required-Length=\"%zu", cap,
                 required);
        return false;
    }
    std::snprintf(out, cap, "%s$%s$%s$%s", kPrefix, cd->key_id, cipherId, b64.chars());
    return true;
}

bool decryptStringWithKey(const CRYPT_DATA* cd, char* out, size_t cap)
{
    if (cd == nullptr || out == nullptr) {
        SK_ERROR(cd == nullptr ? "CRYPT_DATA structure not provided" : "Output buffer not provided");
        return false;
    }
    if (cd->priv_key_len == 0) {
        SK_ERROR("Private key value cannot be zero-length");
        return false;
    }
    if (cd->cipher == nullptr) {
        SK_ERROR("Unable to perform decryption. No cipher specified");
        return false;
    }
    if (!keyLengthMatches(cd)) {
        return false;
    }
    if (cd->b64_blob == nullptr || cd->b64_blob_len == 0) {
        SK_WARN("Cipher text input zero-length. Nothing to decrypt");
        return false;
    }
    if (cd->b64_blob_len > INT_MAX / 2) {
        SK_ERROR("Failed to Base64 decode the ciphertext");
        return false;
    }
    Scratch decoded(static_cast<size_t>(calcRequiredBase64DecodeBufferSize(cd->b64_blob_len)));
    const int decodedLen = decoded.ok() ? base64Decode(cd->b64_blob, static_cast<int>(cd->b64_blob_len),
                                                       decoded.data(), static_cast<int>(decoded.size()))
                                        : -1;
    if (decodedLen < 0) {
        SK_ERROR("Failed to Base64 decode the ciphertext");
        return false;
    }

    const size_t block = static_cast<size_t>(EVP_CIPHER_get_block_size(cd->cipher));
    Scratch plain(static_cast<size_t>(decodedLen) + block);
    if (!plain.ok()) {
        SK_ERROR("Failed to decrypt");
        return false;
    }
    CtxPtr ctx(EVP_CIPHER_CTX_new());
    size_t plainLen = 0;
    bool decrypted = false;
    if (!setupCipherContext(cd->cipher, ctx.get(), KIP_CRYPTO_OPERATION_DECRYPT, cd->priv_key)) {
        SK_ERROR("Failed to setup cipher context");
    } else {
        decrypted = performDecryption(ctx.get(), decoded.data(), static_cast<size_t>(decodedLen),
                                      plain.data(), plain.size(), &plainLen);
    }
    cleanCipherContext(ctx.get());
    if (!decrypted) {
        SK_ERROR("Failed to decrypt");
        return false;
    }
    if (plainLen < SYSTEMKEY_SALT_LEN) {
        SK_ERROR("Decrypted output too small; output shorter than salt");
        return false;
    }
    if (plainLen == SYSTEMKEY_SALT_LEN) {
        OPENSSL_cleanse(out, cap);
        return true;
    }
    if (cap < plainLen - 7) {
        SK_ERROR("Output buffer too small\" Current-Length=\"%zu\" Required-Length=\"%zu", cap,
                 plainLen - 7);
        return false;
    }
    std::memcpy(out, plain.data() + SYSTEMKEY_SALT_LEN, plainLen - SYSTEMKEY_SALT_LEN);
    out[plainLen - SYSTEMKEY_SALT_LEN] = '\0';
    return true;
}

/* ---- Exported ------------------------------------------------------------------ */

bool encryptStringWithSystemKey(const char* in, char* out, int outCap)
{
    if (in == nullptr || out == nullptr) {
        SK_ERROR(in == nullptr ? "Input not provided" : "Output buffer not provided");
        return false;
    }
    return encryptWithKeyId(in, nullptr, out, capOf(outCap));
}

bool decryptStringWithSystemKey(const char* in, char* out, int outCap)
{
    return decryptCipherString(in, out, outCap, nullptr);
}

bool encryptStringWithKey(const char* in, const char* key, char* out, int outCap)
{
    if (in == nullptr || key == nullptr || out == nullptr) {
        SK_ERROR(out == nullptr ? "Output buffer not provided"
                                : in == nullptr ? "Input not provided" : "Private key value cannot be zero-length");
        return false;
    }
    CryptDataGuard g;
    g.cd.cipher = fetchAes128Cbc();
    std::memcpy(g.cd.key_id, "0", 2);
    g.cd.key_id_len = 1;
    setKeyFromText(&g.cd, key);
    return encryptStringWithKey(&g.cd, in, out, capOf(outCap));
}

bool decryptStringWithPresharedKey(const char* in, const char* key, char* out, int outCap)
{
    if (key == nullptr) {
        wipeOut(out, capOf(outCap));
        SK_ERROR("Private key value cannot be zero-length");
        return false;
    }
    return decryptCipherString(in, out, outCap, key);
}

bool decryptStringWithKey(const char* in, const char* key, char* out, int outCap)
{
    return decryptStringWithPresharedKey(in, key, out, outCap);
}

bool reencryptString(const char* in, char* out, int outCap, const char* targetKeyId)
{
    if (out == nullptr) {
        SK_ERROR("Output buffer not provided");
        return false;
    }
    if (in == nullptr) {
        checkEncryptedInputFormat("", 0);
        return false;
    }
    const size_t cap = capOf(outCap);
    const size_t inLen = std::strlen(in);
    if (cap < inLen) {
        SK_ERROR("Output buffer too small\" Current-Length=\"%zu\" Required-Length=\"%zu", cap,
                 inLen);
        return false;
    }
    if (!isPrefixedAsCiphertext(in)) {
        return encryptWithKeyId(in, targetKeyId, out, cap);
    }

    // The target's id: given, or that of the active key.
    char target[48] = {};
    if (targetKeyId != nullptr && targetKeyId[0] != '\0') {
        if (std::strlen(targetKeyId) >= kKeyIdSize) {
            SK_ERROR("Key Id too long");
            return false;
        }
        std::snprintf(target, sizeof target, "%s", targetKeyId);
    } else {
        CryptDataGuard active;
        if (!getActivePrivateKey(&active.cd)) {
            return false;
        }
        std::snprintf(target, sizeof target, "%s", active.cd.key_id);
    }

    {
        CryptDataGuard g;
        if (!checkEncryptedInputFormat(in, inLen) || !copyCipherString(&g.cd, in) ||
            !parseCipherMetadata(&g.cd)) {
            return false;
        }
        if (std::strcmp(g.cd.key_id, target) == 0) {
            if (cap <= inLen) {
                SK_ERROR("Output buffer too small\" Current-Length=\"%zu\" Required-Length=\"%zu",
                         cap, inLen + 1);
                return false;
            }
            std::memcpy(out, in, inLen + 1);
            return true;
        }
    }

    Scratch plain(inLen + 1);
    if (!plain.ok() || !decryptStringWithSystemKey(in, plain.chars(), static_cast<int>(plain.size()))) {
        return false;
    }
    return encryptWithKeyId(plain.chars(), target, out, cap);
}
