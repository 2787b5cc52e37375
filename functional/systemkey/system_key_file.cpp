/*
 * The system key file, key selection, the cache of unwrapped keys, and
 * wrapping a key of the file under someone's public key. The RSA steps are
 * in bootstrap_key.cpp, below this file.
 *
 * The key file is read afresh for every operation, into a buffer that can
 * hold SYSTEMKEY_MAX_FILE_SIZE bytes. Zero-filling a fresh megabyte for every
 * operation would cost more than the whole encryption, so each thread keeps
 * one such buffer for its life and wipes the bytes it read after every use;
 * a nested use on the same thread gets a buffer of its own.
 *
 * Line rules (a file of exactly 16 bytes is a bare key with id "0"):
 *   id,value[,encoding]   lines split at CR and/or LF, empty lines skipped;
 *                         the text ends at its first zero byte
 *   - no comma, or nothing after it: "Failed to parse key file", search ends
 *   - empty id, or an id with "$" (which separates the fields of a cipher
 *     string, so no cipher string could name it): treated the same way
 *   - id of more than 40 characters: reported, line skipped
 *   - encoding empty or 0: value is Base64 of the key; 1: Base64 of the key
 *     wrapped with the bootstrap RSA key; anything else is refused
 *
 * Cache. Only unwrapped keys are cached, one at a time, keyed by id. Its
 * entry is guarded by a mutex; plain keys never touch it, so plain-key
 * operations on several threads share no lock. An id of 40 characters is
 * accepted on lookup but refused on insertion (ids of 1 to 39): such a key
 * is unwrapped every time. Stored keys have always been cached that way.
 */
#include "seam_path.h"
#include "systemkey/base64_funcs.h"
#include "systemkey/crypto_steps.h"
#include "systemkey/systemkey_seams.h"
#include "systemkey_internal.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <openssl/err.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr size_t kBareKeyLen = 16;
constexpr size_t kMaxIdLen = 40;
constexpr const char* kLegacyKeyId = "0";

SeamPath gKeyFilePath("/korvenda/persistent/systemkey");

/* ---- Cache ----------------------------------------------------------------- */

struct CacheItem {
    unsigned char key[kPrivKeySize];
    size_t len;
};

class priv_key_cache {
public:
    ~priv_key_cache()
    {
        SK_DEBUG("Destructing cache");
        std::lock_guard<std::mutex> guard(lock_);
        removeLocked();
    }

    // Copies the key of `id` into cd; false when it is not cached.
    bool get(const char* id, size_t idLen, CRYPT_DATA* cd)
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (item_ == nullptr || key_id_len < 1 || key_id_len > kMaxIdLen || key_id_len != idLen ||
            std::memcmp(key_id, id, idLen) != 0) {
            return false;
        }
        const size_t n = item_->len < kPrivKeySize ? item_->len : kPrivKeySize;
        std::memcpy(cd->priv_key, item_->key, n);
        cd->priv_key_len = n;
        return true;
    }

    void put(const char* id, size_t idLen, const unsigned char* key, size_t keyLen)
    {
        if (idLen < 1 || idLen >= kMaxIdLen) {
            SK_ERROR("Cache put request failed due to invalid key id length\" Id=\"%s\" Length=\"%d",
                     id, static_cast<int>(idLen));
            SK_DEBUG("Cache put request\" Id=\"%s\" Result=\"%s", id, "Failure");
            return;
        }
        if (keyLen < 1 || keyLen > kPrivKeySize) {
            SK_ERROR("Cache put request failed due to invalid private key length\" Id=\"%s\" "
                     "Length=\"%d",
                     id, static_cast<int>(keyLen));
            SK_DEBUG("Cache put request\" Id=\"%s\" Result=\"%s", id, "Failure");
            return;
        }
        auto* fresh = new (std::nothrow) CacheItem;
        if (fresh == nullptr) {
            SK_DEBUG("Cache put request\" Id=\"%s\" Result=\"%s", id, "Failure");
            return;
        }
        std::memcpy(fresh->key, key, keyLen);
        fresh->len = keyLen;
        {
            std::lock_guard<std::mutex> guard(lock_);
            removeLocked();
            item_ = fresh;
            std::memcpy(key_id, id, idLen);
            key_id[idLen] = '\0';
            key_id_len = idLen;
        }
        SK_DEBUG("Cache put request\" Id=\"%s\" Result=\"%s", id, "Success");
    }

    // Drops the entry without logging (test seam: the key file changed).
    void forget()
    {
        std::lock_guard<std::mutex> guard(lock_);
        dropLocked();
    }

