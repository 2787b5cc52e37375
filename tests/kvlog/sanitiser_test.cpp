// Sanitiser: the five patterns, the decision rules, certification mode and the
// hex dump.
#include "kvlog/kvlog.h"
#include "kvlog/kvlog_sanitiser.h"

#include <log4cxx/level.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
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
const std::string key43 = "YTdkMDU2NzY2YzE0ZjQ3MzY4YjYxZmI0NDZmZmYx+/=";
const std::string key45 = "Q2V0dGUgY2zDqSBlc3QgdW5lIGNsw6kgZGUgdGVzdC4+/";
const auto param = kvlog::streamStringReplaceOauthTokenParam;
const auto tag = kvlog::streamStringReplaceOauthTokenTag;
const auto json = kvlog::streamStringReplaceOauthTokenJson;
const auto sdp = kvlog::streamStringReplaceSdpKeys;
const auto keys = kvlog::streamStringReplaceDebugKeys;

// Protocol text first (the self-test unit has a SIP request), then the
// patterns' deliberate quirks, one per row. The decision is empty for the
// OAuth sanitisers and false for the key ones.
TEST(KvlogSanitiser, Patterns)
{
    const std::string xml = "<methodCall><params><param><user>alice</user></param><param><token>";
    const std::string xmlEnd = "</token></param><param><device>desk-7</device></param></params></methodCall>";
    const std::string crypto = "a=crypto:1 AES_CM_128_HMAC_SHA1_80 inline";
    struct Row {
        Sanitiser f;
        std::string in, out;
        const char* why;
    } rows[] = {
        {tag, xml + "0123456789abc" + xmlEnd, xml + dots(13) + xmlEnd, "XML token element"},
        {sdp, "o=- 2890844526 IN IP4 10.0.0.5\r\n" + crypto + ":" + key40 + "\r\n" + crypto + ":" + key43 + "\r\n",
         "o=- 2890844526 IN IP4 10.0.0.5\r\n" + crypto + dots(40) + "\r\n" + crypto + dots(43) + "\r\n", "SDP keys"},
        {sdp, crypto + ":" + key43 + "|2^48 UNENCRYPTED_SRTCP\r\na=note inline:",
         crypto + dots(48) + " UNENCRYPTED_SRTCP\r\na=note inline", "the lifetime goes with the key; colon dropped"},
        {keys, "[  0] suite=X, keys=" + key45 + ", params={}\n[  1] keys=" + key45 + "\n",
         "[  0] suite=X, keys=" + dots(45) + ", params={}\n[  1] keys=" + dots(45) + "\n", "key listing"},
        {param, R"(a token="abc" other="def" z)", "a token=\"" + dots(15) + "\" z", "greedy: up to the last quote"},
        {param, "token=\"ab\ncd\"\nx=\"y\"", "token=\"" + dots(11) + "\"", "dot matches line breaks"},
        {param, "token=\"\"", "token=\"\"", "empty token"},
        {param, "token=\"unterminated", "token=\"unterminated", "no closing quote"},
        {param, "Token=\"abc\"", "Token=\"abc\"", "case sensitive"},
        {tag, "<token>a</token><x/><token>bb</token>", "<token>" + dots(22) + "</token>", "greedy: last closing tag"},
        {json, R"({"token":"ab.c+/=_-9","x":"y"})", "{\"token\":\"" + dots(10) + "\",\"x\":\"y\"}",
         "token alphabet, not greedy"},
        {json, R"({"token":"ab c"})", R"({"token":"ab c"})", "a character outside the alphabet: no match"},
        {json, R"({"token": "abc"})", R"({"token": "abc"})", "blank after the colon: no match"},
        {json, R"("token":"a","token":"bcd")", "\"token\":\"" + dots(1) + "\",\"token\":\"" + dots(3) + "\"",
         "successive matches"},
        {sdp, "inline: abc", "inline abc", "blank after the colon leaves the key"},
        {sdp, "inline:ab|2^20|1:4 x", "inline" + dots(9) + ":4 x", "| and ^ belong to the key; ':' ends it"},
        {sdp, "inline:abc\ninline:de", "inline...\ninline..", "two keys"},
        {keys, "keys= abc", "keys= abc", "blank after = leaves the key"},
        {keys, "keys=a+b/c=|2^31, x", "keys=" + dots(11) + ", x", "colon-less prefix kept"},
        {keys, "no secrets here", "no secrets here", "no match"},
        {keys, "", "", "empty text"},
    };
    for (const Row& r : rows) {
        const bool isKey = r.f == sdp || r.f == keys;
        EXPECT_EQ(run(r.f, r.in, isKey ? bool_opt_t(false) : bool_opt_t()), r.out) << r.why;
    }
    // The string forms run the same patterns.
    EXPECT_EQ(kvlog::stringReplaceOauthTokenTag(rows[0].in), rows[0].out);
    EXPECT_EQ(kvlog::stringReplaceOauthTokenJson(rows[10].in), rows[10].out);
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

// The decision tests set developer.cryptokeys and create and remove the fixed
// marker paths (one at a time under ctest: a resource lock).
class KvlogSanitiserDecision : public testing::Test {
protected:
    void SetUp() override
    {
        if (kvlog::isCertModeLoggingEnabled(false) || kvlog::isCertModeLoggingEnabled(true)) {
            GTEST_SKIP() << "a certification-mode marker exists on this host";
        }
        cryptoKeys = kvlog::getDeveloperLogger("cryptokeys");
        saved = cryptoKeys->getLevel();
    }
    void TearDown() override
    {
        if (cryptoKeys) { // only what SetUp found absent is removed
            cryptoKeys->setLevel(saved);
            ::unlink(kvlog::CERT_MODE_MARKER_PATH);
            ::rmdir(kvlog::CERT_MODE_MARKER_PATH);
            ::unlink(kvlog::CERT_MODE_TEST_MARKER_PATH);
        }
    }
    kvlog::LoggerPtr cryptoKeys;
    log4cxx::LevelPtr saved;
};

// Keys: an empty decision follows the cryptokeys level, false masks, true
// does not. OAuth: only an empty decision masks, whatever the level (the
// asymmetry is part of the contract).
TEST_F(KvlogSanitiserDecision, RulesForKeysAndOauth)
{
    const std::string keyText = "a=crypto:1 X inline:" + key40 + " keys=" + key45;
    const std::string oauthText = R"(token="t" <token>t</token> "token":"t")";
    struct Level {
        log4cxx::LevelPtr level;
        bool trace;
    } levels[] = {{log4cxx::Level::getTrace(), true}, {log4cxx::Level::getDebug(), false},
                  {log4cxx::Level::getAll(), true}, {log4cxx::Level::getOff(), false}};
    for (const Level& lv : levels) {
        cryptoKeys->setLevel(lv.level);
        EXPECT_EQ(kvlog::shouldLogCryptoKeys(false), lv.trace) << lv.level->toString();
        for (Sanitiser f : {param, tag, json, sdp, keys}) {
            const bool isKey = f == sdp || f == keys;
            const std::string& text = isKey ? keyText : oauthText;
            EXPECT_EQ(run(f, text, boost::none) == text, isKey && lv.trace) << lv.level->toString();
            EXPECT_EQ(run(f, text, true), text);
            EXPECT_EQ(run(f, text, false) == text, !isKey);
        }
    }
    // A level inherited from "developer" counts.
    kvlog::LoggerPtr developer = kvlog::getRootDeveloperLogger();
    const log4cxx::LevelPtr devSaved = developer->getLevel();
    cryptoKeys->setLevel(log4cxx::LevelPtr());
    developer->setLevel(log4cxx::Level::getTrace());
    EXPECT_TRUE(kvlog::shouldLogCryptoKeys(false));
    developer->setLevel(log4cxx::Level::getInfo());
    EXPECT_FALSE(kvlog::shouldLogCryptoKeys(false));
    developer->setLevel(devSaved);
}

// Each variant reads only its own marker, of any file type; a marker
// overrides TRACE for empty decisions, an explicit decision still wins.
TEST_F(KvlogSanitiserDecision, CertificationModeMarkers)
{
    const std::string text = "keys=" + key45;
    cryptoKeys->setLevel(log4cxx::Level::getTrace());
    struct Row {
        const char* path;
        bool testVariant, directory;
    } rows[] = {{kvlog::CERT_MODE_MARKER_PATH, false, false},
                {kvlog::CERT_MODE_TEST_MARKER_PATH, true, false},
                {kvlog::CERT_MODE_MARKER_PATH, false, true}};
    for (const Row& r : rows) {
        EXPECT_EQ(run(keys, text), text) << r.path;
        if (r.directory) {
            ASSERT_EQ(::mkdir(r.path, 0700), 0);
        } else {
            std::ofstream{r.path};
        }
        EXPECT_TRUE(kvlog::isCertModeLoggingEnabled(r.testVariant)) << r.path;
        EXPECT_FALSE(kvlog::shouldLogCryptoKeys(r.testVariant));
        EXPECT_FALSE(kvlog::isCertModeLoggingEnabled(!r.testVariant));
        EXPECT_TRUE(kvlog::shouldLogCryptoKeys(!r.testVariant));
        EXPECT_EQ(run(keys, text) == text, r.testVariant);
        EXPECT_EQ(run(sdp, "inline:" + key40) == "inline" + dots(40), !r.testVariant);
        EXPECT_EQ(run(keys, text, true), text);
        ASSERT_EQ(r.directory ? ::rmdir(r.path) : ::unlink(r.path), 0);
        EXPECT_FALSE(kvlog::isCertModeLoggingEnabled(r.testVariant));
    }
}

TEST(KvlogHexDump, LayoutEdgesAndOffsetWidth)
{
    const unsigned char bytes[] = {0x16, 0x03, 0x01, 0x00, 0xa5, 0x01, 0x00, 0x00, 0xa1, 0x03,
                                   0x03, 0x5b, 0x3c, 0x2e, 0x7f, 0xff, 'A',  'B'};
    EXPECT_EQ(kvlog::hexDumpToString(bytes, sizeof(bytes)),
              "0000  16 03 01 00 a5 01 00 00  a1 03 03 5b 3c 2e 7f ff  |...........[<...|\n"
              "0010  41 42" + std::string(45, ' ') + "|AB|\n");
    std::ostringstream out;
    kvlog::hexDumpToStream(out, bytes, 8);
    EXPECT_EQ(out.str(), "0000  16 03 01 00 a5 01 00 00" + std::string(27, ' ') + "|........|\n");
    EXPECT_EQ(kvlog::hexDumpToString(nullptr, 10), "");
    EXPECT_EQ(kvlog::hexDumpToString(bytes, 0), "");
    EXPECT_EQ(kvlog::hexDumpToString(bytes, 1), "0000  16" + std::string(48, ' ') + "|.|\n");

    // The offset widens past 0xffff; full lines keep the columns aligned.
    struct Row {
        uint32_t length;
        const char* lastOffset;
    } rows[] = {{16, "0000  "}, {17, "0010  "}, {0x10000, "fff0  "}, {0x10001, "10000  "}};
    for (const Row& r : rows) {
        std::vector<unsigned char> data(r.length, 'x');
        const std::string dump = kvlog::hexDumpToString(data.data(), r.length);
        EXPECT_EQ(static_cast<size_t>(std::count(dump.begin(), dump.end(), '\n')), (r.length + 15) / 16);
        const size_t lastStart = dump.rfind('\n', dump.size() - 2);
        const std::string last = dump.substr(lastStart == std::string::npos ? 0 : lastStart + 1);
        EXPECT_EQ(last.rfind(r.lastOffset, 0), 0u) << r.length << ": " << last;
        if (r.length % 16 == 0) {
            EXPECT_EQ(last.size(), dump.find('\n') + 1);
        }
    }
}

} // namespace
