// Base64 both ways over arbitrary input and capacities. Invariants: decoding
// agrees with the library's own decoder on canonical input (text that
// re-encodes to itself); a failed decode leaves the capacity zeroed; nothing
// is written beyond the capacity (exact-size buffers under ASan); encoding
// agrees with the library's encoder.
#include "systemkey/base64_funcs.h"
#include "systemkey/systemkey_seams.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <openssl/evp.h>
#include <string>
#include <vector>

namespace {

void check(bool cond)
{
    if (!cond) {
        std::abort();
    }
}

void quietSink(int, const char*) {}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    zel_setLogSink(quietSink);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    const uint8_t slack = data[0];
    const char* text = reinterpret_cast<const char*>(data + 1);
    const int len = static_cast<int>(size - 1);

    // Decode with a capacity near the required one (exact, or short by up to 3).
    const int need = calcRequiredBase64DecodeBufferSize(static_cast<uint64_t>(len));
    const int cap = need - (slack % 4);
    std::vector<unsigned char> out(static_cast<size_t>(cap > 0 ? cap : 0) + 1);
    unsigned char* o = out.data();
    const int n = base64Decode(text, len, o, cap);
    if (n < 0) {
        check(cap <= 0 || std::all_of(out.begin(), out.end() - 1, [](unsigned char c) { return c == 0; }));
    } else {
        check(n <= cap);
    }

    // Canonical text: the library decodes it and re-encodes it to itself.
    std::vector<unsigned char> ref(static_cast<size_t>(need) + 3);
    const int refN = EVP_DecodeBlock(ref.data(), reinterpret_cast<const unsigned char*>(text), len);
    if (refN >= 0 && len > 0) {
        int pad = 0;
        for (int i = len - 1; i >= 0 && text[i] == '='; --i) {
            ++pad;
        }
        const int bytes = refN - pad;
        if (bytes > 0) {
            std::vector<char> again(static_cast<size_t>(calcRequiredBase64EncodeBufferSize(static_cast<uint64_t>(bytes))));
            const int m = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(again.data()), ref.data(), bytes);
            if (m == len && std::memcmp(again.data(), text, static_cast<size_t>(len)) == 0 && cap == need) {
                check(n == bytes && std::memcmp(o, ref.data(), static_cast<size_t>(bytes)) == 0);
            }
        }
    }

    // Encoding of the same bytes into an exact or short buffer.
    const int encNeed = calcRequiredBase64EncodeBufferSize(static_cast<uint64_t>(len));
    const int encCap = encNeed - (slack >> 6);
    std::vector<char> enc(static_cast<size_t>(encCap > 0 ? encCap : 1));
    const int e = base64Encode(data + 1, len, enc.data(), encCap);
    if (encCap >= encNeed) {
        std::vector<char> refEnc(static_cast<size_t>(encNeed));
        const int re = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(refEnc.data()), data + 1, len);
        check(e == re && std::strcmp(enc.data(), refEnc.data()) == 0);
    } else {
        check(e == -1);
    }
    return 0;
}
