/*
 * Trace words kept in the binary parameter file "system.par": the magic
 * 0xBEEF, then one native-order 16-bit word per present specie, at
 * 2 * (offset + 1) where offset is the specie's position in iteration
 * order (fsm_specieOffset).
 *
 * The file is optional. The first call that cannot open it switches the
 * feature off for the rest of the process, quietly. Every other file error
 * is written to standard error and leaves the word as it was.
 *
 * Reading and saving differ on purpose, and callers rely on both sides:
 *  - a read opens the file under the parameter path (KV_getPath,
 *    PATH_TYPE_PARAM), serialised by the semaphore "fsmTrace", and resets a
 *    file whose magic is wrong to the magic and one zero word per specie of
 *    every module;
 *  - a save that finds no open file opens the plain name "system.par"
 *    (relative to the working directory), without the semaphore and
 *    without looking at the magic.
 * Both share the one open file, so after a read has opened it a save
 * writes to the file under the parameter path.
 */
#include <stdio.h>

#include <atomic>

#include "abstraction/kvos.h"
#include "abstraction/kvos_mutex.h"
#include "abstraction/kvos_semaphore.h"
#include "fsm/fsm_glob.h"
#include "fsm/fsm_profiling.h"
#include "fsm/fsm_profiling_seams.h"

namespace {

constexpr uint16_t kMagic = 0xBEEF;
constexpr uint32_t kNoOffset = 0xFFFFFFFFu;
constexpr int kPathLength = 128;
const char kFileName[] = "system.par";

std::atomic<FILE*> sFile{nullptr};
std::atomic<bool> sUnavailable{false};

/* Created once, under the quick lock; never deleted. */
KVOS_SEMAPHORE sSem{nullptr};
bool sSemCreated = false;

/* Installs a freshly opened file unless another thread was quicker. */
FILE* adopt(FILE* f)
{
    FILE* expected = nullptr;
    if (sFile.compare_exchange_strong(expected, f)) {
        return f;
    }
    fclose(f);
    return expected;
}

/* Magic, then one zero word per specie of every module, described or not,
 * so that the file is never shorter than the positions used. */
void initialise(FILE* f)
{
    GLOB_DATA* glob = sys_getGlob();
    uint32_t words = 0;
    for (const FSMMOD_SPEC_D& mod : glob->aGlobModSpecDesc) {
        words += mod.iSpecCount;
    }
    const uint16_t zero = 0;
    fseek(f, 0, SEEK_SET);
    fwrite(&kMagic, sizeof(kMagic), 1, f);
    for (uint32_t i = 0; i < words; ++i) {
        fwrite(&zero, sizeof(zero), 1, f);
    }
    fflush(f);
}

/* The open file, opening it under the parameter path if needed; null when
 * the file is unavailable (now marked so). */
FILE* openForRead()
{
    if (FILE* f = sFile.load()) {
        return f;
    }
    char path[kPathLength];
    FILE* f = nullptr;
    if (KV_getPath(path, kPathLength, kFileName, PATH_TYPE_PARAM) != nullptr) {
        f = fopen(path, "r+b");  // never created here
    }
    if (f == nullptr) {
        sUnavailable.store(true);
        return nullptr;
    }
    uint16_t magic = 0;
    if (fread(&magic, sizeof(magic), 1, f) != 1 || magic != kMagic) {
        initialise(f);
    }
    return adopt(f);
}

}  // namespace

void fsm_readTraceWord(SPECIE specie, uint16_t* word)
{
    if (sUnavailable.load()) {
        return;
    }
    const int key = KVOS_lockQuick();
    if (!sSemCreated) {
        if (KVOS_semaphoreCreate(&sSem, "fsmTrace", 1) != 1) {
            KVOS_unlockQuick(key);
            fprintf(stderr, "sys_registerFsmSpecies: Semaphore creation failure\n");
            return;
        }
        sSemCreated = true;
    }
    KVOS_unlockQuick(key);

    if (KVOS_semaphoreWait(&sSem) != 1) {
        fprintf(stderr, "sys_registerFsmSpecier: Semaphore error\n");
    }
    if (FILE* f = openForRead()) {
        const uint32_t k = fsm_specieOffset(specie);
        if (k == kNoOffset) {
            fprintf(stderr, "fsm_readTraceWord: No speci offset for specie 0x%08x\n", specie);
        } else {
            const long offset = 2L * (static_cast<long>(k) + 1);
            uint16_t value = 0;
            if (fseek(f, offset, SEEK_SET) != 0) {
                fprintf(stderr, "fsm_readTraceWord: seek error: %ld\n", offset);
            } else if (fread(&value, sizeof(value), 1, f) != 1) {
                fprintf(stderr, "fsm_readTraceWord: read failed for specie %s\n", fsm_getSpecName(specie));
            } else {
                *word = value;
            }
        }
    }
    KVOS_semaphorePost(&sSem);
}

void fsm_saveTraceWord(SPECIE specie, uint16_t word)
{
    if (sUnavailable.load()) {
        return;
    }
    FILE* f = sFile.load();
    if (f == nullptr) {
        f = fopen(kFileName, "r+b");
        if (f == nullptr) {
            sUnavailable.store(true);
            return;
        }
        f = adopt(f);
    }
    const uint32_t k = fsm_specieOffset(specie);
    if (k == kNoOffset) {
        fprintf(stderr, "fsm_saveTraceWord: No specie offset for specie 0x%08x\n", specie);
        return;
    }
    const long offset = 2L * (static_cast<long>(k) + 1);
    if (fseek(f, offset, SEEK_SET) != 0) {
        fprintf(stderr, "fsm_saveTraceWord: seek error: %ld\n", offset);
        return;
    }
    if (fwrite(&word, sizeof(word), 1, f) != 1 || fflush(f) != 0) {
        fprintf(stderr, "fsm_saveTraceWord: write failed for specie %s\n", fsm_getSpecName(specie));
    }
}

void fsm_traceWordReset(void)
{
    if (FILE* f = sFile.exchange(nullptr)) {
        fclose(f);
    }
    sUnavailable.store(false);
}
