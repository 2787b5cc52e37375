// Sanitiser: the five patterns on realistic protocol text and on their
// deliberate quirks, the decision rules, certification mode and the hex dump.
#include "kvlog/kvlog.h"
#include "kvlog/kvlog_sanitiser.h"

#include <log4cxx/level.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <sstream>
#include <string>

namespace {

using kvlog::bool_opt_t;
using Sanitiser = void (*)(std::ostream&, const std::string&, bool_opt_t);

std::string run(Sanitiser f, const std::string& text, bool_opt_t decision = boost::none)
{
    std::ostringstream out;
    f(out, text, decision);
    return out.str();
}

std::string dots(size_t n)
{
    return std::string(n, '.');
}

// 40-, 43- and 45-character base64 keys.
const std::string key40 = "PS1uQCVeeCFCanVmcjkpPywjNWhcYD0mXXtxaVBR";
const std::string key43a = "YTdkMDU2NzY2YzE0ZjQ3MzY4YjYxZmI0NDZmZmYx+/=";
const std::string key43b = "NzcyMDNlZTM2MzQ2MjY5MjA0ZmVhNTE4ZTVlYzFkZ/8";
const std::string key45 = "Q2V0dGUgY2zDqSBlc3QgdW5lIGNsw6kgZGUgdGVzdC4+/";

TEST(KvlogSanitiser, SipRegisterBearerToken)
{
    const std::string head = "REGISTER sip:example.net SIP/2.0\r\n"
                             "Via: SIP/2.0/TLS 10.0.0.5:5061;branch=z9hG4bK776asdhds\r\n"
                             "Max-Forwards: 70\r\n"
                             "To: <sip:1001@example.net>\r\n"
                             "From: <sip:1001@example.net>;tag=1928301774\r\n"
                             "Call-ID: a84b4c76e66710@10.0.0.5\r\n"
                             "CSeq: 314159 REGISTER\r\n"
                             "Authorization: Bearer token=\"";
    const std::string tail = "\"\r\n"
                             "Contact: <sip:1001@10.0.0.5:5061;transport=tls>\r\n"
                             "Content-Length: 0\r\n\r\n";
    const std::string token = "abcDEF1234567";
    ASSERT_EQ(token.size(), 13u);
    EXPECT_EQ(run(kvlog::streamStringReplaceOauthTokenParam, head + token + tail), head + dots(13) + tail);
}

TEST(KvlogSanitiser, XmlTokenElement)
{
    const std::string head = "<?xml version='1.0'?><methodCall><methodName>login</methodName><params>"
                             "<param><user>alice</user></param><param><token>";
    const std::string tail = "</token></param><param><device>desk-7</device></param></params></methodCall>";
    EXPECT_EQ(kvlog::stringReplaceOauthTokenTag(head + "0123456789abc" + tail), head + dots(13) + tail);
    EXPECT_EQ(run(kvlog::streamStringReplaceOauthTokenTag, head + "0123456789abc" + tail), head + dots(13) + tail);
}

TEST(KvlogSanitiser, SdpCryptoLines)
{
    const std::string in = "v=0\r\n"
                           "o=- 2890844526 2890842807 IN IP4 10.0.0.5\r\n"
                           "m=audio 49170 RTP/SAVP 0\r\n"
                           "a=crypto:1 AES_CM_128_HMAC_SHA1_80 inline:" + key40 + "\r\n"
                           "a=crypto:2 AES_CM_128_HMAC_SHA1_32 inline:" + key43a + "\r\n"
                           "a=crypto:3 AES_CM_128_HMAC_SHA1_80 inline:" + key43b + "|2^48 UNENCRYPTED_SRTCP\r\n"
                           "a=rtpmap:0 PCMU/8000\r\n"
                           "a=note inline:";
    const std::string expected = "v=0\r\n"
                                 "o=- 2890844526 2890842807 IN IP4 10.0.0.5\r\n"
                                 "m=audio 49170 RTP/SAVP 0\r\n"
                                 "a=crypto:1 AES_CM_128_HMAC_SHA1_80 inline" + dots(40) + "\r\n"
                                 "a=crypto:2 AES_CM_128_HMAC_SHA1_32 inline" + dots(43) + "\r\n"
                                 "a=crypto:3 AES_CM_128_HMAC_SHA1_80 inline" + dots(48) + " UNENCRYPTED_SRTCP\r\n"
                                 "a=rtpmap:0 PCMU/8000\r\n"
                                 "a=note inline";
    EXPECT_EQ(run(kvlog::streamStringReplaceSdpKeys, in, false), expected);
}

TEST(KvlogSanitiser, KeyListing)
{
    std::string in, expected;
    for (int i = 0; i < 3; ++i) {
        const std::string lead = "[  " + std::to_string(i) + "] suite=AES_CM_128_HMAC_SHA1_80, keys=";
        in += lead + key45 + ", params={}\n";
        expected += lead + dots(45) + ", params={}\n";
    }
    EXPECT_EQ(run(kvlog::streamStringReplaceDebugKeys, in, false), expected);
}

// The quirks below are the patterns' contract; each row pins one of them.
TEST(KvlogSanitiser, PatternQuirks)
{
    struct Row {
        Sanitiser f;
        const char* in;
        std::string out;
        const char* why;
    } rows[] = {
        {kvlog::streamStringReplaceOauthTokenParam, R"(a token="abc" other="def" z)", "a token=\"" + dots(15) + "\" z",
         "greedy: masks up to the last quote"},
        {kvlog::streamStringReplaceOauthTokenParam, "token=\"ab\ncd\"\nx=\"y\"", "token=\"" + dots(11) + "\"",
         "dot matches line breaks"},
        {kvlog::streamStringReplaceOauthTokenParam, "token=\"\"", "token=\"\"", "empty token"},
        {kvlog::streamStringReplaceOauthTokenParam, "token=\"unterminated", "token=\"unterminated", "no closing quote"},
        {kvlog::streamStringReplaceOauthTokenParam, "Token=\"abc\"", "Token=\"abc\"", "case sensitive"},
        {kvlog::streamStringReplaceOauthTokenTag, "<token>a</token><x/><token>bb</token>",
         "<token>" + dots(22) + "</token>", "greedy: masks up to the last closing tag"},
        {kvlog::streamStringReplaceOauthTokenJson, R"({"token":"ab.c+/=_-9","x":"y"})",
         "{\"token\":\"" + dots(10) + "\",\"x\":\"y\"}", "token alphabet, not greedy"},
        {kvlog::streamStringReplaceOauthTokenJson, R"({"token":"ab c"})", R"({"token":"ab c"})",
         "a character outside the alphabet: no match"},
        {kvlog::streamStringReplaceOauthTokenJson, R"({"token": "abc"})", R"({"token": "abc"})",
         "blank after the colon: no match"},
        {kvlog::streamStringReplaceOauthTokenJson, R"("token":"a","token":"bcd")",
         "\"token\":\"" + dots(1) + "\",\"token\":\"" + dots(3) + "\"", "successive matches"},
        {kvlog::streamStringReplaceSdpKeys, "inline: abc", "inline abc", "blank after the colon leaves the key"},
        {kvlog::streamStringReplaceSdpKeys, "inline:ab|2^20|1:4 x", "inline" + dots(9) + ":4 x",
         "| and ^ belong to the key; ':' ends it"},
        {kvlog::streamStringReplaceSdpKeys, "inline:abc\ninline:de", "inline...\ninline..", "two keys"},
        {kvlog::streamStringReplaceDebugKeys, "keys= abc", "keys= abc", "blank after = leaves the key"},
        {kvlog::streamStringReplaceDebugKeys, "keys=a+b/c=|2^31, x", "keys=" + dots(11) + ", x",
         "colon-less prefix kept"},
        {kvlog::streamStringReplaceDebugKeys, "no secrets here", "no secrets here", "no match"},
        {kvlog::streamStringReplaceDebugKeys, "", "", "empty text"},
    };
    for (const Row& r : rows) {
        // Masking decisions: empty for the OAuth sanitisers, false for the key ones.
        const bool isKey = r.f == kvlog::streamStringReplaceSdpKeys || r.f == kvlog::streamStringReplaceDebugKeys;
        EXPECT_EQ(run(r.f, r.in, isKey ? bool_opt_t(false) : bool_opt_t()), r.out) << r.why;
    }
}

// Text beyond the engine's matching budget: the engine throws part-way;
// what was already examined stays as it is, the rest becomes dots.
TEST(KvlogSanitiser, EngineFailureMasksTheRestAndDoesNotThrow)
{
    const std::string done = "id=7 <token>ab</token>";
    std::string rest = " ";
    for (int i = 0; i < 12000; ++i) {
        rest += "<token>";
    }
    std::string out;
    EXPECT_NO_THROW(out = kvlog::stringReplaceOauthTokenTag(done + rest));
    const std::string expected = "id=7 <token>..</token>" + dots(rest.size());
    EXPECT_TRUE(out == expected) << out.size() << " bytes: " << out.substr(0, 60);
}

class KvlogSanitiserDecision : public testing::Test {
protected:
    void SetUp() override
    {
        if (kvlog::isCertModeLoggingEnabled(false)) {
            GTEST_SKIP() << "this host is in certification mode";
        }
        cryptoKeys = kvlog::getDeveloperLogger("cryptokeys");
        saved = cryptoKeys->getLevel();
    }
    void TearDown() override
    {
        if (cryptoKeys) {
            cryptoKeys->setLevel(saved);
        }
    }
    kvlog::LoggerPtr cryptoKeys;
    log4cxx::LevelPtr saved;
};

TEST_F(KvlogSanitiserDecision, RulesForKeysAndOauth)
{
    const std::string keyText = "a=crypto:1 X inline:" + key40 + " keys=" + key45;
    const std::string oauthText = R"(token="t" <token>t</token> "token":"t")";
    struct Row {
        Sanitiser f;
        bool isKey;
    } fns[] = {
        {kvlog::streamStringReplaceOauthTokenParam, false}, {kvlog::streamStringReplaceOauthTokenTag, false},
        {kvlog::streamStringReplaceOauthTokenJson, false},  {kvlog::streamStringReplaceSdpKeys, true},
        {kvlog::streamStringReplaceDebugKeys, true},
    };
    struct Level {
        log4cxx::LevelPtr level;
        bool trace;
    } levels[] = {{log4cxx::Level::getTrace(), true}, {log4cxx::Level::getDebug(), false},
                  {log4cxx::Level::getAll(), true}, {log4cxx::Level::getOff(), false}};
    for (const Level& lv : levels) {
        cryptoKeys->setLevel(lv.level);
        EXPECT_EQ(kvlog::shouldLogCryptoKeys(false), lv.trace) << lv.level->toString();
        for (const Row& r : fns) {
            const std::string& text = r.isKey ? keyText : oauthText;
            const bool emptyMasks = r.isKey ? !lv.trace : true;
            EXPECT_EQ(run(r.f, text, boost::none) == text, !emptyMasks) << lv.level->toString();
            EXPECT_EQ(run(r.f, text, true), text);
            // false masks key text whatever the level, but leaves OAuth text alone.
            EXPECT_EQ(run(r.f, text, false) == text, !r.isKey);
        }
    }
}

TEST_F(KvlogSanitiserDecision, LevelInheritedFromDeveloperCounts)
{
    kvlog::LoggerPtr developer = kvlog::getRootDeveloperLogger();
    log4cxx::LevelPtr devSaved = developer->getLevel();
    cryptoKeys->setLevel(log4cxx::LevelPtr());
    developer->setLevel(log4cxx::Level::getTrace());
    EXPECT_TRUE(kvlog::shouldLogCryptoKeys(false));
    developer->setLevel(log4cxx::Level::getInfo());
    EXPECT_FALSE(kvlog::shouldLogCryptoKeys(false));
    developer->setLevel(devSaved);
}

// The tests below create and remove the fixed marker paths; ctest runs them
// under one resource lock.
class KvlogCertMode : public KvlogSanitiserDecision {
protected:
    void SetUp() override
    {
        KvlogSanitiserDecision::SetUp();
        if (kvlog::isCertModeLoggingEnabled(true)) {
            GTEST_SKIP() << "stale " << kvlog::CERT_MODE_TEST_MARKER_PATH;
        }
    }
    void TearDown() override
    {
        ::unlink(kvlog::CERT_MODE_MARKER_PATH);
        ::rmdir(kvlog::CERT_MODE_MARKER_PATH);
        ::unlink(kvlog::CERT_MODE_TEST_MARKER_PATH);
        KvlogSanitiserDecision::TearDown();
    }
    static void create(const char* path)
    {
        FILE* f = std::fopen(path, "w");
        ASSERT_NE(f, nullptr) << path;
        std::fclose(f);
    }
};

TEST_F(KvlogCertMode, MarkerOverridesTraceForEmptyDecisions)
{
    const std::string text = "keys=" + key45;
    cryptoKeys->setLevel(log4cxx::Level::getTrace());
    EXPECT_EQ(run(kvlog::streamStringReplaceDebugKeys, text), text);

    create(kvlog::CERT_MODE_MARKER_PATH);
    EXPECT_TRUE(kvlog::isCertModeLoggingEnabled(false));
    EXPECT_FALSE(kvlog::shouldLogCryptoKeys(false));
    EXPECT_EQ(run(kvlog::streamStringReplaceDebugKeys, text), "keys=" + dots(45));
    EXPECT_EQ(run(kvlog::streamStringReplaceSdpKeys, "inline:" + key40), "inline" + dots(40));
    // An explicit decision still wins, even in certification mode.
    EXPECT_EQ(run(kvlog::streamStringReplaceDebugKeys, text, true), text);
    // The test variant ignores the real marker.
    EXPECT_FALSE(kvlog::isCertModeLoggingEnabled(true));
    EXPECT_TRUE(kvlog::shouldLogCryptoKeys(true));

    ASSERT_EQ(::unlink(kvlog::CERT_MODE_MARKER_PATH), 0);
    EXPECT_FALSE(kvlog::isCertModeLoggingEnabled(false));
    EXPECT_EQ(run(kvlog::streamStringReplaceDebugKeys, text), text);
}

TEST_F(KvlogCertMode, TestMarkerOfAnyType)
{
    cryptoKeys->setLevel(log4cxx::Level::getTrace());
    create(kvlog::CERT_MODE_TEST_MARKER_PATH);
    EXPECT_TRUE(kvlog::isCertModeLoggingEnabled(true));
    EXPECT_FALSE(kvlog::shouldLogCryptoKeys(true));
    EXPECT_FALSE(kvlog::isCertModeLoggingEnabled(false));
    EXPECT_TRUE(kvlog::shouldLogCryptoKeys(false));
    ASSERT_EQ(::unlink(kvlog::CERT_MODE_TEST_MARKER_PATH), 0);
    EXPECT_FALSE(kvlog::isCertModeLoggingEnabled(true));

    ASSERT_EQ(::mkdir(kvlog::CERT_MODE_MARKER_PATH, 0700), 0);
    EXPECT_TRUE(kvlog::isCertModeLoggingEnabled(false));
    EXPECT_FALSE(kvlog::shouldLogCryptoKeys(false));
}

TEST(KvlogHexDump, Layout)
{
    const unsigned char bytes[] = {0x16, 0x03, 0x01, 0x00, 0xa5, 0x01, 0x00, 0x00, 0xa1, 0x03,
                                   0x03, 0x5b, 0x3c, 0x2e, 0x00, 0xff, 'A',  'B'};
    EXPECT_EQ(kvlog::hexDumpToString(bytes, sizeof(bytes)),
              "0000  16 03 01 00 a5 01 00 00  a1 03 03 5b 3c 2e 00 ff  |...........[<...|\n"
              "0010  41 42" + std::string(45, ' ') + "|AB|\n");
    std::ostringstream out;
    kvlog::hexDumpToStream(out, bytes, 8);
    EXPECT_EQ(out.str(), "0000  16 03 01 00 a5 01 00 00" + std::string(27, ' ') + "|........|\n");
}

TEST(KvlogHexDump, EdgesAndOffsetWidth)
{
    EXPECT_EQ(kvlog::hexDumpToString(nullptr, 10), "");
    const unsigned char one = 0x7f;
    EXPECT_EQ(kvlog::hexDumpToString(&one, 0), "");
    EXPECT_EQ(kvlog::hexDumpToString(&one, 1), "0000  7f" + std::string(48, ' ') + "|.|\n");

    struct Row {
        uint32_t length;
        const char* lastOffset;
    } rows[] = {{16, "0000  "}, {17, "0010  "}, {0x10000, "fff0  "}, {0x10001, "10000  "}};
    for (const Row& r : rows) {
        std::vector<unsigned char> data(r.length, 'x');
        const std::string dump = kvlog::hexDumpToString(data.data(), r.length);
        const size_t lines = (r.length + 15) / 16;
        EXPECT_EQ(static_cast<size_t>(std::count(dump.begin(), dump.end(), '\n')), lines);
        const size_t lastStart = dump.rfind('\n', dump.size() - 2);
        const std::string last = dump.substr(lastStart == std::string::npos ? 0 : lastStart + 1);
        EXPECT_EQ(last.rfind(r.lastOffset, 0), 0u) << r.length << ": " << last;
        // Every line is as wide as the first: the columns line up.
        const size_t firstLen = dump.find('\n');
        if (r.length % 16 == 0) {
            EXPECT_EQ(last.size(), firstLen + 1);
        }
    }
}

} // namespace
