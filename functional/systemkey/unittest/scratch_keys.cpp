#include "scratch_keys.h"

#include "systemkey/systemkey_seams.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sktest {

ScratchDir::ScratchDir()
{
    const char* base = std::getenv("TMPDIR");
    std::string tmpl = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/systemkey.XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) != nullptr) {
        path_ = buf.data();
    }
}

ScratchDir::~ScratchDir()
{
    if (path_.empty()) {
        return;
    }
    if (DIR* d = opendir(path_.c_str())) {
        while (struct dirent* e = readdir(d)) {
            if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) {
                unlink(file(e->d_name).c_str());
            }
        }
        closedir(d);
    }
    rmdir(path_.c_str());
}

namespace {

// Opens `path` for writing from scratch, readable by the owner only.
int openPrivate(const std::string& path)
{
    if (path.empty()) {
        return -1;
    }
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd >= 0 && fchmod(fd, 0600) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

} // namespace

bool writeFile(const std::string& path, const std::string& contents)
{
    const int fd = openPrivate(path);
    if (fd < 0) {
        return false;
    }
    size_t done = 0;
    while (done < contents.size()) {
        const ssize_t n = write(fd, contents.data() + done, contents.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        done += static_cast<size_t>(n);
    }
    return close(fd) == 0 && done == contents.size();
}

Redirect::Redirect(const std::string& keyFile, const std::string& bootstrap, const std::string& logConf)
{
    systemkey_setKeyFilePath(keyFile.c_str());
    systemkey_setBootstrapKeyPath(bootstrap.c_str());
    zel_setConfigPath(logConf.c_str());
}

Redirect::~Redirect()
{
    systemkey_setKeyFilePath(nullptr);
    systemkey_setBootstrapKeyPath(nullptr);
    zel_setConfigPath(nullptr);
}

EVP_PKEY* generateRsa(int bits)
{
    return EVP_RSA_gen(static_cast<unsigned int>(bits));
}

bool writePrivatePem(EVP_PKEY* pkey, const std::string& path, bool traditional)
{
    const int fd = openPrivate(path);
    if (fd < 0) {
        return false;
    }
    BIO* bio = BIO_new_fd(fd, BIO_CLOSE);
    if (bio == nullptr) {
        close(fd);
        return false;
    }
    const int ok = traditional
                       ? PEM_write_bio_PrivateKey_traditional(bio, pkey, nullptr, nullptr, 0, nullptr, nullptr)
                       : PEM_write_bio_PrivateKey(bio, pkey, nullptr, nullptr, 0, nullptr, nullptr);
    BIO_free(bio);
    return ok == 1;
}

namespace {

struct PkeyCtxFree {
    void operator()(EVP_PKEY_CTX* c) const { EVP_PKEY_CTX_free(c); }
};
using PkeyCtx = std::unique_ptr<EVP_PKEY_CTX, PkeyCtxFree>;

std::vector<std::pair<int, std::string>>& captured()
{
    static auto* v = new std::vector<std::pair<int, std::string>>;
    return *v;
}
std::mutex& captureLock()
{
    static auto* m = new std::mutex;
    return *m;
}

void captureSink(int priority, const char* message)
{
    std::lock_guard<std::mutex> g(captureLock());
    captured().emplace_back(priority, message);
}

} // namespace

std::string wrapKey(EVP_PKEY* pkey, const std::string& key)
{
    PkeyCtx ctx(EVP_PKEY_CTX_new(pkey, nullptr));
    size_t len = 0;
    if (!ctx || EVP_PKEY_encrypt_init(ctx.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_OAEP_PADDING) != 1 ||
        EVP_PKEY_encrypt(ctx.get(), nullptr, &len, reinterpret_cast<const unsigned char*>(key.data()),
                         key.size()) != 1) {
        return std::string();
    }
    std::string out(len, '\0');
    if (EVP_PKEY_encrypt(ctx.get(), reinterpret_cast<unsigned char*>(&out[0]), &len,
                         reinterpret_cast<const unsigned char*>(key.data()), key.size()) != 1) {
        return std::string();
    }
    out.resize(len);
    return b64(out);
}

bool unwrapKey(EVP_PKEY* pkey, const std::string& text, std::string* key)
{
    const std::string wrapped = unb64(text);
    PkeyCtx ctx(EVP_PKEY_CTX_new(pkey, nullptr));
    size_t len = 0;
    if (!ctx || EVP_PKEY_decrypt_init(ctx.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_OAEP_PADDING) != 1 ||
        EVP_PKEY_decrypt(ctx.get(), nullptr, &len, reinterpret_cast<const unsigned char*>(wrapped.data()),
                         wrapped.size()) != 1) {
        return false;
    }
    key->assign(len, '\0');
    if (EVP_PKEY_decrypt(ctx.get(), reinterpret_cast<unsigned char*>(&(*key)[0]), &len,
                         reinterpret_cast<const unsigned char*>(wrapped.data()), wrapped.size()) != 1) {
        return false;
    }
    key->resize(len);
    return true;
}

std::string b64(const std::string& bytes)
{
    std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&out[0]),
                                  reinterpret_cast<const unsigned char*>(bytes.data()),
                                  static_cast<int>(bytes.size()));
    out.resize(static_cast<size_t>(n));
    return out;
}

