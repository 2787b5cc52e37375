/* Species table, address checks and the name lookups. */
#include <chrono>
#include <sstream>

#include "support.h"

using namespace fsm_test;

namespace {

std::string addrText(const FSMADDR& a)
{
    std::ostringstream os;
    os << a;
    return os.str();
}

SPEC_DESC gPlain{FSM_TYPE_STANDARD, nullptr, 0, nullptr, nullptr, nullptr, nullptr};

}  // namespace

TEST(FsmGlobTest, VerifySpecAcceptsExactlyTheNamedSpeciesOfValidModules)
{
    FsmSystem sys;
    const struct {
        SPECIE s;
        bool valid;
    } cases[] = {
        {0x00030000, false},  // module 3 is invalid everywhere
        {0x00010000, false},  // FSMMOD_GLOBAL has no species
        {FSMSYS_FSM, true},   {FSMSYS_FSM + 1, false}, {ALPHA, true}, {THETA, true},
        {THETA + 1, false},   {NO_SPECIE, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.valid, fsm_verifySpec(c.s)) << std::hex << c.s;
    }
    // It does not look at the description.
    EXPECT_EQ(nullptr, fsm_getGlobalSpecieDesc(ALPHA)->pSpecDesc);
}

TEST(FsmGlobTest, VerifyAddrChecksSpecieDescriptionAndHighestIndividualInThatOrder)
{
    FsmSystem sys;
    sys.registerSpecie(BETA, &gPlain, 4, nullptr);  // HighInd 3
    const struct {
        FSMADDR addr;
        const char* detail;  // null: valid
        const char* extra;
    } cases[] = {
        {{BETA, 3}, nullptr, nullptr},
        {{BETA, 0}, nullptr, nullptr},
        {{BETA, 4}, "Invalid fsm address. Individ number is too high", " Max-ind=\"3\""},
        {{BETA, NO_IND}, "Invalid fsm address. Individ number is too high", " Max-ind=\"3\""},
        {{ALPHA, 0}, "Invalid fsm address. Specie description is invalid", nullptr},
        {{0x00030000, 0}, "Invalid fsm address. Specie is invalid", nullptr},
        {{NO_SPECIE, 0}, "Invalid fsm address. Specie is invalid", nullptr},
    };
    for (const auto& c : cases) {
        LogCapture log;
        EXPECT_EQ(c.detail == nullptr, fsm_verifyAddr(&c.addr)) << addrText(c.addr);
        if (c.detail == nullptr) {
            EXPECT_EQ("", log.text());
            continue;
        }
        // The address field is the record's location, not its contents.
        char where[32];
        snprintf(where, sizeof(where), "%p", static_cast<const void*>(&c.addr));
        std::string expected = std::string("ERROR Detail=\"") + c.detail + "\" Fsm-addr=\"" + where + "\"" +
                               (c.extra ? c.extra : "") + "\n";
        EXPECT_EQ(expected, log.text());
    }
}

TEST(FsmGlobTest, NameLookups)
{
    FsmSystem sys;
    EXPECT_EQ(SPECIE{FSM_TIMER}, fsm_findSpecieFromName("fsm_timer"));
    EXPECT_EQ(SPECIE{FSM_TIMER}, fsm_findSpecieFromName("FSM_TIMER"));
    EXPECT_EQ(SPECIE{ALPHA}, fsm_findSpecieFromName("Alpha"));
    EXPECT_EQ(NO_SPECIE, fsm_findSpecieFromName("ALPH"));
    EXPECT_EQ(NO_SPECIE, fsm_findSpecieFromName("ALPHAS"));
    EXPECT_EQ(NO_SPECIE, fsm_findSpecieFromName(""));

    EXPECT_EQ(NO_MSGNAME, fsm_findMessageNameFromString("gen_timer_1"));  // case-sensitive
    EXPECT_EQ(MSGNAME{0x00010004}, fsm_findMessageNameFromString("GEN_timer_1"));
    EXPECT_EQ(MSGNAME{TEST_set}, fsm_findMessageNameFromString("TEST_set"));
    EXPECT_EQ(MSGNAME{ELSE_MSG}, fsm_findMessageNameFromString("ELSE_MSG"));
    EXPECT_EQ(0x0001000A, fsm_getMsgNumber("GEN_timer_7"));
    EXPECT_EQ(-1, fsm_getMsgNumber("GEN_timer_8"));

    // No validation at all: garbage gives 0, a sign is taken as it comes.
    const struct {
        const char* text;
        IND_NO ind;
    } inds[] = {{"12", 12}, {"garbage", 0}, {"7x", 7}, {"", 0}, {"-1", NO_IND}, {" 3", 3}};
    for (const auto& c : inds) {
        EXPECT_EQ(c.ind, fsm_findIndFromString(c.text)) << c.text;
    }
}

