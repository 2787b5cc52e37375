/*
 * Trace words kept in "system.par": the minimum that task set-up links
 * against. Reading is built here by the trace-word work; until then no file
 * is used and the word is left as it was.
 */
#include "fsm/fsm_profiling.h"

void fsm_readTraceWord(SPECIE /*specie*/, uint16_t* /*word*/) {}
