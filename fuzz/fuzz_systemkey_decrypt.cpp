// Decryption of arbitrary cipher strings, with the system key file (ids a, b
// and the wrapped w) and with a preshared key. Invariant: a failed decryption
// leaves the whole output buffer zeroed; a success leaves a terminated text.
#include "fuzz_systemkey_common.h"
#include "systemkey/crypto_funcs.h"

#include <cstdint>
#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    skfuzz::world();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    // The first byte picks the output capacity, the rest is the string.
    const int cap = 1 + data[0] % 96;
    std::string in(reinterpret_cast<const char*>(data + 1), size - 1);
    in = in.c_str(); // up to the first zero byte, as a C caller would pass it

    std::vector<char> out(static_cast<size_t>(cap), 'x');
    if (decryptStringWithSystemKey(in.c_str(), out.data(), cap)) {
        skfuzz::check(std::memchr(out.data(), '\0', out.size()) != nullptr);
    } else {
        skfuzz::check(skfuzz::allZero(out.data(), out.size()));
    }

    std::fill(out.begin(), out.end(), 'x');
    const std::string& key = (data[0] & 1) != 0 ? skfuzz::kKeyA : skfuzz::kKeyW;
    if (decryptStringWithPresharedKey(in.c_str(), key.c_str(), out.data(), cap)) {
        skfuzz::check(std::memchr(out.data(), '\0', out.size()) != nullptr);
    } else {
        skfuzz::check(skfuzz::allZero(out.data(), out.size()));
    }
    return 0;
}