TEST(FsmGlobTest, SpecieNamesOfThirtyCharactersOrMoreNeverMatch)
{
    static const char* const longNames[] = {"A23456789012345678901234567890", "B2345678901234567890123456789",
                                            nullptr};
    initOnce();
    fsm_setProductSpecieNames(longNames);
    sys_initFSMSystem(nullptr);
    EXPECT_EQ(NO_SPECIE, fsm_findSpecieFromName(longNames[0]));
    EXPECT_EQ(FSM_MAKE_ID(FSMMOD_NONFSM, 1), fsm_findSpecieFromName("b2345678901234567890123456789"));
    fsm_procShutdown();
}

TEST(FsmGlobTest, NamesOfNumbers)
{
    FsmSystem sys;
    EXPECT_STREQ("NO_SPECIE", fsm_getSpecName(NO_SPECIE));
    EXPECT_STREQ("***", fsm_getSpecName(0x00050000));
    EXPECT_STREQ("***", fsm_getSpecName(0x00010000));  // a module without a specie list
    EXPECT_STREQ("FSM_TIMER", fsm_getSpecName(FSM_TIMER));
    EXPECT_STREQ("THETA", fsm_getSpecName(THETA));
    EXPECT_STREQ("**********", fsm_getMsgName(0x00070000));
    EXPECT_STREQ("GEN_timer_1", fsm_getMsgName(GEN_timer_1));
    EXPECT_STREQ("POOL_not_msg", fsm_getMsgName(POOL_not_msg));

    EXPECT_EQ("FSM_TIMER:0", addrText({FSM_TIMER, 0}));
    EXPECT_EQ("FSM_TIMER:NO_IND", addrText({FSM_TIMER, NO_IND}));
    EXPECT_EQ("NO_SPECIE:NO_IND", addrText({NO_SPECIE, NO_IND}));
    EXPECT_EQ("ALPHA:4000000000", addrText({ALPHA, 4000000000u}));
}

TEST(FsmGlobTest, StateAndTaskNames)
{
    FsmSystem sys;
    static const STATE_NAME states[] = {{nullptr, "IDLE"}, {nullptr, "BUSY"}, {nullptr, ""}};
    static const FSM_NAME64 tasks[] = {"start", "stop"};
    SPEC_DESC named{FSM_TYPE_STANDARD, nullptr, 1, nullptr, nullptr, states, tasks};
    SPEC_DESC bare{FSM_TYPE_STANDARD, nullptr, 1, nullptr, nullptr, nullptr, nullptr};
    EXPECT_STREQ("NO_STATE", fsm_getStateName(&named, NO_STATE));
    EXPECT_STREQ("BUSY", fsm_getStateName(&named, 1));
    EXPECT_STREQ("3", fsm_getStateName(&bare, 3));
    // The number's buffer holds ten characters: the largest lose a digit.
    EXPECT_STREQ("429496729", fsm_getStateName(&bare, 4294967294u));
    EXPECT_STREQ("NO_TASK", fsm_getTaskName(&named, NO_TASK));
    EXPECT_STREQ("stop", fsm_getTaskName(&named, 1));
    EXPECT_STREQ("12", fsm_getTaskName(&bare, 12));
    EXPECT_DEATH(fsm_getTaskName(nullptr, 0), "pSpec");
}

TEST(FsmGlobTest, FillGlobNamesOrdersByModuleWithHolesAndLaterDuplicatesWin)
{
    static const char* const a[] = {"a", nullptr};
    static const char* const b[] = {"b", nullptr};
    static const char* const c[] = {"c", nullptr};
    const FSMMOD_NAME list[] = {{a, 2, "A"}, {b, 0, "B"}, {c, 2, "C"}, {nullptr, NO_FSMMOD, nullptr}};
    uint32_t n = 0;
    FSMMOD_NAME* out = fsm_FillGlobNames(list, &n);
    ASSERT_NE(nullptr, out);
    EXPECT_EQ(3u, n);
    EXPECT_STREQ("B", out[0].szModule);
    EXPECT_EQ(nullptr, out[1].pNames);
    EXPECT_EQ(NO_FSMMOD, out[1].eModule);
    EXPECT_EQ(nullptr, out[1].szModule);
    EXPECT_STREQ("C", out[2].szModule);
    EXPECT_EQ(1u, fsm_countNamesForMod(out, 2));
    EXPECT_EQ(0u, fsm_countNamesForMod(out, 1));
    free(out);

    // A table of module 0 alone counts as empty; so does an empty one.
    const FSMMOD_NAME onlyZero[] = {{a, 0, "A"}, {nullptr, NO_FSMMOD, nullptr}};
    const FSMMOD_NAME empty[] = {{nullptr, NO_FSMMOD, nullptr}};
    for (const FSMMOD_NAME* t : {onlyZero, empty}) {
        testing::internal::CaptureStderr();
        n = 77;
        EXPECT_EQ(nullptr, fsm_FillGlobNames(t, &n));
        EXPECT_EQ("fsm_FillGlobNames: No modules found\n", testing::internal::GetCapturedStderr());
        EXPECT_EQ(77u, n);
    }
}

