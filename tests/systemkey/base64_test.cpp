#include "fixture.h"
#include "systemkey/base64_funcs.h"

#include <cstring>

namespace sktest {
namespace {

using Base64Test = SystemKeyTest;

const unsigned char* bytes(const char* s)
{
    return reinterpret_cast<const unsigned char*>(s);
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
        EXPECT_EQ(need, static_cast<int>(std::strlen(r.out)) + 1);
        std::string out(static_cast<size_t>(need), '#');
        EXPECT_EQ(base64Encode(bytes(r.in), len, &out[0], need), need - 1);
        EXPECT_STREQ(out.c_str(), r.out);
        log->clear();
        EXPECT_EQ(base64Encode(bytes(r.in), len, &out[0], need - 1), -1);
        EXPECT_EQ(log->count("Output buffer is too small to Base64 encode into. Current-Length=" +
                             std::to_string(need - 1) + " Required-Minimum=" + std::to_string(need)),
                  1u);
    }
    char out[8];
    EXPECT_EQ(base64Encode(nullptr, 1, out, 8), -1);
    EXPECT_EQ(base64Encode(bytes("A"), 1, nullptr, 8), -1);
    EXPECT_EQ(base64Encode(bytes("A"), -1, out, 8), -1);
    EXPECT_EQ(log->count("Cannot encode due to invalid input length, NULL input or NULL output buffer being provided"), 3u);
}

TEST_F(Base64Test, DecodesWithTheTrailingPaddingDiscounted)
{
    struct Row {
        const char* in;
        int cap;
        int result;
        const char* bytes;
    } rows[] = {
        {"QQ==", 3, 1, "A"},        {"QUI=", 3, 2, "AB"},         {"QUJD", 3, 3, "ABC"},
        {"QUJDRA==", 6, 4, "ABCD"}, {"QUJDREVG", 6, 6, "ABCDEF"}, {" QUJD\r\n", 6, 3, "ABC"},
        // "=" inside the text is not validated; only the trailing run counts.
        {"QQ==QUJD", 6, 6, "A"},    {"QUJD\n", 6, 3, "ABC"},
    };
    for (const Row& r : rows) {
        unsigned char out[16] = {};
        EXPECT_EQ(base64Decode(r.in, static_cast<int>(std::strlen(r.in)), out, r.cap), r.result) << r.in;
        EXPECT_EQ(std::memcmp(out, r.bytes, std::strlen(r.bytes)), 0) << r.in;
    }
    EXPECT_EQ(calcRequiredBase64DecodeBufferSize(9), 9);
    EXPECT_EQ(calcRequiredBase64DecodeBufferSize(344), 258);
}

// One error line under the codec's module, and the whole capacity (no more)
// wiped.
TEST_F(Base64Test, RefusedDecodesLogTheirLineAndWipeTheWholeCapacity)
{
    const char* padding = "Input appears to be all padding. Cannot Base64 decode";
    const char* invalid = "Cannot decode due to invalid input length, NULL input or NULL output buffer being provided";
    struct Row {
        const char* in;
        int len;
        int cap;
        const char* line;
    } rows[] = {
        {"====", 4, 3, padding}, {"Q", 1, 3, padding}, {"Q===", 4, 3, padding}, {"", 0, 3, padding},
        {"QU!D", 4, 16, "Base64 Encode Error="}, {"QUJ", 3, 16, "Base64 Encode Error="},
        {"QU JD", 5, 16, "Base64 Encode Error="},
        {"QUJDREVG", 8, 5, "Output buffer is too small to Base64 decode into. Current-Length=5 Required-Minimum=6"},
        {nullptr, 4, 16, invalid}, {"QUJD", -1, 16, invalid},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.in ? r.in : "(null)");
        unsigned char out[16];
        std::memset(out, 0x5A, sizeof out);
        log->clear();
        EXPECT_LT(base64Decode(r.in, r.len, out, r.cap), 0);
        ASSERT_EQ(log->lines().size(), 1u);
        EXPECT_EQ(log->lines()[0].first, 3);
        EXPECT_EQ(log->lines()[0].second.rfind("Module=\"developer.zel_crypto\" Level=\"ERROR\"", 0), 0u);
        EXPECT_EQ(log->count(r.line), 1u) << log->dump();
        EXPECT_TRUE(allZero(out, static_cast<size_t>(r.cap)));
        EXPECT_EQ(std::count(out + r.cap, out + 16, 0x5A), 16 - r.cap) << "wiped beyond the capacity";
    }
}

// The padding count is kept in one byte: 256 trailing "=" count as none, so
// the 192 zero bytes they decode to are returned as data; 255 are all
// counted, and more padding than data gives a negative count and a wipe.
TEST_F(Base64Test, PaddingCountWrapsAtTwoHundredFiftySix)
{
    const std::string text = "QUJD" + std::string(256, '=');
    std::vector<unsigned char> out(static_cast<size_t>(calcRequiredBase64DecodeBufferSize(text.size())), 0x5A);
    const int cap = static_cast<int>(out.size());
    EXPECT_EQ(base64Decode(text.data(), static_cast<int>(text.size()), out.data(), cap), 3 + 192);
    const std::string text255 = "QUJDQ" + std::string(255, '=');
    std::fill(out.begin(), out.end(), 0x5A);
    EXPECT_EQ(base64Decode(text255.data(), static_cast<int>(text255.size()), out.data(), cap), 195 - 255);
    EXPECT_TRUE(allZero(out.data(), out.size()));
}

} // namespace
} // namespace sktest
