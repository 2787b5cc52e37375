/* Self-test unit of the state-machine framework, entered in the runner's
 * registry. */
#ifndef FSM_UNITTESTS_H
#define FSM_UNITTESTS_H

void unittest_fsm(void);
void unittest_profiling(void);

#endif
