// How a service writes self-test checks without the registry: open a unit,
// name a test, check, and read the failed-check count.
//
//   build/bin/example_runner; echo "failed checks: $?"
#include "libkvc/dlist.h"
#include "libkvc/strutil.h"
#include "unittest/unittest.h"

#include <cstring>

namespace {

struct Job {
    int priority;
    Job* next;
    Job* prev;
};

int byPriority(const void* a, const void* b)
{
    return static_cast<const Job*>(a)->priority - static_cast<const Job*>(b)->priority;
}

} // namespace

int main()
{
    unittest_init("example", UNITTEST_MODE_VERBOSE);

    unittest_context("job queue");
    DList queue;
    Job sample{};
    DList_makeDList(&queue, &sample, &sample.next, &sample.prev, byPriority);
    Job jobs[] = {{3, nullptr, nullptr}, {1, nullptr, nullptr}, {2, nullptr, nullptr}};
    for (Job& j : jobs) {
        DList_insertSorted(&queue, &j);
    }
    unittest_assert(DList_getFirst(&queue) == &jobs[1]);
    unittest_assert(DList_getCount(&queue) == 3);

    unittest_context("bounded copy");
    char name[8];
    kvclib_strcpy(name, "a-long-service-name", sizeof name);
    unittest_assert(std::strlen(name) == sizeof name - 1);

    return static_cast<int>(unittest_errors());
}
