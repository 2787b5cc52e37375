/*
 * A first look at the state-machine framework: two machines on two FSM
 * tasks play ping-pong.
 *
 *   SERVER (task 1) serves the ball to RECEIVER (task 2) and, right after,
 *   tells it that play may start. The receiver is still warming up when
 *   the ball arrives, so its state table *saves* the ball. The "ready"
 *   message moves it to the playing state, and the framework offers the
 *   saved ball again, in that state. Then the ball goes back and forth, in
 *   one and the same buffer, until its count runs out.
 *
 * Read it top to bottom: names, state tables, jobs, configuration, main.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <iostream>
#include <string>

#include "abstraction/kvos.h"
#include "abstraction/kvos_semaphore.h"
#include "fsm/fsm.h"

namespace {

/* 1. Names. The product lists its species; their positions are the specie
 *    indices in module FSMMOD_NONFSM. Message names only need to be
 *    distinct numbers (module 4 is unused by the framework). */
const char* const kSpecies[] = {"SERVER", "RECEIVER", nullptr};
constexpr SPECIE SERVER = FSM_MAKE_ID(FSMMOD_NONFSM, 0);
constexpr SPECIE RECEIVER = FSM_MAKE_ID(FSMMOD_NONFSM, 1);
constexpr MSGNAME BALL = FSM_MAKE_ID(4, 0);
constexpr MSGNAME READY = FSM_MAKE_ID(4, 1);

/* Per-individual data. The first word belongs to the framework: it holds
 * the individual's queue of saved messages. */
struct Player {
    NORMBUF* savedByFramework;
    int hits;
};
Player gServer, gReceiver;
KVOS_SEMAPHORE gGameOver;

/* 2. State tables: per state, the messages it expects, the state to go to
 *    and the job (task number) to run. SAVE_MSG makes the entries after it
 *    "save for later"; ELSE_MSG matches anything and ends the table. */
enum ReceiverState : STATE { WARMING_UP = 0, PLAYING = 1 };
enum Job : TASK { HIT = 0, START = 1 };

const EXP_MSG kServerPlaying[] = {{ELSE_MSG, 0, HIT}};
const EXP_MSG* const kServerStates[] = {kServerPlaying};

const EXP_MSG kWarmingUp[] = {{READY, PLAYING, START}, {SAVE_MSG, 0, 0}, {BALL, 0, 0}, {ELSE_MSG, WARMING_UP, HIT}};
const EXP_MSG kPlaying[] = {{ELSE_MSG, PLAYING, HIT}};
const EXP_MSG* const kReceiverStates[] = {kWarmingUp, kPlaying};
const STATE_NAME kReceiverStateNames[] = {{nullptr, "WARMING_UP"}, {nullptr, "PLAYING"}, {nullptr, ""}};

std::string who(const FSMADDR& a)
{
    return fsm_getSpecName(a.Spec);
}

/* 3. Jobs. A job gets the machine's context: who it is, who sent the
 *    message, the message itself. */
int hit(PROC_DATA* p)
{
    uint32_t count;
    memcpy(&count, fsm_msgBody(p->pProcMsg), sizeof(count));
    auto* me = static_cast<Player*>(p->pProcIndData);
    ++me->hits;
    printf("%-8s hits the ball (%u left)%s\n", who(p->ProcSELF).c_str(), count,
           p->ProcRecType == 'I' ? "  <- the saved ball, offered again" : "");
    if (count == 0) {
        KVOS_semaphorePost(&gGameOver);
        return 0;  // the framework releases the buffer after the job
    }
    --count;
    memcpy(fsm_msgBody(p->pProcMsg), &count, sizeof(count));
    // Sending the message being handled forwards it: the same buffer
    // travels back, and the framework no longer releases it here.
    fsm_sendMsg(p, BALL, p->ProcSENDER, p->pProcMsg);
    return 0;
}

int receiverJobs(PROC_DATA* p)
{
    if (p->ProcTask == START) {
        printf("RECEIVER is ready: %s -> %s\n", fsm_getStateName(p->specDesc, p->ProcState),
               fsm_getStateName(p->specDesc, p->ProcNxtState));
        return 0;
    }
    return hit(p);
}

/* Reset jobs run once per individual before any message flows; they hand
 * the framework the individual's data. The server serves from here. */
int serverReset(PROC_DATA* p)
{
    p->pProcIndData = &gServer;
    NORMBUF* ball = fsm_getBuf(p, sizeof(uint32_t));
    const uint32_t rally = 6;
    memcpy(fsm_msgBody(ball), &rally, sizeof(rally));
    fsm_sendMsg(p, BALL, FSMADDR{RECEIVER, 0}, ball);
    fsm_sendMsg(p, READY, FSMADDR{RECEIVER, 0}, nullptr);  // a message without a body
    printf("SERVER   serves, then says READY\n");
    return 0;
}

int receiverReset(PROC_DATA* p)
{
    p->pProcIndData = &gReceiver;
    p->ProcNxtState = WARMING_UP;
    return 0;
}

SPEC_DESC gServerDesc{FSM_TYPE_STANDARD, kServerStates, 0, hit, serverReset, nullptr, nullptr};
SPEC_DESC gReceiverDesc{FSM_TYPE_STANDARD, kReceiverStates, PLAYING, receiverJobs, receiverReset,
                        kReceiverStateNames, nullptr};

}  // namespace

int main()
{
    // The OS abstraction first. A product installs its own path map; the
    // example keeps everything in a temporary directory.
    char dir[] = "/tmp/example_fsm.XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        return 1;
    }
    kvos_set_path_map(KVOS_addPathMap(nullptr, PATH_TYPE_TMP, dir));
    KVOS_init();
    KVOS_semaphoreCreate(&gGameOver, "gameOver", 0);

    /* 4. Configuration: which species exist, how many individuals each has
     *    and which FSM task runs them; and the tasks with their queues. */
    FSMSPECCONFIG species[] = {
        {SERVER, &gServerDesc, 1, 1},
        {RECEIVER, &gReceiverDesc, 2, 1},
        {NO_SPECIE, nullptr, 0, 0},
    };
    FSMPROCCONFIG tasks[] = {
        {1, "serverQ", 16, nullptr},
        {2, "receiverQ", 16, nullptr},
    };
    fsm_setProductSpecieNames(kSpecies);
    sys_initFSMSystem(species);
    fsm_procSetup(tasks, 2, species);  // returns once both tasks run

    KVOS_semaphoreWait(&gGameOver);
    printf("Game over: SERVER hit %d, RECEIVER hit %d\n", gServer.hits, gReceiver.hits);

    fsm_procShutdown();
    // Every buffer came back: each specie's Buffer-count is 0.
    fsm_streamPoolStats(std::cout);
    FSM_SPECIE_BUFFER_STATS server{}, receiver{};
    fsm_getPoolStats(SERVER, &server);
    fsm_getPoolStats(RECEIVER, &receiver);
    const bool clean = server.currentBufferCount == 0 && receiver.currentBufferCount == 0 &&
                       gServer.hits + gReceiver.hits == 7;

    KVOS_semaphoreDelete(&gGameOver);
    // The FSM tasks are gone; KVOS's own service tasks end with the process.
    std::string cleanup = std::string("rm -rf ") + dir;
    return clean && system(cleanup.c_str()) == 0 ? 0 : 1;
}
