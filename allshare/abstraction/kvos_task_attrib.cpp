/*
 * Task attribute records. A fresh record is all zeroes: priority 0, empty
 * name, KVOS_SCHED_DEFAULT, stack size 0 (the minimum), segment 0. The
 * scheduler and the segment are stored and returned only.
 */
#include <stdlib.h>
#include <string.h>

#include "abstraction/kvos_task.h"
#include "kvlog/kvlog_assert.h"

KVOS_TASK_ATTR* KVOS_taskAttrCreate(void)
{
    auto* attr = static_cast<KVOS_TASK_ATTR*>(calloc(1, sizeof(KVOS_TASK_ATTR)));
    BOOST_ASSERT_MSG(attr != NULL, "no memory for a task attribute record");
    return attr;
}

void KVOS_taskAttrDestroy(KVOS_TASK_ATTR* attr)
{
    BOOST_ASSERT_MSG(attr != NULL, "null task attribute record");
    free(attr);
}

void KVOS_taskAttrSetPriority(KVOS_TASK_ATTR* attr, KVOS_TASK_PRI priority)
{
    BOOST_ASSERT_MSG(attr != NULL, "null task attribute record");
    attr->priority = priority;
}

KVOS_TASK_PRI KVOS_taskAttrGetPriority(const KVOS_TASK_ATTR* attr)
{
    BOOST_ASSERT_MSG(attr != NULL, "null task attribute record");
    return attr->priority;
}

void KVOS_taskAttrSetName(KVOS_TASK_ATTR* attr, const char* name)
{
    // Longer names are cut, not refused.
    strncpy(attr->taskName, name ? name : "", sizeof(attr->taskName) - 1);
    attr->taskName[sizeof(attr->taskName) - 1] = '\0';
}

const char* KVOS_taskAttrGetName(const KVOS_TASK_ATTR* attr)
{
    BOOST_ASSERT_MSG(attr != NULL, "null task attribute record");
    return attr->taskName;
}

void KVOS_taskAttrSetScheduler(KVOS_TASK_ATTR* attr, KVOS_SCHED_TYPE sched)
{
    BOOST_ASSERT_MSG(attr != NULL, "null task attribute record");
    attr->schedType = sched;
}

KVOS_SCHED_TYPE KVOS_taskAttrGetScheduler(const KVOS_TASK_ATTR* attr)
{
    BOOST_ASSERT_MSG(attr != NULL, "null task attribute record");
    return attr->schedType;
}

void KVOS_taskAttrSetStackSize(KVOS_TASK_ATTR* attr, unsigned stackSize)
{
    BOOST_ASSERT_MSG(attr != NULL, "null task attribute record");
    BOOST_ASSERT_MSG(stackSize % 1024 == 0, "task stack sizes are whole kilobytes");
    attr->stackSize = stackSize;
}

unsigned KVOS_taskAttrGetStackSize(const KVOS_TASK_ATTR* attr)
{
    BOOST_ASSERT_MSG(attr != NULL, "null task attribute record");
    return attr->stackSize;
}

void KVOS_taskAttrSetStackSegment(KVOS_TASK_ATTR* attr, unsigned segment)
{
    BOOST_ASSERT_MSG(attr != NULL, "null task attribute record");
    attr->stackSegment = segment;
}

unsigned KVOS_taskAttrGetStackSegment(const KVOS_TASK_ATTR* attr)
{
    BOOST_ASSERT_MSG(attr != NULL, "null task attribute record");
    return attr->stackSegment;
}
