/* Self-test units of the utility library, entered in the runner's registry. */
#ifndef LIBKVC_UNITTESTS_H
#define LIBKVC_UNITTESTS_H

void unittest_dlist(void);
void unittest_strutil(void);
void unittest_utf8(void);
void unittest_NetAddr_core(void);
void unittest_NetAddrTab(void);

#endif
