/*
 * Sensitive-data sanitiser.
 *
 * Every sanitiser is one table row: a pattern, the text written in front of
 * the dots, and the text written after them. The patterns are compiled once
 * (function-local statics) and only read afterwards, so the functions can run
 * on any thread. Output goes straight to the caller's stream, piece by piece,
 * without building an intermediate string.
 */
#include "kvlog/kvlog_sanitiser.h"

#include "kvlog/kvlog.h"

#include <boost/regex.hpp>

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <stdexcept>

namespace kvlog {

const char* const CERT_MODE_MARKER_PATH = "/tmp/cert-mode-logging";
const char* const CERT_MODE_TEST_MARKER_PATH = "/tmp/temp-test-file";

namespace {

struct Masker {
    boost::regex pattern;
    std::string before; // written in place of the matched text up to group 1
    std::string after;  // written after the dots
};

// The pattern texts are part of the logging contract: what exactly gets
// masked, greedy or not, is deliberate (see the header).
const Masker& oauthParam()
{
    static const Masker m{boost::regex(R"re(token="(.*)")re"), "token=\"", "\""};
    return m;
}

const Masker& oauthTag()
{
    static const Masker m{boost::regex(R"re(<token>(.*)</token>)re"), "<token>", "</token>"};
    return m;
}

const Masker& oauthJson()
{
    static const Masker m{boost::regex(R"re("token":"([a-zA-Z0-9\.\+/=_-]*)")re"), "\"token\":\"", "\""};
    return m;
}

const Masker& sdpKeys()
{
    static const Masker m{boost::regex(R"re(inline:\s*?([a-zA-Z0-9\+|/=^]*)\s*?)re"), "inline", ""};
    return m;
}

const Masker& debugKeys()
{
    static const Masker m{boost::regex(R"re(keys=\s*?([a-zA-Z0-9\+|/=^]*)\s*?)re"), "keys=", ""};
    return m;
}

// Unformatted output straight into the stream buffer: one sentry per call
// instead of one per piece (the pieces are many and short).
class Writer {
public:
    explicit Writer(std::ostream& out) : mOut(out), mBuf(out.rdbuf()) {}
    void put(const char* p, size_t n)
    {
        if (n != 0 && mBuf->sputn(p, static_cast<std::streamsize>(n)) != static_cast<std::streamsize>(n)) {
            mOut.setstate(std::ios_base::badbit);
        }
    }
    void put(const std::string& s) { put(s.data(), s.size()); }
    void dots(size_t count)
    {
        static const char dotText[] = "................................................................";
        constexpr size_t chunk = sizeof(dotText) - 1;
        while (count > 0) {
            const size_t n = std::min(count, chunk);
            put(dotText, n);
            count -= n;
        }
    }

private:
    std::ostream& mOut;
    std::streambuf* mBuf;
};

void mask(std::ostream& out, const std::string& text, const Masker& m)
{
    const std::ostream::sentry ok(out);
    if (!ok || !out.rdbuf()) {
        return;
    }
    Writer w(out);
    const char* const begin = text.data();
    const char* const end = begin + text.size();
    const char* pos = begin; // first byte not yet written
    try {
        boost::cmatch match;
        boost::match_flag_type flags = boost::match_default;
        while (pos != end && boost::regex_search(pos, end, match, m.pattern, flags)) {
            w.put(pos, static_cast<size_t>(match[0].first - pos));
            w.put(m.before);
            w.dots(static_cast<size_t>(match[1].length()));
            w.put(m.after);
            pos = match[0].second;
            // Every pattern starts with literal text, so a match is never
            // empty and the search always moves forward.
            flags = boost::match_prev_avail;
        }
    } catch (const std::runtime_error&) {
        // The engine gave up (complexity or stack limit). What was not
        // examined may hold a secret: mask it all.
        w.dots(static_cast<size_t>(end - pos));
        return;
    }
    w.put(pos, static_cast<size_t>(end - pos));
}

void oauth(std::ostream& out, const std::string& text, const bool_opt_t& decision, const Masker& m)
{
    // Any explicit decision, even false, means "as is": only an empty one masks.
    if (decision) {
        out << text;
    } else {
        mask(out, text, m);
    }
}

void keys(std::ostream& out, const std::string& text, const bool_opt_t& decision, const Masker& m)
{
    const bool clear = decision ? *decision : shouldLogCryptoKeys(false);
    if (clear) {
        out << text;
    } else {
        mask(out, text, m);
    }
}

} // namespace

bool isCertModeLoggingEnabled(bool test)
{
    struct stat st;
    return ::stat(test ? CERT_MODE_TEST_MARKER_PATH : CERT_MODE_MARKER_PATH, &st) == 0;
}

bool shouldLogCryptoKeys(bool test)
{
    if (isCertModeLoggingEnabled(test)) {
        return false;
    }
    static const LoggerPtr cryptoKeysLogger = getDeveloperLogger("cryptokeys");
    return mapLog4cxxLevelToKVLogLevel(cryptoKeysLogger->getEffectiveLevel()->toInt()) == KVLOG_LEVEL_TRACE;
}

void streamStringReplaceOauthTokenParam(std::ostream& out, const std::string& text, bool_opt_t decision)
{
    oauth(out, text, decision, oauthParam());
}

void streamStringReplaceOauthTokenTag(std::ostream& out, const std::string& text, bool_opt_t decision)
{
    oauth(out, text, decision, oauthTag());
}

void streamStringReplaceOauthTokenJson(std::ostream& out, const std::string& text, bool_opt_t decision)
{
    oauth(out, text, decision, oauthJson());
}

void streamStringReplaceSdpKeys(std::ostream& out, const std::string& text, bool_opt_t decision)
{
    keys(out, text, decision, sdpKeys());
}

void streamStringReplaceDebugKeys(std::ostream& out, const std::string& text, bool_opt_t decision)
{
    keys(out, text, decision, debugKeys());
}

std::string stringReplaceOauthTokenTag(const std::string& text)
{
    std::ostringstream out;
    streamStringReplaceOauthTokenTag(out, text, boost::none);
    return out.str();
}

std::string stringReplaceOauthTokenJson(const std::string& text)
{
    std::ostringstream out;
    streamStringReplaceOauthTokenJson(out, text, boost::none);
    return out.str();
}

void hexDumpToStream(std::ostream& out, const unsigned char* data, uint32_t length)
{
    if (!data || length == 0) {
        return;
    }
    constexpr uint32_t perLine = 16;
    // Offsets are as wide as the largest one needs, at least four digits, so
    // the columns line up over the whole dump.
    int width = 4;
    for (uint32_t last = (length - 1) & ~(perLine - 1); width < 8 && (last >> (4 * width)) != 0; ++width) {
    }
    static const char hex[] = "0123456789abcdef";
    std::string line;
    for (uint32_t offset = 0; offset < length; offset += perLine) {
        char head[16];
        std::snprintf(head, sizeof(head), "%0*x  ", width, offset);
        line.assign(head);
        const uint32_t n = std::min(perLine, length - offset);
        for (uint32_t i = 0; i < perLine; ++i) {
            if (i == perLine / 2) {
                line += ' ';
            }
            if (i < n) {
                const unsigned char b = data[offset + i];
                line += hex[b >> 4];
                line += hex[b & 0xf];
                line += ' ';
            } else {
                line += "   ";
            }
        }
        line += " |";
        for (uint32_t i = 0; i < n; ++i) {
            const unsigned char b = data[offset + i];
            line += (b >= 0x20 && b < 0x7f) ? static_cast<char>(b) : '.';
        }
        line += "|\n";
        out << line;
    }
}

std::string hexDumpToString(const unsigned char* data, uint32_t length)
{
    std::ostringstream out;
    hexDumpToStream(out, data, length);
    return out.str();
}

} // namespace kvlog
