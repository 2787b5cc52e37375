// String helpers over arbitrary bytes and sizes. Each helper gets a buffer of
// exactly the size it is told, so ASan catches any access outside it, and the
// results are checked against the contracts.
#include "libkvc/strutil.h"
#include "libkvc/utf8.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

// Splits the input: first byte picks sizes, the rest is split in two halves.
struct Input {
    uint8_t sel;
    std::vector<char> a, b;
};

Input split(const uint8_t* data, size_t size)
{
    Input in{};
    if (size == 0) {
        return in;
    }
    in.sel = data[0];
    const size_t rest = size - 1;
    const size_t half = rest / 2;
    in.a.assign(data + 1, data + 1 + half);
    in.b.assign(data + 1 + half, data + size);
    return in;
}

void check(bool cond)
{
    if (!cond) {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input in = split(data, size);

    // kvclib_strToUInt reads at most iLen bytes: give it an unterminated copy.
    if (!in.a.empty()) {
        std::vector<char> digits(in.a);
        unsigned len = static_cast<unsigned>(digits.size());
        uint32_t v = kvclib_strToUInt(digits.data(), len);
        uint32_t expect = 0;
        for (unsigned i = 0; i < len && digits[i] >= '0' && digits[i] <= '9'; ++i) {
            expect = expect * 10u + static_cast<uint32_t>(digits[i] - '0');
        }
        check(v == expect);
    }

    // cstring_StringToLong on a terminated copy.
    {
        std::vector<char> s(in.a);
        s.push_back('\0');
        int64_t v = 77;
        int rc = cstring_StringToLong(s.data(), &v);
        check(rc == 0 || (rc == -1 && v == 77));
    }

    // kvclib_strncat: destination of exactly dstSize bytes, possibly
    // unterminated; the result must be terminated within it.
    {
        const unsigned dstSize = static_cast<unsigned>(in.sel % 32);
        std::vector<char> dst(dstSize);
        for (unsigned i = 0; i < dstSize; ++i) {
            dst[i] = i < in.a.size() ? in.a[i] : 'x';
        }
        std::vector<char> src(in.b);
        src.push_back('\0');
        kvclib_strncat(dst.data(), src.data(), dstSize);
        if (dstSize > 0) {
            check(memchr(dst.data(), '\0', dstSize) != nullptr);
        }
    }

    // kvclib_hexToString: exactly dstSize bytes of destination.
    {
        const unsigned dstSize = 1u + in.sel % 40u;
        std::vector<char> dst(dstSize);
        kvclib_hexToString(dst.data(), dstSize, in.b.data(), static_cast<unsigned>(in.b.size()));
        size_t n = std::strlen(dst.data());
        check(n % 2 == 0 && n < dstSize && n <= 2 * in.b.size());
    }

    // UTF-8 case mapping over exactly len bytes, possibly unterminated.
    {
        std::vector<char> s(in.a);
        const int len = static_cast<int>(s.size());
        kvclib_utf8tolower(s.data(), len);
        kvclib_utf8toupper(s.data(), len);
        if (!in.a.empty() && !in.b.empty()) {
            const unsigned n = static_cast<unsigned>(std::min(in.a.size(), in.b.size()));
            int self = kvclib_utf8strncasecmp(in.a.data(), in.a.data(), n);
            check(self == 0);
            (void)kvclib_utf8strncasecmp(in.a.data(), in.b.data(), n);
        }
    }
    return 0;
}
