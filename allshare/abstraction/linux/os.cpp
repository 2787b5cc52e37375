/*
 * Linux half of the per-thread error record and its texts, mutexes,
 * semaphores, thread and process queries, and the system-call seams (see
 * abstraction/kvos_seams.h).
 */
#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "abstraction/kvos.h"
#include "abstraction/kvos_seams.h"
#include "linux/kvos_os.h"

/* Constant-initialised, so the hot paths read it without a guard. */
KVOS_SYSCALLS kvos_syscall_table{{sem_wait},           {sem_timedwait},     {sem_trywait},
                                 {sem_getvalue},       {pthread_mutex_lock}, {pthread_cond_wait},
                                 {pthread_cond_timedwait}, {pthread_create},  {malloc},
                                 {epoll_wait}};

namespace {

std::atomic<kvos_os::ErrnoHandler*> gHandlers{nullptr};

}  // namespace

KVOS_SYSCALLS& kvos_syscalls()
{
    return kvos_syscall_table;
}

/* The error record is the thread's errno; the origin is not stored. */
void KVOS_setErrno(long err, KVOS_ERR_ORIGIN /*origin*/)
{
    errno = static_cast<int>(err);
}

long KVOS_getErrno(void)
{
    return errno;
}

KVOS_ERR_ORIGIN KVOS_getErrnoOrigin(void)
{
    return KVOS_ERR_ORIGIN_LINUX;
}

std::string KVOS_lastError(void)
{
    int err = errno;  // read first: looking up the handler must not change it
    KVOS_ERR_ORIGIN origin = KVOS_getErrnoOrigin();
    for (kvos_os::ErrnoHandler* h = gHandlers.load(); h; h = h->next) {
        if (h->origin == origin) {
            std::string text = h->text(err);
            errno = err;
            return text;
        }
    }
    return "Unclaimed error";
}

namespace kvos_os {

void addErrnoHandler(ErrnoHandler* h)
{
    h->next = gHandlers.load();
    gHandlers.store(h);
}

bool isRoot()
{
    return geteuid() == 0;
}

std::string errorText(int err)
{
    char buf[1024];
    // GNU strerror_r: returns a pointer to the text (not always buf).
    return std::string(strerror_r(err, buf, sizeof(buf)));
}

int mutexInit(pthread_mutex_t* m, bool recursive)
{
    pthread_mutexattr_t attr;
    int err = pthread_mutexattr_init(&attr);
    if (err == 0) {
        err = pthread_mutexattr_settype(&attr, recursive ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_ERRORCHECK);
    }
    if (err == 0 && isRoot()) {
        err = pthread_mutexattr_setprotocol(&attr, PTHREAD_PRIO_INHERIT);
    }
    if (err == 0) {
        err = pthread_mutex_init(m, &attr);
    }
    pthread_mutexattr_destroy(&attr);
    return err;
}

int mutexDestroy(pthread_mutex_t* m)
{
    return pthread_mutex_destroy(m);
}

namespace {
/* The sem_* calls answer -1 and set errno; these answer the error. */
int semResult(int rc)
{
    return rc == 0 ? 0 : errno;
}
}  // namespace

int semInit(sem_t* s, unsigned tokens)
{
    return semResult(sem_init(s, 0, tokens));
}

int semDestroy(sem_t* s)
{
    return semResult(sem_destroy(s));
}

int semWait(sem_t* s)
{
    int err;
    do {
        err = semResult(kvos_syscalls().semWait.load()(s));
    } while (err == EINTR);
    return err;
}

int semTimedWait(sem_t* s, unsigned ms)
{
    // sem_timedwait takes an absolute deadline on the real-time clock.
    struct timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += ms / 1000;
    deadline.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    int err;
    do {
        err = semResult(kvos_syscalls().semTimedWait.load()(s, &deadline));
    } while (err == EINTR);
    return err;
}

int semTryWait(sem_t* s)
{
    return semResult(kvos_syscalls().semTryWait.load()(s));
}

int semPost(sem_t* s)
{
    return semResult(sem_post(s));
}

int semGetValue(sem_t* s, int* value)
{
    return semResult(kvos_syscalls().semGetValue.load()(s, value));
}

int processId()
{
    return static_cast<int>(getpid());
}

unsigned createProcdataKey()
{
    pthread_key_t key;
    pthread_key_create(&key, nullptr);
    return key;
}

int currentLwp()
{
    return static_cast<int>(syscall(SYS_gettid));
}

void setThreadName(pthread_t tid, const char* name)
{
    char shortName[16];
    strncpy(shortName, name ? name : "", sizeof(shortName) - 1);
    shortName[sizeof(shortName) - 1] = '\0';
    pthread_setname_np(tid, shortName);
}

void threadPolicy(int lwp, const char** text, int* priority)
{
    struct sched_param param;
    memset(&param, 0, sizeof(param));
    int policy = sched_getscheduler(lwp);
    sched_getparam(lwp, &param);
    switch (policy) {
    case SCHED_OTHER:
        *text = "OT";
        errno = 0;
        *priority = getpriority(PRIO_PROCESS, static_cast<id_t>(lwp));
        break;
    case SCHED_FIFO:
        *text = "FF";
        *priority = param.sched_priority;
        break;
    case SCHED_RR:
        *text = "RR";
        *priority = param.sched_priority;
        break;
    default:
        *text = "";
        *priority = 0;
        break;
    }
}

}  // namespace kvos_os
