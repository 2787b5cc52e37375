/*
 * The bootstrap RSA key: loading it, unwrapping keys with it, and wrapping a
 * key of the key file under someone's public key.
 *
 * The interface hands out the library's RSA key handles, so this file is the
 * one place that uses the library's (deprecated) RSA key API; it is compiled
 * with OPENSSL_SUPPRESS_DEPRECATED. Padding is OAEP with SHA-1, the library's
 * RSA_PKCS1_OAEP_PADDING, which is what wrapped keys on devices use.
 *
 * The PEM reader is given a pass-phrase callback that supplies nothing, so an
 * encrypted key file fails to load instead of prompting on a terminal.
 */
#include "seam_path.h"
#include "systemkey/base64_funcs.h"
#include "systemkey/crypto_funcs.h"
#include "systemkey/systemkey_seams.h"
#include "systemkey_internal.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

namespace {

SeamPath gBootstrapPath("/korvenda/persistent/crypto/bootstrap");

int noPassPhrase(char*, int, int, void*)
{
    return -1;
}

struct BioCloser {
    BIO* bio;
    ~BioCloser() { BIO_free(bio); }
};

} // namespace

void systemkey_setBootstrapKeyPath(const char* path)
{
    gBootstrapPath.set(path);
}

int bootstrapModulusSize(const RSA* rsa)
{
    return RSA_size(rsa);
}

int bootstrapOaepDecrypt(RSA* rsa, const unsigned char* in, int inLen, unsigned char* out)
{
    return RSA_private_decrypt(inLen, in, out, rsa, RSA_PKCS1_OAEP_PADDING);
}

void bootstrapKeyFree(RSA* rsa)
{
    RSA_free(rsa);
}

RSA* getBootstrapPrivate(CRYPT_DATA* cd)
{
    if (cd == nullptr) {
        SK_ERROR("CRYPT_DATA structure not provided");
        return nullptr;
    }
    if (cd->bootstrap_private != nullptr) {
        return cd->bootstrap_private;
    }
    char err[256];
    clearStaleErrors();
    BioCloser bio{BIO_new(BIO_s_file())};
    if (bio.bio == nullptr) {
        SK_ERROR("Failed to create BIO for bootstrap private");
        return nullptr;
    }
    char path[PATH_MAX];
    std::snprintf(path, sizeof path, "%s", gBootstrapPath.get()); // the macro wants it writable
    if (BIO_read_filename(bio.bio, path) <= 0) {
        SK_ERROR("Failed to read private key\" Reason=\"%s", sslErrorText(err, sizeof err));
        return nullptr;
    }
    RSA* rsa = RSA_new();
    if (rsa == nullptr) {
        SK_ERROR("Failed to create RSA structure\" Reason=\"%s", sslErrorText(err, sizeof err));
        return nullptr;
    }
    cd->bootstrap_private = rsa;
    if (PEM_read_bio_RSAPrivateKey(bio.bio, &cd->bootstrap_private, noPassPhrase, nullptr) ==
        nullptr) {
        // On failure the reader may or may not have freed the key it was given.
        if (cd->bootstrap_private != nullptr) {
            RSA_free(cd->bootstrap_private);
        }
        cd->bootstrap_private = nullptr;
        SK_ERROR("Failed to read RSA private key\" Reason=\"%s", sslErrorText(err, sizeof err));
        return nullptr;
    }
    return cd->bootstrap_private;
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
    const int modulus = RSA_size(pub);
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
    const int n = RSA_public_encrypt(static_cast<int>(cd.priv_key_len), cd.priv_key, wrapped.data(),
                                     pub, RSA_PKCS1_OAEP_PADDING);
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