private:
    void removeLocked()
    {
        SK_DEBUG("Cache remove request");
        dropLocked();
    }

    void dropLocked()
    {
        if (item_ != nullptr) {
            OPENSSL_cleanse(item_, sizeof *item_);
            delete item_;
            item_ = nullptr;
        }
        OPENSSL_cleanse(key_id, sizeof key_id);
        key_id_len = 0;
    }

    std::mutex lock_;
    CacheItem* item_ = nullptr;
    char key_id[48] = {};
    size_t key_id_len = 0;
};

priv_key_cache& getCache()
{
    static priv_key_cache cache;
    return cache;
}

/* ---- Read buffer ----------------------------------------------------------- */

struct FreeDeleter {
    void operator()(char* p) const { std::free(p); }
};

thread_local std::unique_ptr<char, FreeDeleter> tlsReadBuffer;
thread_local bool tlsReadBufferInUse = false;

// A buffer of SYSTEMKEY_MAX_FILE_SIZE + 1 bytes; the bytes read are wiped
// when it goes out of scope.
class KeyFileBuffer {
public:
    KeyFileBuffer()
    {
        if (!tlsReadBufferInUse) {
            if (!tlsReadBuffer) {
                tlsReadBuffer.reset(static_cast<char*>(std::malloc(SYSTEMKEY_MAX_FILE_SIZE + 1)));
            }
            if (tlsReadBuffer) {
                buf_ = tlsReadBuffer.get();
                tlsReadBufferInUse = true;
                shared_ = true;
                return;
            }
        }
        own_.reset(static_cast<char*>(std::malloc(SYSTEMKEY_MAX_FILE_SIZE + 1)));
        buf_ = own_.get();
    }
    ~KeyFileBuffer()
    {
        if (buf_ != nullptr) {
            OPENSSL_cleanse(buf_, len_ + 1);
        }
        if (shared_) {
            tlsReadBufferInUse = false;
        }
    }
    KeyFileBuffer(const KeyFileBuffer&) = delete;
    KeyFileBuffer& operator=(const KeyFileBuffer&) = delete;

    char* data() { return buf_; }
    size_t* len() { return &len_; }

private:
    char* buf_ = nullptr;
    size_t len_ = 0;
    bool shared_ = false;
    std::unique_ptr<char, FreeDeleter> own_;
};

/* ---- Key selection ---------------------------------------------------------- */

// A line's id as terminated text for messages (ids of at most 40 characters).
struct LineId {
    char text[kMaxIdLen + 1];
    LineId(const char* id, size_t len)
    {
        std::memcpy(text, id, len);
        text[len] = '\0';
    }
};

// The encoding field: empty is 0; otherwise decimal digits only.
bool parseEncoding(const char* s, size_t len, long* encoding)
{
    *encoding = 0;
    if (len > 9) {
        return false;
    }
    for (size_t i = 0; i < len; ++i) {
        if (s[i] < '0' || s[i] > '9') {
            return false;
        }
        *encoding = *encoding * 10 + (s[i] - '0');
    }
    return true;
}

