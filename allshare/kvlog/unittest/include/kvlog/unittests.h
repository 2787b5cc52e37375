/* Self-test units of the logging subsystem, entered in the runner's registry. */
#ifndef KVLOG_UNITTESTS_H
#define KVLOG_UNITTESTS_H

void unittest_kvlog(void);

#endif
