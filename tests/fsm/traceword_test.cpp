/* Trace words in "system.par": real files in the suite's scratch parameter
 * directory (and, for saves, a scratch working directory), never the
 * device's path. */
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <mutex>
#include <vector>

#include "abstraction/kvos_seams.h"
#include "fsm/fsm_profiling_seams.h"
#include "support.h"
#include "tasked.h"

using namespace fsm_test;

namespace {

using Words = std::vector<uint16_t>;

std::string paramFile()
{
    return privateDir() + "/param/system.par";
}

void writeWords(const std::string& path, const Words& words)
{
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f.write(reinterpret_cast<const char*>(words.data()), static_cast<std::streamsize>(words.size() * 2));
}

std::string bytesOf(const std::string& path)
{
    std::ifstream f(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

Words wordsOf(const std::string& path)
{
    const std::string b = bytesOf(path);
    Words w(b.size() / 2);
    memcpy(w.data(), b.data(), w.size() * 2);
    return w;
}

bool exists(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

/* 7 framework species + 8 test species, module 1 has none. */
constexpr size_t kAllSpecies = 15;

/* ALPHA and GAMMA present (offsets 0 and 1), BETA named but not present;
 * a fresh file state; a scratch working directory. */
class FsmTraceWordTest : public ::testing::Test {
protected:
    FsmTraceWordTest() : sys_({ALPHA, BETA, GAMMA})
    {
        desc_.fsmType = FSM_TYPE_TRIVIAL;
        sys_.registerSpecie(ALPHA, &desc_, 1, KVOS_NO_PTRQ_ID);
        sys_.registerSpecie(GAMMA, &desc_, 1, KVOS_NO_PTRQ_ID);
        mkdir((privateDir() + "/param").c_str(), 0755);
        unlink(paramFile().c_str());
        char tmpl[] = "/tmp/fsm_cwd.XXXXXX";
        cwd_ = mkdtemp(tmpl);
        oldCwd_ = open(".", O_RDONLY | O_DIRECTORY);
        EXPECT_EQ(0, chdir(cwd_.c_str()));
        fsm_traceWordReset();
    }
    ~FsmTraceWordTest() override
    {
        fsm_traceWordReset();
        EXPECT_EQ(0, fchdir(oldCwd_));
        close(oldCwd_);
        unlink((cwd_ + "/system.par").c_str());
        rmdir(cwd_.c_str());
        unlink(paramFile().c_str());
    }

    uint16_t read(SPECIE s, uint16_t initial = 0x5A5A)
    {
        uint16_t w = initial;
        fsm_readTraceWord(s, &w);
        return w;
    }

    FsmSystem sys_;
    SPEC_DESC desc_{};
    std::string cwd_;
    int oldCwd_ = -1;
};

}  // namespace

TEST_F(FsmTraceWordTest, MissingFileSwitchesTheFeatureOffQuietly)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(0x5A5A, read(ALPHA));
    fsm_saveTraceWord(ALPHA, 7);
    // Off for the rest of the process, even once the file appears.
    writeWords(paramFile(), {0xBEEF, 0x1111, 0x2222});
    writeWords(cwd_ + "/system.par", {0xBEEF, 0x1111, 0x2222});
    EXPECT_EQ(0x5A5A, read(ALPHA));
    fsm_saveTraceWord(GAMMA, 9);
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_EQ((Words{0xBEEF, 0x1111, 0x2222}), wordsOf(paramFile()));
    EXPECT_EQ((Words{0xBEEF, 0x1111, 0x2222}), wordsOf(cwd_ + "/system.par"));
}

TEST_F(FsmTraceWordTest, FileWithoutTheMagicIsResetToZeros)
{
    for (const std::string& content : {std::string("garbage!!"), std::string(), std::string("\xEF")}) {
        SCOPED_TRACE(content.size());
        fsm_traceWordReset();
        std::ofstream(paramFile(), std::ios::binary | std::ios::trunc) << content;
        EXPECT_EQ(0, read(GAMMA));
        EXPECT_EQ(0, read(ALPHA));
        Words expected(1 + kAllSpecies, 0);
        expected[0] = 0xBEEF;
        EXPECT_EQ(expected, wordsOf(paramFile()));
    }
}

TEST_F(FsmTraceWordTest, WordsSitAtTheSpeciesIterationOffsets)
{
    writeWords(paramFile(), {0xBEEF, 0x1111, 0x2222, 0x3333});
    EXPECT_EQ(0x1111, read(ALPHA));
    EXPECT_EQ(0x2222, read(GAMMA));
    EXPECT_EQ((Words{0xBEEF, 0x1111, 0x2222, 0x3333}), wordsOf(paramFile()));  // a good file is left alone
}

TEST_F(FsmTraceWordTest, FileErrorsGoToStandardErrorAndLeaveTheWord)
{
    writeWords(paramFile(), {0xBEEF, 0x1111});  // too short for GAMMA
    testing::internal::CaptureStderr();
    EXPECT_EQ(0x5A5A, read(BETA));
    EXPECT_EQ(0x5A5A, read(GAMMA));
    EXPECT_EQ(0x1111, read(ALPHA));
    fsm_saveTraceWord(BETA, 3);
    EXPECT_EQ("fsm_readTraceWord: No speci offset for specie 0x00020001\n"
              "fsm_readTraceWord: read failed for specie GAMMA\n"
              "fsm_saveTraceWord: No specie offset for specie 0x00020001\n",
              testing::internal::GetCapturedStderr());
}

TEST_F(FsmTraceWordTest, SaveAfterAReadWritesTheParameterFile)
{
    writeWords(paramFile(), {0xBEEF, 0x1111, 0x2222});
    writeWords(cwd_ + "/system.par", {0xBEEF, 0, 0});
    EXPECT_EQ(0x2222, read(GAMMA));
    fsm_saveTraceWord(GAMMA, 0x4001);
    EXPECT_EQ(0x4001, read(GAMMA));
    EXPECT_EQ((Words{0xBEEF, 0x1111, 0x4001}), wordsOf(paramFile()));
    EXPECT_EQ((Words{0xBEEF, 0, 0}), wordsOf(cwd_ + "/system.par"));
}

/* A save that finds no open file uses the plain name in the working
 * directory, and later reads share that file. Kept on purpose. */
TEST_F(FsmTraceWordTest, SaveWithoutAReadOpensThePlainNameInTheWorkingDirectory)
{
    writeWords(paramFile(), {0xBEEF, 0x1111, 0x2222});
    writeWords(cwd_ + "/system.par", {0x0102, 0, 0});  // no magic: a save does not look
    fsm_saveTraceWord(ALPHA, 0x4242);
    EXPECT_EQ((Words{0x0102, 0x4242, 0}), wordsOf(cwd_ + "/system.par"));
    EXPECT_EQ((Words{0xBEEF, 0x1111, 0x2222}), wordsOf(paramFile()));
    EXPECT_EQ(0x4242, read(ALPHA));
}

/* A save that cannot open the plain name switches reads off as well. */
TEST_F(FsmTraceWordTest, FailedSaveOpenDisablesReads)
{
    writeWords(paramFile(), {0xBEEF, 0x1111, 0x2222});
    fsm_saveTraceWord(ALPHA, 0x4242);
    EXPECT_FALSE(exists(cwd_ + "/system.par"));  // never created
    EXPECT_EQ(0x5A5A, read(ALPHA));
}

namespace {

thread_local bool tFailSemWait = false;
int (*gRealSemWait)(sem_t*) = nullptr;

int failingSemWait(sem_t* s)
{
    if (tFailSemWait) {
        errno = EDEADLK;
        return -1;
    }
    return gRealSemWait(s);
}

}  // namespace

TEST_F(FsmTraceWordTest, FailedSemaphoreWaitIsReportedAndTheReadGoesOn)
{
    writeWords(paramFile(), {0xBEEF, 0x1111, 0x2222});
    EXPECT_EQ(0x1111, read(ALPHA));  // the semaphore exists from here on
    gRealSemWait = kvos_syscalls().semWait.exchange(failingSemWait);
    tFailSemWait = true;
    testing::internal::CaptureStderr();
    const uint16_t w = read(GAMMA);
    const std::string err = testing::internal::GetCapturedStderr();
    tFailSemWait = false;
    kvos_syscalls().semWait.store(gRealSemWait);
    EXPECT_EQ(0x2222, w);
    EXPECT_EQ("sys_registerFsmSpecier: Semaphore error\n", err);
}

namespace {

std::mutex gFlagsLock;
std::vector<std::pair<SPECIE, uint16_t>> gFlagsAtReset;

int noteFlags(PROC_DATA* proc)
{
    std::lock_guard<std::mutex> g(gFlagsLock);
    if (proc->ProcSELF.Ind == 0) {
        gFlagsAtReset.emplace_back(proc->ProcSELF.Spec, proc->procTestFlags);
    }
    proc->ProcNxtState = 0;
    return 0;
}

int idleJob(PROC_DATA*)
{
    return 0;
}

}  // namespace

TEST(FsmTraceWordResetTest, TaskResetHandsTheStoredWordToTheResetJobs)
{
    initOnce();
    mkdir((privateDir() + "/param").c_str(), 0755);
    // Present species in iteration order: ALPHA, BETA, DELTA.
    writeWords(paramFile(), {0xBEEF, TraceTimers | Trace0, 0, PrintWarnings});
    fsm_traceWordReset();
    TrivialSpecie type(idleJob, noteFlags);
    {
        TaskedSystem sys({{ALPHA, &type, 0, 2}, {BETA, &type, 1, 1}, {DELTA, &type, 1, 1}}, 2);
    }
    std::lock_guard<std::mutex> g(gFlagsLock);
    std::sort(gFlagsAtReset.begin(), gFlagsAtReset.end());
    EXPECT_EQ((std::vector<std::pair<SPECIE, uint16_t>>{
                  {ALPHA, TraceTimers | Trace0}, {BETA, 0}, {DELTA, PrintWarnings}}),
              gFlagsAtReset);
    fsm_traceWordReset();
    unlink(paramFile().c_str());
}