// Unwraps a key stored with encoding 1, through the cache.
bool unwrapKey(CRYPT_DATA* cd, const LineId& id, size_t idLen, const char* value, size_t valueLen)
{
    if (getCache().get(id.text, idLen, cd)) {
        SK_DEBUG("Cache get request\" Id=\"%s\" Result=\"%s", id.text, "Hit");
        return true;
    }
    SK_DEBUG("Cache get request\" Id=\"%s\" Result=\"%s", id.text, "Miss");

    if (valueLen > SYSTEMKEY_MAX_FILE_SIZE) {
        return false;
    }
    Scratch wrapped(static_cast<size_t>(calcRequiredBase64DecodeBufferSize(valueLen)));
    if (!wrapped.ok()) {
        return false;
    }
    const int wrappedLen = base64Decode(value, static_cast<int>(valueLen), wrapped.data(),
                                        static_cast<int>(wrapped.size()));
    if (wrappedLen <= 0) {
        SK_ERROR("Failed to Base64 decode key\" Id=\"%s", id.text);
        return false;
    }
    RSA* rsa = getBootstrapPrivate(cd);
    if (rsa == nullptr) {
        SK_ERROR("Bootstrap private failed to load");
        return false;
    }
    Scratch plain(static_cast<size_t>(bootstrapModulusSize(rsa)));
    if (!plain.ok()) {
        return false;
    }
    clearStaleErrors();
    const int ret = bootstrapOaepDecrypt(rsa, wrapped.data(), wrappedLen, plain.data());
    if (ret < 0) {
        char err[256];
        SK_ERROR("Failed to decrypt key\" Id=\"%s\" Return=\"%d\" Reason=\"%s", id.text, ret,
                 sslErrorText(err, sizeof err));
        return false;
    }
    const size_t keyLen = static_cast<size_t>(ret);
    if (keyLen > cd->priv_key_size || keyLen > kPrivKeySize) {
        SK_ERROR("Output buffer too short for key\" Current-Length=\"%zu\" Required-Length=\"%zu",
                 cd->priv_key_size, keyLen);
        return false;
    }
    std::memcpy(cd->priv_key, plain.data(), keyLen);
    cd->priv_key_len = keyLen;
    getCache().put(id.text, idLen, plain.data(), keyLen);
    return true;
}

// Decodes the key of a taken line into cd.
bool takeLine(CRYPT_DATA* cd, const char* id, size_t idLen, const char* value, size_t valueLen,
              const char* enc, size_t encLen, bool active)
{
    const LineId lineId(id, idLen);
    long encoding = 0;
    if (!parseEncoding(enc, encLen, &encoding) || (encoding != 0 && encoding != 1)) {
        SK_ERROR("Illegal encoding value");
        return false;
    }
    if (encoding == 0) {
        const size_t cap = cd->priv_key_size < kPrivKeySize ? cd->priv_key_size : kPrivKeySize;
        const int n = valueLen > SYSTEMKEY_MAX_FILE_SIZE
                          ? -1
                          : base64Decode(value, static_cast<int>(valueLen), cd->priv_key,
                                         static_cast<int>(cap));
        if (n < 1) {
            // A result of 0 can still have written key bytes: the padding
            // count is subtracted from what was decoded.
            SK_ERROR("Failed to Base64 decode key\" Id=\"%s", lineId.text);
            OPENSSL_cleanse(cd->priv_key, sizeof cd->priv_key);
            cd->priv_key_len = 0;
            return false;
        }
        cd->priv_key_len = static_cast<size_t>(n);
        return true;
    }
    if (!unwrapKey(cd, lineId, idLen, value, valueLen)) {
        OPENSSL_cleanse(cd->priv_key, sizeof cd->priv_key);
        cd->priv_key_len = 0;
        SK_ERROR("Found key id but failed to retrieve key\" Id=\"%s\" Operation=\"%s", lineId.text,
                 active ? "Encryption" : "Decryption");
        return false;
    }
    return true;
}

bool isLineEnd(char c)
{
    return c == '\r' || c == '\n';
}

} // namespace

void keyCacheForget(void)
{
    getCache().forget();
}

void systemkey_setKeyFilePath(const char* path)
{
    gKeyFilePath.set(path);
    keyCacheForget();
}

void cryptDataInit(CRYPT_DATA* cd)
{
    std::memset(cd, 0, sizeof *cd);
    cd->key_id_size = kKeyIdSize;
    cd->priv_key_size = kPrivKeySize;
}

