// Helpers for reading the runner's output: every line must start with a
// local time stamp, which the helpers check and strip.
#ifndef TESTS_UNITTEST_OUTPUT_H
#define TESTS_UNITTEST_OUTPUT_H

#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

inline std::vector<std::string> stampedLines(const std::string& text)
{
    static const std::regex stamp("^\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2} ");
    std::vector<std::string> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        std::smatch m;
        EXPECT_TRUE(std::regex_search(line, m, stamp)) << "no time stamp: " << line;
        out.push_back(m.empty() ? line : line.substr(static_cast<size_t>(m.length(0))));
    }
    return out;
}

// The stamped lines only, stamps stripped. Object-style suite reports put
// line breaks inside one printed message; the text after such a break has no
// stamp of its own and is skipped here.
inline std::vector<std::string> stampedLinesOnly(const std::string& text)
{
    static const std::regex stamp("^\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2} ");
    std::vector<std::string> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        std::smatch m;
        if (std::regex_search(line, m, stamp)) {
            out.push_back(line.substr(static_cast<size_t>(m.length(0))));
        }
    }
    return out;
}

#endif
