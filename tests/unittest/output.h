// Helpers for reading the runner's output: every line must start with a
// local time stamp, which the helpers check and strip.
#ifndef TESTS_UNITTEST_OUTPUT_H
#define TESTS_UNITTEST_OUTPUT_H

#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

// Splits text into lines and strips each line's time stamp. With
// `requireStamp`, a line without a stamp is a test failure; without it, such
// a line is kept as it is: object-style suite reports put line breaks inside
// one printed message, and the text after such a break has no stamp of its own.
inline std::vector<std::string> splitStamped(const std::string& text, bool requireStamp)
{
    static const std::regex stamp("^\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2} ");
    std::vector<std::string> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        std::smatch m;
        if (std::regex_search(line, m, stamp)) {
            out.push_back(line.substr(static_cast<size_t>(m.length(0))));
        } else {
            if (requireStamp) {
                ADD_FAILURE() << "no time stamp: " << line;
            }
            out.push_back(line);
        }
    }
    return out;
}

inline std::vector<std::string> stampedLines(const std::string& text)
{
    return splitStamped(text, true);
}

// The text with every time stamp removed.
inline std::string unstamp(const std::string& text)
{
    std::string out;
    for (const std::string& line : splitStamped(text, false)) {
        out += line + "\n";
    }
    return out;
}

#endif
