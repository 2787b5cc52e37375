/*
 * Timer system: the minimum that the rest of the framework links against
 * (creation and deletion of the process's timer system and the system
 * timer's initial state). The timer wheel itself is built in this file by
 * the timer work.
 */
#include <stdlib.h>

#include "fsm/fsm_glob.h"
#include "fsm/fsm_timer.h"

struct TIMER_SYSTEM_ {
    FSMADDR owner;
    uint32_t ticks;
};

TIMER_SYSTEM* timerSystemCreate(FSMADDR owner, const char* /*name*/)
{
    auto* ts = new TIMER_SYSTEM;
    ts->owner = owner;
    ts->ticks = 0;
    return ts;
}

void timerSystemDelete(TIMER_SYSTEM* ts)
{
    delete ts;
}

void sys_initSystemTimer(void)
{
    GLOB_DATA* glob = sys_getGlob();
    if (glob->Time != nullptr) {
        glob->Time->timeOn = false;
    }
}

void sys_stopTickSource(void)
{
    // No tick source exists yet.
}