TEST(FsmGlobTest, IterationVisitsPresentSpeciesInModuleAndIndexOrder)
{
    FsmSystem sys;
    EXPECT_EQ(NO_SPECIE, fsm_firstSpec());
    sys.registerSpecie(DELTA, &gPlain, 1, nullptr);
    sys.registerSpecie(BETA, &gPlain, 1, nullptr);
    sys.registerSpecie(FSM_TIMER, &gPlain, 1, nullptr);
    std::vector<SPECIE> seen;
    for (SPECIE s = fsm_firstSpec(); s != NO_SPECIE; s = fsm_nextSpec(s)) {
        seen.push_back(s);
    }
    EXPECT_EQ((std::vector<SPECIE>{FSM_TIMER, BETA, DELTA}), seen);
    EXPECT_EQ(NO_SPECIE, fsm_nextSpec(NO_SPECIE));
    EXPECT_EQ(NO_SPECIE, fsm_nextSpec(0x00030000));
    EXPECT_EQ(SPECIE{BETA}, fsm_nextSpec(PCI_IF));  // from any specie, present or not, into the next module
    EXPECT_EQ(0u, fsm_specieOffset(FSM_TIMER));
    EXPECT_EQ(2u, fsm_specieOffset(DELTA));
    EXPECT_EQ(0xFFFFFFFFu, fsm_specieOffset(ALPHA));  // no description
    EXPECT_EQ(7u, fsm_numberOfSpecInMod(FSMMOD_FSMSTUFF));
    EXPECT_EQ(0u, fsm_numberOfSpecInMod(FSMMOD_GLOBAL));
    EXPECT_EQ(8u, fsm_numberOfSpecInMod(FSMMOD_NONFSM));
}

TEST(FsmGlobTest, EverySpecieGetsItsOwnLoggerAndAnUntracedMask)
{
    FsmSystem sys;
    const GLOB_SPEC_D* timer = fsm_getGlobalSpecieDesc(FSM_TIMER);
    EXPECT_EQ("developer.fsm.fsm_timer", (*timer->specieLogger)->getName());
    EXPECT_EQ("developer.fsm.epsilon", (*fsm_getGlobalSpecieDesc(EPSILON)->specieLogger)->getName());
    EXPECT_EQ(NO_MSGNAME, timer->tracedMsgMask);
    EXPECT_EQ(nullptr, timer->RtosQid);
    EXPECT_EQ("developer.fsm", fsm_getDeveloperLogger()->getName());
}

TEST(FsmGlobTest, WithoutAProductCatalogueOnlyTheFrameworkSpeciesExist)
{
    initOnce();
    fsm_setProductSpecieNames(nullptr);
    sys_initFSMSystem(nullptr);
    EXPECT_EQ(0u, fsm_numberOfSpecInMod(FSMMOD_NONFSM));
    EXPECT_FALSE(fsm_verifySpec(ALPHA));
    EXPECT_TRUE(fsm_verifySpec(FSM_TIMER));
    EXPECT_STREQ("***", fsm_getSpecName(ALPHA));
    fsm_procShutdown();
}

TEST(FsmGlobDeathTest, DescriptorOfAnUnknownSpecieIsAProgrammingFault)
{
    EXPECT_DEATH(
        {
            FsmSystem sys;
            fsm_getGlobalSpecieDesc(0x00030000);
        },
        "Unknown specie");
    EXPECT_DEATH(
        {
            FsmSystem sys;
            fsm_getGlobalSpecieDesc(THETA + 1);
        },
        "Unknown specie");
}

TEST(FsmGlobDeathTest, FatalErrorSleepsThenAborts)
{
    auto start = std::chrono::steady_clock::now();
    EXPECT_DEATH(sys_fatalError(), "");
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}
