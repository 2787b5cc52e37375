/*
 * Test kit of the system-key module: scratch directories, key files, RSA
 * bootstrap pairs and a capture of the crypto log bridge's output.
 *
 * Used by the self-test suite, the GoogleTest suites, the fuzz targets and the
 * benchmark, so that none of them touches the device's /korvenda paths.
 */
#ifndef SYSTEMKEY_UNITTEST_SCRATCH_KEYS_H
#define SYSTEMKEY_UNITTEST_SCRATCH_KEYS_H

#include <cstddef>
#include <openssl/types.h>
#include <string>
#include <utility>
#include <vector>

namespace sktest {

/* A private directory made with mkdtemp, removed with its files at scope end.
 * When it cannot be made, ok() is false and file() gives "" for every name,
 * so nothing meant for it can land anywhere else. */
class ScratchDir {
public:
    ScratchDir();
    ~ScratchDir();
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    bool ok() const { return !path_.empty(); }
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return ok() ? path_ + "/" + name : std::string(); }

private:
    std::string path_;
};

/* Key material lives in these files: both create them with mode 0600 (and
 * make a replaced file 0600 too), and refuse an empty path. */
bool writeFile(const std::string& path, const std::string& contents);

/* Points the key file, bootstrap key and log configuration of the module at
 * the given files; the destructor restores the device defaults. */
class Redirect {
public:
    Redirect(const std::string& keyFile, const std::string& bootstrap, const std::string& logConf);
    ~Redirect();
    Redirect(const Redirect&) = delete;
    Redirect& operator=(const Redirect&) = delete;
};

/* A fresh RSA key pair of `bits` bits, or null. Free with EVP_PKEY_free. */
EVP_PKEY* generateRsa(int bits);
/* Writes the private key as PEM: traditional ("RSA PRIVATE KEY") or PKCS#8. */
bool writePrivatePem(EVP_PKEY* pkey, const std::string& path, bool traditional);
/* Base64 of `key` wrapped with the public half of `pkey` (RSA OAEP, SHA-1). */
std::string wrapKey(EVP_PKEY* pkey, const std::string& key);
/* Reverses wrapKey with the private half; false if it does not unwrap. */
bool unwrapKey(EVP_PKEY* pkey, const std::string& b64, std::string* key);

/* Base64 with the cipher library's block encoder and decoder. */
std::string b64(const std::string& bytes);
std::string unb64(const std::string& text);

/* AES-128-CBC with a zero IV over 8 salt bytes and the plaintext, built with
 * plain library calls: the reference for the stored format. */
std::string referenceEncrypt(const std::string& key16, const std::string& salt8,
                             const std::string& plaintext);
/* The reverse; false when the padding check fails. */
bool referenceDecrypt(const std::string& key16, const std::string& cipherText, std::string* plain);

/* Captures what the log bridge would send to the system log. One capture at a
 * time; the destructor restores the system log. */
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::pair<int, std::string>> lines() const;
    void clear();
    /* Number of captured lines containing `text`. */
    size_t count(const std::string& text) const;
    bool has(const std::string& text) const { return count(text) > 0; }
    /* All lines, one per line, for failure messages. */
    std::string dump() const;
};

/* The Detail text of the line: what follows Detail=" up to the last quote. */
std::string detailOf(const std::string& line);

} // namespace sktest

#endif
