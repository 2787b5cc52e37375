#include "fixture.h"
#include "systemkey/base64_funcs.h"

#include <algorithm>
#include <cstring>
#include <vector>
#include <openssl/rand.h>

namespace sktest {
namespace {

using Base64Test = SystemKeyTest;

TEST(Base64Sizes, FollowTheFormulas)
{
    struct Row {
        uint64_t len;
        int enc, dec;
    } rows[] = {{0, 1, 0}, {1, 5, 3}, {2, 5, 3}, {3, 5, 3}, {4, 9, 3}, {8, 13, 6}, {9, 13, 9}, {344, 461, 258}};
    for (const Row& r : rows) {
        EXPECT_EQ(calcRequiredBase64EncodeBufferSize(r.len), r.enc) << r.len;
        EXPECT_EQ(calcRequiredBase64DecodeBufferSize(r.len), r.dec) << r.len;
    }
}

TEST_F(Base64Test, EncodesAtTheExactCapacityAndRefusesOneLess)
{
    struct Row {
        const char* in;
        const char* out;
    } rows[] = {{"", ""}, {"A", "QQ=="}, {"AB", "QUI="}, {"ABC", "QUJD"}, {"ABCD", "QUJDRA=="}};
    for (const Row& r : rows) {
        const int len = static_cast<int>(std::strlen(r.in));
        const int need = calcRequiredBase64EncodeBufferSize(static_cast<uint64_t>(len));
        std::string out(static_cast<size_t>(need), '#');
        EXPECT_EQ(base64Encode(reinterpret_cast<const unsigned char*>(r.in), len, &out[0], need),
                  static_cast<int>(std::strlen(r.out)));
        EXPECT_STREQ(out.c_str(), r.out);
        log->clear();
        EXPECT_EQ(base64Encode(reinterpret_cast<const unsigned char*>(r.in), len, &out[0], need - 1), -1);
        EXPECT_EQ(log->count("Output buffer is too small to Base64 encode into. Current-Length=" +
                             std::to_string(need - 1) + " Required-Minimum=" + std::to_string(need)),
                  1u)
            << log->dump();
    }
}

TEST_F(Base64Test, DecodesWithPaddingDiscounted)
{
    struct Row {
        const char* in;
        int cap;
        int result;
        const char* bytes;
    } rows[] = {
        {"QQ==", 3, 1, "A"},     {"QUI=", 3, 2, "AB"},       {"QUJD", 3, 3, "ABC"},
        {"QUJDRA==", 6, 4, "ABCD"}, {"QUJDREVG", 6, 6, "ABCDEF"}, {" QUJD\r\n", 6, 3, "ABC"},
    };
    for (const Row& r : rows) {
        unsigned char out[16] = {};
        EXPECT_EQ(base64Decode(r.in, static_cast<int>(std::strlen(r.in)), out, r.cap), r.result) << r.in;
        EXPECT_EQ(std::memcmp(out, r.bytes, std::strlen(r.bytes)), 0) << r.in;
    }
}

TEST_F(Base64Test, RefusedDecodesLogTheirLineAndWipeTheWholeCapacity)
{
    struct Row {
        const char* in;
        int len;
        int cap;
        const char* line;
    } rows[] = {
        {"====", 4, 3, "Input appears to be all padding. Cannot Base64 decode"},
        {"Q", 1, 3, "Input appears to be all padding. Cannot Base64 decode"},
        {"Q===", 4, 3, "Input appears to be all padding. Cannot Base64 decode"},
        {"", 0, 3, "Input appears to be all padding. Cannot Base64 decode"},
        {"QU!D", 4, 16, "Base64 Encode Error="},
        {"QUJ", 3, 16, "Base64 Encode Error="},
        {"QU JD", 5, 16, "Base64 Encode Error="},
        {"QUJDREVG", 8, 5, "Output buffer is too small to Base64 decode into. Current-Length=5 Required-Minimum=6"},
        {nullptr, 4, 16, "Cannot decode due to invalid input length, NULL input or NULL output buffer being provided"},
        {"QUJD", -1, 16, "Cannot decode due to invalid input length, NULL input or NULL output buffer being provided"},
    };
    for (const Row& r : rows) {
        unsigned char out[16];
        std::memset(out, 0x5A, sizeof out);
        log->clear();
        EXPECT_LT(base64Decode(r.in, r.len, out, r.cap), 0) << (r.in ? r.in : "(null)");
        EXPECT_EQ(log->count(r.line), 1u) << log->dump();
        EXPECT_TRUE(allZero(out, static_cast<size_t>(r.cap))) << (r.in ? r.in : "(null)");
        for (int i = r.cap; i < 16; ++i) {
            EXPECT_EQ(out[i], 0x5A) << "wiped beyond the capacity at " << i;
        }
        EXPECT_EQ(log->lines()[0].first, 3);
    }
}

TEST_F(Base64Test, LogsUnderTheCodecModule)
{
    unsigned char out[4];
    EXPECT_EQ(base64Decode("====", 4, out, 3), -1);
    ASSERT_EQ(log->lines().size(), 1u);
    EXPECT_EQ(log->lines()[0].second.rfind("Module=\"developer.zel_crypto\" Level=\"ERROR\"", 0), 0u);
}

TEST_F(Base64Test, EncoderRefusesNullAndNegative)
{
    char out[8];
    const unsigned char in[1] = {1};
    EXPECT_EQ(base64Encode(nullptr, 1, out, 8), -1);
    EXPECT_EQ(base64Encode(in, 1, nullptr, 8), -1);
    EXPECT_EQ(base64Encode(in, -1, out, 8), -1);
    EXPECT_EQ(log->count("Cannot encode due to invalid input length, NULL input or NULL output buffer being provided"), 3u);
}

// "=" inside the text is not validated by the block decoder; only the
// trailing run is discounted.
TEST_F(Base64Test, PaddingCountOnlyLooksAtTheEnd)
{
    unsigned char out[16] = {};
    EXPECT_EQ(base64Decode("QQ==QUJD", 8, out, 6), 6);
    EXPECT_EQ(base64Decode("QUJD\n", 5, out, 6), 3);
}

// The padding count is kept in one byte: 256 trailing "=" count as none, so
// the 192 zero bytes they decode to are returned as data.
TEST_F(Base64Test, PaddingCountWrapsAtTwoHundredFiftySix)
{
    const std::string text = "QUJD" + std::string(256, '=');
    std::vector<unsigned char> out(static_cast<size_t>(calcRequiredBase64DecodeBufferSize(text.size())));
    EXPECT_EQ(base64Decode(text.data(), static_cast<int>(text.size()), out.data(), static_cast<int>(out.size())),
              3 + 192);

    // 255 of them are all counted: more padding than data gives a negative
    // count and a wiped buffer.
    const std::string text255 = "QUJDQ" + std::string(255, '=');
    std::fill(out.begin(), out.end(), 0x5A);
    EXPECT_EQ(base64Decode(text255.data(), static_cast<int>(text255.size()), out.data(),
                           static_cast<int>(out.size())),
              195 - 255);
    EXPECT_TRUE(allZero(out.data(), out.size()));
}

TEST(Base64RoundTrip, AgreesWithTheLibraryOnRandomInput)
{
    for (int len = 0; len < 200; len += 7) {
        std::string bytes(static_cast<size_t>(len), '\0');
        RAND_bytes(reinterpret_cast<unsigned char*>(&bytes[0]), len);
        const int need = calcRequiredBase64EncodeBufferSize(static_cast<uint64_t>(len));
        std::string text(static_cast<size_t>(need), '\0');
        const int n = base64Encode(reinterpret_cast<const unsigned char*>(bytes.data()), len, &text[0], need);
        ASSERT_EQ(n, need - 1);
        text.resize(static_cast<size_t>(n));
        EXPECT_EQ(text, b64(bytes));
        if (len == 0) {
            continue; // the empty text is refused as all padding
        }
        std::string back(static_cast<size_t>(calcRequiredBase64DecodeBufferSize(text.size())), '\0');
        const int m = base64Decode(text.data(), n, reinterpret_cast<unsigned char*>(&back[0]),
                                   static_cast<int>(back.size()));
        ASSERT_EQ(m, len);
        EXPECT_EQ(back.substr(0, static_cast<size_t>(m)), bytes);
    }
}

} // namespace
} // namespace sktest