void cryptDataRelease(CRYPT_DATA* cd)
{
    if (cd == nullptr) {
        return;
    }
    OPENSSL_cleanse(cd->priv_key, sizeof cd->priv_key);
    cd->priv_key_len = 0;
    bootstrapKeyFree(cd->bootstrap_private);
    cd->bootstrap_private = nullptr;
    if (cd->cipher_string != nullptr) {
        OPENSSL_cleanse(cd->cipher_string, cd->cipher_string_len);
        std::free(cd->cipher_string);
        cd->cipher_string = nullptr;
    }
    cd->b64_blob = nullptr;
}

// The file is read first and its size asked for only when the read fills the
// buffer: a small key file, the normal case, costs one open, one read and one
// close (a short read of a regular file is its end). The size lines are
// logged before the outcome of the read, as if the size had been asked first.
bool readSystemKeyFile(char* buf, size_t cap, size_t* len)
{
    *len = 0;
    buf[0] = '\0';
    const int fd = open(gKeyFilePath.get(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        SK_ERROR("Error opening system key file");
        return false;
    }
    size_t got = 0;
    bool readError = false;
    while (got < cap) {
        const size_t want = cap - got;
        const ssize_t n = read(fd, buf + got, want);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            readError = n < 0;
            break;
        }
        got += static_cast<size_t>(n);
        if (static_cast<size_t>(n) < want) {
            break; // a short read of a regular file is its end
        }
    }
    struct stat st;
    if (got == cap && fstat(fd, &st) == 0) {
        const size_t size = static_cast<size_t>(st.st_size);
        if (size > SYSTEMKEY_MAX_FILE_SIZE) {
            SK_ERROR("Key file is larger than maximum size limit\" File-Size=\"%zu\" Max-Size=\"%zu\"",
                     size, static_cast<size_t>(SYSTEMKEY_MAX_FILE_SIZE));
        } else if (size > cap) {
            SK_ERROR("Key file is larger than read buffer\" File-Size=\"%zu\" Buffer-Size=\"%zu", size,
                     cap);
        }
    }
    close(fd);
    *len = got;
    if (readError) {
        SK_ERROR("Didn't read what we expected to from the system key file");
        return false;
    }
    buf[got] = '\0';
    return true;
}

bool getPrivateKey(CRYPT_DATA* cd, const char* text, size_t len, bool active)
{
    if (len == kBareKeyLen) {
        if (cd->priv_key_size < kBareKeyLen) {
            SK_ERROR("Output buffer too short for key\" Current-Length=\"%zu\" Required-Length=\"%zu",
                     cd->priv_key_size, kBareKeyLen);
            return false;
        }
        std::memcpy(cd->priv_key, text, kBareKeyLen);
        cd->priv_key_len = kBareKeyLen;
        std::memcpy(cd->key_id, kLegacyKeyId, 2);
        cd->key_id_len = 1;
        return true;
    }
    if (len < kBareKeyLen) {
        SK_ERROR("File too short\" Current-Length=\"%zu", len);
        return false;
    }

    // Key lines are text: it ends at the first zero byte.
    len = strnlen(text, len);
    size_t pos = 0;
    while (pos < len) {
        while (pos < len && isLineEnd(text[pos])) {
            ++pos;
        }
        if (pos >= len) {
            break;
        }
        const char* line = text + pos;
        size_t lineLen = 0;
        while (pos + lineLen < len && !isLineEnd(line[lineLen])) {
            ++lineLen;
        }
        pos += lineLen;

        const char* comma = static_cast<const char*>(std::memchr(line, ',', lineLen));
        const size_t idLen = comma != nullptr ? static_cast<size_t>(comma - line) : 0;
        if (comma == nullptr || comma == line || comma == line + lineLen - 1 ||
            std::memchr(line, '$', idLen) != nullptr) {
            SK_ERROR("Failed to parse key file");
            break;
        }
        if (idLen > kMaxIdLen) {
            SK_ERROR("Key Id is longer than expected");
            continue;
        }
        if (!active && (idLen != cd->key_id_len || std::memcmp(line, cd->key_id, idLen) != 0)) {
            continue;
        }
        if (active) {
            const size_t n = idLen < cd->key_id_size - 1 ? idLen : cd->key_id_size - 1;
            std::memcpy(cd->key_id, line, n);
            cd->key_id[n] = '\0';
            cd->key_id_len = n;
        }
        const char* value = comma + 1;
        const size_t restLen = lineLen - idLen - 1;
        const char* second = static_cast<const char*>(std::memchr(value, ',', restLen));
        const size_t valueLen = second != nullptr ? static_cast<size_t>(second - value) : restLen;
        const char* enc = second != nullptr ? second + 1 : value + restLen;
        const size_t encLen = restLen - valueLen - (second != nullptr ? 1 : 0);
        return takeLine(cd, line, idLen, value, valueLen, enc, encLen, active);
    }

    if (active) {
        SK_ERROR("Failed to find the active encryption key\" Operation=\"Encryption");
    } else {
        SK_ERROR("Failed to find required decryption key\" Id=\"%s\" Operation=\"Decryption",
                 cd->key_id);
    }
    return false;
}

