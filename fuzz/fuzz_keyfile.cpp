// Key-file parsing and key selection from arbitrary file contents: the text
// is selected from directly (active key and a key by id) and, through a
// scratch file, by the file-reading path. Invariants: a success yields 1 to
// 64 key bytes and a terminated id of at most 40 characters; a failure leaves
// no key bytes in the record.
#include "fuzz_systemkey_common.h"
#include "systemkey/crypto_funcs.h"

#include <cstdint>
#include <cstring>
#include <vector>

namespace {

void checkRecord(const CRYPT_DATA& cd, bool ok)
{
    if (ok) {
        skfuzz::check(cd.priv_key_len >= 1 && cd.priv_key_len <= 64);
        skfuzz::check(std::strlen(cd.key_id) == cd.key_id_len && cd.key_id_len <= 40);
    } else {
        for (unsigned char b : cd.priv_key) {
            skfuzz::check(b == 0);
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    skfuzz::world();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // An exact-size copy, so ASan sees any read past the text.
    std::vector<char> text(reinterpret_cast<const char*>(data), reinterpret_cast<const char*>(data) + size);

    CRYPT_DATA cd;
    cryptDataInit(&cd);
    checkRecord(cd, getPrivateKey(&cd, text.data(), text.size(), true));
    cryptDataRelease(&cd);

    // By id: the id is the text's first line up to a comma (at most 40).
    cryptDataInit(&cd);
    size_t idLen = 0;
    while (idLen < size && idLen < 40 && data[idLen] != ',' && data[idLen] != '\n' && data[idLen] != '\0') {
        ++idLen;
    }
    std::memcpy(cd.key_id, data, idLen);
    cd.key_id[idLen] = '\0';
    cd.key_id_len = idLen;
    const bool ok = getPrivateKey(&cd, text.data(), text.size(), false);
    checkRecord(cd, ok);
    cryptDataRelease(&cd);

    // The same contents as the key file.
    skfuzz::World& w = skfuzz::world();
    if (sktest::writeFile(w.scratchKeyFile, std::string(text.begin(), text.end()))) {
        systemkey_setKeyFilePath(w.scratchKeyFile.c_str());
        cryptDataInit(&cd);
        checkRecord(cd, getActivePrivateKey(&cd));
        cryptDataRelease(&cd);
        systemkey_setKeyFilePath(w.keyFile.c_str());
    }
    return 0;
}
