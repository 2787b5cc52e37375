/* Self-test units of the network layer, entered in the runner's registry. */
#ifndef KVNET_UNITTESTS_H
#define KVNET_UNITTESTS_H

void unittest_abstraction_sockopts(void);
void unittest_kvnet_connected(void);
void unittest_kvnet_getsourceaddresstosendfrom(void);

#endif
