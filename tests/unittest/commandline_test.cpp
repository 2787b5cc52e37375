// The command line, driven from outside through the probe runner (a registry
// of units with known outcomes) and the product's own runner.
#include "output.h"

#include <gtest/gtest.h>

#include <strings.h>
#include <sys/wait.h>

#include <cstdio>
#include <set>
#include <string>
#include <vector>

namespace {

struct Result {
    std::string out;
    int status;
};

Result run(const std::string& program, const std::string& args)
{
    std::string cmd = program + " " + args + " 2>/dev/null";
    FILE* p = popen(cmd.c_str(), "r");
    Result r{};
    if (!p) {
        ADD_FAILURE() << "popen failed";
        return r;
    }
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) {
        r.out.append(buf, n);
    }
    int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

Result probe(const std::string& args)
{
    return run(KV_PROBE_PATH, args);
}

const std::string kLong = "probe_long_0123456789012345678901234567890123456789012345678901234567";

bool contains(const std::vector<std::string>& lines, const std::string& line)
{
    for (const std::string& l : lines) {
        if (l == line) {
            return true;
        }
    }
    return false;
}

const std::string kNoUnits = "Error: Invalid unittest name or no tests available";
std::string ok(int units, int tests)
{
    return "UNITTEST OK (" + std::to_string(units) + " units, " + std::to_string(tests) +
           " tests, 0 work in progress, 0 errors)";
}

// Whole outputs (time stamps stripped) of command lines; the exit status is
// always 0. Options are read left to right, each against every argument.
TEST(UnittestCommandline, WholeOutputs)
{
    struct Row {
        std::string args;
        std::vector<std::string> lines;
    } rows[] = {
        {"--listunittest",
         {"Available tests:", "probe_failOnce", "probe_failTwice", kLong.substr(0, 63), "probe_pass", "Probe_Slow",
          "probe_target", "probe_wip", "Number of tests: 7"}},
        {"", {}},
        {"--rununittest", {}}, // as the last argument: nothing to run, stop
        {"--rununittest --exitunittests --runallunittests", {kNoUnits}}, // the fragment stands in for the exit
        // The fragment is consumed: an option given as the fragment acts only
        // as the fragment (and as the exit option it stands in for).
        {"--rununittest --runallunittests", {kNoUnits}},
        {"--rununittest --listunittest", {kNoUnits}},
        {"--rununittest --rununittest probe_wip", {kNoUnits}},
        {"--rununittest --slowtests --rununittest probe_target", {kNoUnits, "probe_target OK (1 tests)", ok(1, 1)}},
        {"--rununittest --verboseunittest --verboseunittest --verboseunittest --rununittest probe_pass",
         {kNoUnits, "probe_pass/t/1 OK ", "probe_pass/t/2 OK ", "probe_pass OK (2 tests)", ok(1, 2)}},
        // Type options select units; one after the run does not affect it.
        {"--slowtests --runallunittests", {"Probe_Slow OK (1 tests)", ok(1, 1)}},
        {"--fasttests --rununittest probe_target", {kNoUnits}},
        {"--rununittest probe_target --fasttests", {"probe_target OK (1 tests)", ok(1, 1)}},
        {"--bogus --rununittest PROBE_PASS -x", {"probe_pass OK (2 tests)", ok(1, 2)}},
    };
    for (const Row& r : rows) {
        Result res = probe(r.args);
        EXPECT_EQ(res.status, 0) << r.args;
        EXPECT_EQ(stampedLines(res.out), r.lines) << r.args;
    }
    // Exit ends the process at once, after the run before it.
    EXPECT_EQ(stampedLines(probe("--rununittest probe_failOnce --exitunittests --runallunittests").out).back(),
              "UNITTEST FAILED (1 units, 2 tests, 0 work in progress, 1 errors)");
    Result help = probe("-h");
    EXPECT_EQ(help.out, std::string(KV_PROBE_PATH) +
                            " [--listunittest] [--verboseunittest] [--runallunittests] [--rununittest name] "
                            "[--exitunittests] [--fasttests] [--slowtests]\n");
}

TEST(UnittestCommandline, RunAllReportsFailuresButExitsZero)
{
    Result r = probe("--runallunittests");
    EXPECT_EQ(r.status, 0);
    std::vector<std::string> lines = stampedLines(r.out);
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[lines.size() - 2],
              "Failing tests(s): [ probe_failOnce (1 failure(s)), probe_failTwice (2 failure(s)) ] ");
    EXPECT_EQ(lines.back(), "UNITTEST FAILED (7 units, 12 tests, 1 work in progress, 3 errors)");
    EXPECT_TRUE(contains(lines, "probe_pass OK (2 tests)"));
    EXPECT_TRUE(contains(lines, "probe_wip WORK IN PROGRESS (2 tests passed okay, 1 flagged as work in progress)"));
    EXPECT_FALSE(contains(lines, "probe_pass/t/1 OK ")); // SUMMARY: only failures print check lines
}

