/**
 * @file
 * The state-machine framework: everything a specie's implementation uses. */
#ifndef FSM_FSM_H
#define FSM_FSM_H

#include "fsm/fsm_buf.h"
#include "fsm/fsm_glob.h"
#include "fsm/fsm_msg.h"
#include "fsm/fsm_proc.h"
#include "fsm/fsm_profiling.h"
#include "fsm/fsm_timer.h"
#include "fsm/fsm_types.h"

#pragma GCC visibility push(default)

#pragma GCC visibility pop
#endif
