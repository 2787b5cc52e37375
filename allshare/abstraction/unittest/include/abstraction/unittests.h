/* Self-test units of the OS abstraction, entered in the runner's registry. */
#ifndef ABSTRACTION_UNITTESTS_H
#define ABSTRACTION_UNITTESTS_H

void unittest_mutex(void);
void unittest_kvos_ptrq(void);
void unittest_abstraction_makeconnection(void);
void unittest_abstraction_sockevents(void);

#endif