TEST(UnittestCommandline, VerbosityRaisesOneStepPerOption)
{
    for (int verbose = 0; verbose <= 4; ++verbose) {
        std::string args;
        for (int i = 0; i < verbose; ++i) {
            args += "--verboseunittest ";
        }
        std::vector<std::string> lines = stampedLines(probe(args + "--rununittest probe_pass").out);
        EXPECT_EQ(contains(lines, "probe_pass/t/1 OK "), verbose >= 2) << verbose;
        EXPECT_EQ(contains(lines, "probe_pass/t: verbose note"), verbose >= 3) << verbose;
    }
}

// Every unit the product registers, by name. The registered set must be
// exactly this one: a unit missing from the product is as wrong as one that
// nobody listed here.
const std::set<std::string> kProductUnits = {
    "unittest_NetAddrTab",
    "unittest_NetAddr_core",
    "unittest_abstraction_makeconnection",
    "unittest_abstraction_sockevents",
    "unittest_abstraction_sockopts",
    "unittest_dlist",
    "unittest_fsm",
    "unittest_mutex",
    "unittest_profiling",
    "unittest_strutil",
    "unittest_kvlog",
    "unittest_kvnet_connected",
    "unittest_kvnet_getsourceaddresstosendfrom",
    "unittest_kvos_ptrq",
    "unittest_utf8",
};

TEST(PlatformUnittests, RegistersExactlyTheProductUnits)
{
    Result list = run(KV_PLATFORM_UNITTESTS_PATH, "--listunittest");
    std::vector<std::string> lines = stampedLines(list.out);
    ASSERT_GE(lines.size(), 2u) << list.out;
    EXPECT_EQ(lines.front(), "Available tests:");
    EXPECT_EQ(lines.back(), "Number of tests: " + std::to_string(lines.size() - 2));
    const std::set<std::string> registered(lines.begin() + 1, lines.end() - 1);
    for (const std::string& name : kProductUnits) {
        EXPECT_EQ(registered.count(name), 1u) << "not registered: " << name;
    }
    for (const std::string& name : registered) {
        EXPECT_EQ(kProductUnits.count(name), 1u) << "registered but not a product unit: " << name;
    }
}

TEST(PlatformUnittests, EveryRegisteredUnitPasses)
{
    Result r = run(KV_PLATFORM_UNITTESTS_PATH, "--runallunittests");
    const std::vector<std::string> lines = splitStamped(r.out, false);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back().rfind("UNITTEST OK (", 0), 0u) << r.out;
    EXPECT_EQ(r.status, 0) << "the runner exits 0 unless it crashed or a sanitizer stopped it";
    Result list = run(KV_PLATFORM_UNITTESTS_PATH, "--listunittest");
    std::vector<std::string> names = stampedLines(list.out);
    ASSERT_GE(names.size(), 2u);
    for (size_t i = 2; i + 1 < names.size(); ++i) {
        EXPECT_LT(strcasecmp(names[i - 1].c_str(), names[i].c_str()), 0) << names[i];
    }
    EXPECT_EQ(names.back(), "Number of tests: " + std::to_string(names.size() - 2));
}

} // namespace
