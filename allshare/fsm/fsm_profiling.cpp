/*
 * Profiling: the minimum that the task loop links against. The timing
 * table itself is built in this file by the profiling work; until then
 * profiling can never be enabled, so no sample is taken.
 */
#include "fsm/fsm_glob.h"
#include "fsm/fsm_profiling.h"

Profiling::Profiling() : profiling(false), clockfn(nullptr), lock{nullptr} {}

Profiling::~Profiling() = default;

bool Profiling::profiling_enabled() const
{
    return profiling.load();
}

bool fsmprofiling_enabled(GLOB_DATA* glob)
{
    return glob->profiling.profiling_enabled();
}

struct timespec fsmprofiling_clock(GLOB_DATA* glob)
{
    return glob->profiling.clockfn != nullptr ? glob->profiling.clockfn() : timespec{0, 0};
}

void fsmprofiling_update(GLOB_DATA*, uint32_t, uint32_t, struct timespec) {}
