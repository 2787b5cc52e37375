// Encrypt-then-decrypt of arbitrary plaintexts with the system key (the
// active key a, or a named one through reencryptString) and with a preshared
// key. Invariant: the round trip returns the plaintext. Plaintexts that are
// already cipher strings are passed through by encryption and are skipped.
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
    if (size == 0 || size > 4096) {
        return 0;
    }
    const uint8_t sel = data[0];
    const std::string plain = std::string(reinterpret_cast<const char*>(data + 1), size - 1).c_str();
    if (isPrefixedAsCiphertext(plain.c_str())) {
        return 0;
    }
    const int cap = static_cast<int>(2 * plain.size() + 96);
    std::vector<char> cs(static_cast<size_t>(cap));
    std::vector<char> back(plain.size() + 1);
    const int backCap = static_cast<int>(back.size());

    bool enc = false;
    switch (sel % 3) {
    case 0:
        enc = encryptStringWithSystemKey(plain.c_str(), cs.data(), cap);
        break;
    case 1:
        enc = reencryptString(plain.c_str(), cs.data(), cap, (sel & 4) != 0 ? "w" : "b");
        break;
    default:
        enc = encryptStringWithKey(plain.c_str(), skfuzz::kKeyB.c_str(), cs.data(), cap);
        break;
    }
    skfuzz::check(enc);
    const bool dec = sel % 3 == 2 ? decryptStringWithPresharedKey(cs.data(), skfuzz::kKeyB.c_str(), back.data(), backCap)
                                  : decryptStringWithSystemKey(cs.data(), back.data(), backCap);
    skfuzz::check(dec && plain == back.data());
    return 0;
}
