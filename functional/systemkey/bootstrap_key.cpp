/*
 * The bootstrap RSA key: loading it, and the RSA steps of unwrapping keys
 * with it and of wrapping a key under someone's public key (the key file's
 * side of both is in system_key_file.cpp, which calls down into this file).
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
#include "systemkey/crypto_funcs.h"
#include "systemkey/systemkey_seams.h"
#include "systemkey_internal.h"

#include <climits>
#include <cstdio>
#include <openssl/bio.h>
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

int rsaOaepEncrypt(RSA* pub, const unsigned char* in, int inLen, unsigned char* out)
{
    return RSA_public_encrypt(inLen, in, out, pub, RSA_PKCS1_OAEP_PADDING);
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
