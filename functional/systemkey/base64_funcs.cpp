/*
 * Base64 over the cipher library's block encoder and decoder.
 *
 * The block encoder writes straight into the caller's buffer once its
 * capacity has been checked, so there is no scratch copy to allocate or wipe.
 * The block decoder counts padding characters as data ("QQ==" decodes to
 * three bytes) and accepts "=" anywhere, so the trailing "=" run is counted
 * here and subtracted; its count is kept in one byte, as stored strings have
 * always been decoded that way.
 */
#include "systemkey/base64_funcs.h"

#include "systemkey/zel-log4os.h"

#include <openssl/err.h>
#include <openssl/evp.h>

namespace {

constexpr const char* kModule = "developer.zel_crypto";
constexpr int kError = 3;

void wipe(unsigned char* out, int cap)
{
    if (out != nullptr && cap > 0) {
        OPENSSL_cleanse(out, static_cast<size_t>(cap));
    }
}

const char* lastErrorText(char* buf, size_t size)
{
    ERR_error_string_n(ERR_peek_last_error(), buf, size);
    return buf;
}

} // namespace

int calcRequiredBase64EncodeBufferSize(uint64_t length)
{
    return static_cast<int>((length + 2) / 3 * 4 + 1);
}

int calcRequiredBase64DecodeBufferSize(uint64_t length)
{
    return static_cast<int>((length + 3) / 4 * 3);
}

int base64Encode(const unsigned char* in, int inLen, char* out, int outCap)
{
    if (out == nullptr || inLen < 0 || in == nullptr) {
        zel_syslog(kModule, kError,
                   "Cannot encode due to invalid input length, NULL input or NULL output buffer "
                   "being provided");
        return -1;
    }
    // In 64 bits: near INT_MAX the required size does not fit an int.
    const uint64_t required = (static_cast<uint64_t>(inLen) + 2) / 3 * 4 + 1;
    if (outCap < 0 || required > static_cast<uint64_t>(outCap)) {
        zel_syslog(kModule, kError,
                   "Output buffer is too small to Base64 encode into. Current-Length=%zu "
                   "Required-Minimum=%zu",
                   static_cast<size_t>(outCap), static_cast<size_t>(required));
        return -1;
    }
    if (ERR_peek_error() != 0) {
        ERR_clear_error(); // report this call's error, not an older one
    }
    const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out), in, inLen);
    if (n < 0) {
        char err[256];
        zel_syslog(kModule, kError, "Base64 Encode Error=%s", lastErrorText(err, sizeof err));
        wipe(reinterpret_cast<unsigned char*>(out), outCap);
        return -1;
    }
    out[n] = '\0';
    return n;
}

int base64Decode(const char* in, int inLen, unsigned char* out, int outCap)
{
    if (out == nullptr || inLen < 0 || in == nullptr) {
        zel_syslog(kModule, kError,
                   "Cannot decode due to invalid input length, NULL input or NULL output buffer "
                   "being provided");
        wipe(out, outCap);
        return -1;
    }
    const uint64_t required = (static_cast<uint64_t>(inLen) + 3) / 4 * 3;
    if (outCap < 0 || required > static_cast<uint64_t>(outCap)) {
        zel_syslog(kModule, kError,
                   "Output buffer is too small to Base64 decode into. Current-Length=%zu "
                   "Required-Minimum=%zu",
                   static_cast<size_t>(outCap), static_cast<size_t>(required));
        wipe(out, outCap);
        return -1;
    }

    unsigned char padding = 0;
    int last = inLen - 1;
    while (last >= 0 && in[last] == '=') {
        ++padding;
        --last;
    }
    if (last <= 0) {
        zel_syslog(kModule, kError, "Input appears to be all padding. Cannot Base64 decode");
        wipe(out, outCap);
        return -1;
    }

    if (ERR_peek_error() != 0) {
        ERR_clear_error(); // report this call's error, not an older one
    }
    const int n = EVP_DecodeBlock(out, reinterpret_cast<const unsigned char*>(in), inLen);
    if (n < 0) {
        char err[256];
        zel_syslog(kModule, kError, "Base64 Encode Error=%s", lastErrorText(err, sizeof err));
        wipe(out, outCap);
        return -1;
    }
    const int result = n - static_cast<int>(padding);
    if (result < 0) {
        wipe(out, outCap);
    }
    return result;
}