namespace {

// Reads the key file into a scratch buffer (wiped when it goes out of scope)
// and selects the active key, or the key named by cd->key_id.
bool loadAndSelectKey(CRYPT_DATA* cd, bool active)
{
    KeyFileBuffer buf;
    if (buf.data() == nullptr) {
        SK_ERROR("Error opening system key file");
        return false;
    }
    if (!readSystemKeyFile(buf.data(), SYSTEMKEY_MAX_FILE_SIZE, buf.len())) {
        return false;
    }
    return getPrivateKey(cd, buf.data(), *buf.len(), active);
}

} // namespace

bool getActivePrivateKey(CRYPT_DATA* cd)
{
    return loadAndSelectKey(cd, true);
}

bool getPrivateKeyByID(CRYPT_DATA* cd)
{
    return loadAndSelectKey(cd, false);
}

bool encryptKeyWithPublicKey(const char* keyId, RSA* pub, char* out, int outCap)
{
    CRYPT_DATA cd;
    cryptDataInit(&cd);
    struct Release {
        CRYPT_DATA* cd;
        ~Release() { cryptDataRelease(cd); }
    } release{&cd};

    const size_t idLen = keyId != nullptr ? std::strlen(keyId) : 0;
    if (idLen >= cd.key_id_size) {
        SK_ERROR("Key Id too long");
        return false;
    }
    if (idLen > 0) {
        std::memcpy(cd.key_id, keyId, idLen + 1);
    }
    cd.key_id_len = idLen;
    if (!getPrivateKeyByID(&cd)) {
        return false;
    }
    if (out == nullptr) {
        SK_ERROR("Output buffer not provided");
        return false;
    }
    if (pub == nullptr) {
        SK_ERROR("Public key not provided");
        return false;
    }
    const int modulus = bootstrapModulusSize(pub);
    const int required = calcRequiredBase64EncodeBufferSize(static_cast<uint64_t>(modulus));
    if (outCap < required) {
        SK_ERROR("Output buffer too small\" Current-Length=\"%zu\" Required-Length=\"%zu",
                 static_cast<size_t>(outCap < 0 ? 0 : outCap), static_cast<size_t>(required));
        return false;
    }
    Scratch wrapped(static_cast<size_t>(modulus));
    if (!wrapped.ok()) {
        return false;
    }
    clearStaleErrors();
    const int n = rsaOaepEncrypt(pub, cd.priv_key, static_cast<int>(cd.priv_key_len), wrapped.data());
    if (n < 0) {
        char err[256];
        SK_ERROR("Failed to encrypt key\" Modulus-Size=\"%zu\" Encrypted-Bytes=\"%zu\" Reason=\"%s",
                 static_cast<size_t>(modulus), cd.priv_key_len, sslErrorText(err, sizeof err));
        return false;
    }
    if (base64Encode(wrapped.data(), n, out, outCap) < 0) {
        SK_ERROR("Failed to Base64 encode encrypted key");
        return false;
    }
    return true;
}
