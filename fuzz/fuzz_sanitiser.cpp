// The five sanitisers over arbitrary text. Each output is compared with a
// reference built independently from the contract (pattern text, prefix,
// one dot per byte of group 1, suffix; everything between matches copied),
// using Boost's own match iterator instead of the library's search loop.
// A sanitiser must never throw; an explicit "clear" decision must give the
// text back unchanged.
#include "kvlog/kvlog_sanitiser.h"

#include <boost/regex.hpp>

#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <string>

namespace {

using Sanitiser = void (*)(std::ostream&, const std::string&, kvlog::bool_opt_t);

struct Contract {
    Sanitiser f;
    const char* pattern;
    const char* prefix;
    const char* suffix;
    bool isKey;
};

const Contract kContracts[] = {
    {kvlog::streamStringReplaceOauthTokenParam, R"re(token="(.*)")re", "token=\"", "\"", false},
    {kvlog::streamStringReplaceOauthTokenTag, R"re(<token>(.*)</token>)re", "<token>", "</token>", false},
    {kvlog::streamStringReplaceOauthTokenJson, R"re("token":"([a-zA-Z0-9\.\+/=_-]*)")re", "\"token\":\"", "\"",
     false},
    {kvlog::streamStringReplaceSdpKeys, R"re(inline:\s*?([a-zA-Z0-9\+|/=^]*)\s*?)re", "inline", "", true},
    {kvlog::streamStringReplaceDebugKeys, R"re(keys=\s*?([a-zA-Z0-9\+|/=^]*)\s*?)re", "keys=", "", true},
};

// False when the reference engine itself gave up on this input.
bool reference(const Contract& c, const boost::regex& re, const std::string& text, std::string& out)
{
    try {
        std::string::const_iterator last = text.begin();
        for (boost::sregex_iterator it(text.begin(), text.end(), re), end; it != end; ++it) {
            const boost::smatch& m = *it;
            out.append(last, m[0].first);
            out += c.prefix;
            out.append(static_cast<size_t>(m[1].length()), '.');
            out += c.suffix;
            last = m[0].second;
        }
        out.append(last, text.cend());
        return true;
    } catch (const std::runtime_error&) {
        return false;
    }
}

std::string run(const Contract& c, const std::string& text, kvlog::bool_opt_t decision)
{
    std::ostringstream out;
    c.f(out, text, decision);
    return out.str();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const boost::regex* patterns = [] {
        auto* p = new boost::regex[sizeof(kContracts) / sizeof(kContracts[0])];
        for (size_t i = 0; i < sizeof(kContracts) / sizeof(kContracts[0]); ++i) {
            p[i] = boost::regex(kContracts[i].pattern);
        }
        return p;
    }();
    const std::string text(reinterpret_cast<const char*>(data), size);
    for (size_t i = 0; i < sizeof(kContracts) / sizeof(kContracts[0]); ++i) {
        const Contract& c = kContracts[i];
        const kvlog::bool_opt_t mask = c.isKey ? kvlog::bool_opt_t(false) : kvlog::bool_opt_t();
        const std::string got = run(c, text, mask);
        std::string expected;
        if (reference(c, patterns[i], text, expected) && got != expected) {
            std::abort();
        }
        if (run(c, text, true) != text) {
            std::abort();
        }
        if (!c.isKey && run(c, text, false) != text) {
            std::abort();
        }
    }
    return 0;
}