std::string unb64(const std::string& text)
{
    std::string out(text.size() / 4 * 3 + 3, '\0');
    const int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(&out[0]),
                                  reinterpret_cast<const unsigned char*>(text.data()),
                                  static_cast<int>(text.size()));
    if (n < 0) {
        return std::string();
    }
    size_t pad = 0;
    for (size_t i = text.size(); i > 0 && text[i - 1] == '='; --i) {
        ++pad;
    }
    out.resize(static_cast<size_t>(n) - pad);
    return out;
}

std::string referenceEncrypt(const std::string& key16, const std::string& salt8,
                             const std::string& plaintext)
{
    const std::string in = salt8 + plaintext;
    std::string out(in.size() + 16, '\0');
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    const unsigned char iv[16] = {};
    int n = 0;
    int fin = 0;
    EVP_EncryptInit_ex(ctx, EVP_aes_128_cbc(), nullptr,
                       reinterpret_cast<const unsigned char*>(key16.data()), iv);
    EVP_EncryptUpdate(ctx, reinterpret_cast<unsigned char*>(&out[0]), &n,
                      reinterpret_cast<const unsigned char*>(in.data()), static_cast<int>(in.size()));
    EVP_EncryptFinal_ex(ctx, reinterpret_cast<unsigned char*>(&out[0]) + n, &fin);
    EVP_CIPHER_CTX_free(ctx);
    out.resize(static_cast<size_t>(n + fin));
    return out;
}

bool referenceDecrypt(const std::string& key16, const std::string& cipherText, std::string* plain)
{
    std::string out(cipherText.size() + 16, '\0');
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    const unsigned char iv[16] = {};
    int n = 0;
    int fin = 0;
    const bool ok =
        EVP_DecryptInit_ex(ctx, EVP_aes_128_cbc(), nullptr,
                           reinterpret_cast<const unsigned char*>(key16.data()), iv) == 1 &&
        EVP_DecryptUpdate(ctx, reinterpret_cast<unsigned char*>(&out[0]), &n,
                          reinterpret_cast<const unsigned char*>(cipherText.data()),
                          static_cast<int>(cipherText.size())) == 1 &&
        EVP_DecryptFinal_ex(ctx, reinterpret_cast<unsigned char*>(&out[0]) + n, &fin) == 1;
    EVP_CIPHER_CTX_free(ctx);
    if (ok) {
        out.resize(static_cast<size_t>(n + fin));
        *plain = out;
    }
    return ok;
}

LogCapture::LogCapture()
{
    clear();
    zel_setLogSink(captureSink);
}

LogCapture::~LogCapture()
{
    zel_setLogSink(nullptr);
    clear();
}

std::vector<std::pair<int, std::string>> LogCapture::lines() const
{
    std::lock_guard<std::mutex> g(captureLock());
    return captured();
}

void LogCapture::clear()
{
    std::lock_guard<std::mutex> g(captureLock());
    captured().clear();
}

size_t LogCapture::count(const std::string& text) const
{
    size_t n = 0;
    for (const auto& l : lines()) {
        if (l.second.find(text) != std::string::npos) {
            ++n;
        }
    }
    return n;
}

std::string LogCapture::dump() const
{
    std::string out;
    for (const auto& l : lines()) {
        out += "<" + std::to_string(l.first) + "> " + l.second + "\n";
    }
    return out;
}

std::string detailOf(const std::string& line)
{
    const std::string key = "Detail=\"";
    const size_t b = line.find(key);
    if (b == std::string::npos) {
        return std::string();
    }
    const size_t start = b + key.size();
    const size_t end = line.rfind('"');
    return end > start ? line.substr(start, end - start) : std::string();
}

} // namespace sktest
