/*
 * Event sets over epoll.
 *
 * The kernel's epoll instance does the waiting; beside it the set keeps a
 * table of registrations indexed by descriptor, each with a generation
 * number that is new on every Add. The epoll record of a socket carries
 * (generation << 32 | descriptor), never the caller's pointer: a wait
 * collects the kernel's events first and then, under the set's lock, looks
 * each one up in the table. An event whose registration was removed (or
 * removed and added again) after the kernel queued it fails the generation
 * check and is dropped, so a Remove that has returned can never lead to the
 * caller's pointer being handed out afterwards, even by a wait that was
 * already inside epoll_wait. The lock is held only for the table work,
 * never across epoll_wait, so Add, Modify and Remove do not wait for a
 * waiting thread.
 *
 * Wake-ups go through an eventfd registered with a reserved record value;
 * the wait that sees it drains the counter, which merges wakes that arrive
 * before it is collected.
 *
 * Cost: a wait costs epoll_wait (proportional to the ready sockets, not the
 * registered ones) plus one uncontended lock.
 */
#include <errno.h>
#include <stdint.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <new>
#include <vector>

#include "abstraction/kvos_socket.h"
#include "abstraction/kvos_seams.h"
#include "linux/kvos_os.h"
#include "linux/kvos_sock_os.h"

namespace {

constexpr uint64_t kWakeRecord = UINT64_MAX;
constexpr int kBatch = 256; // kernel events collected per epoll_wait

struct Registration {
    uint32_t generation = 0; // 0: free
    unsigned interest = 0;
    void* user = nullptr;
};

uint32_t epollMask(unsigned interest)
{
    uint32_t mask = EPOLLRDHUP;
    if (interest & KVOS_SOCK_EVENT_READ) {
        mask |= EPOLLIN | EPOLLPRI;
    }
    if (interest & KVOS_SOCK_EVENT_WRITE) {
        mask |= EPOLLOUT;
    }
    return mask;
}

unsigned eventBits(uint32_t mask)
{
    unsigned bits = 0;
    if (mask & (EPOLLIN | EPOLLPRI)) {
        bits |= KVOS_SOCK_EVENT_READ;
    }
    if (mask & EPOLLOUT) {
        bits |= KVOS_SOCK_EVENT_WRITE;
    }
    if (mask & (EPOLLHUP | EPOLLRDHUP)) {
        bits |= KVOS_SOCK_EVENT_HUP;
    }
    if (mask & EPOLLERR) {
        bits |= KVOS_SOCK_EVENT_ERR;
    }
    return bits;
}

bool interestOk(unsigned interest)
{
    if ((interest & ~(KVOS_SOCK_EVENT_READ | KVOS_SOCK_EVENT_WRITE)) != 0) {
        errno = EINVAL;
        return false;
    }
    return true;
}

}  // namespace

struct KVOS_SOCK_EVENT_SET_REC {
    int epfd = -1;
    int wakefd = -1;
    std::mutex lock; // guards table and nextGeneration
    std::vector<Registration> table;
    uint32_t nextGeneration = 1;

    ~KVOS_SOCK_EVENT_SET_REC()
    {
        if (epfd >= 0) {
            close(epfd);
        }
        if (wakefd >= 0) {
            close(wakefd);
        }
    }

    Registration* find(int fd)
    {
        if (fd < 0 || static_cast<size_t>(fd) >= table.size() || table[fd].generation == 0) {
            return nullptr;
        }
        return &table[fd];
    }

    uint32_t newGeneration()
    {
        uint32_t g = nextGeneration++;
        if (nextGeneration == 0) {
            nextGeneration = 1;
        }
        return g;
    }
};

KV_RET KVOS_sockEventsCreate(KVOS_SOCK_EVENT_SET* set)
{
    if (set == nullptr) {
        errno = EINVAL;
        return KV_RET_ERROR;
    }
    *set = nullptr;
    auto* s = new (std::nothrow) KVOS_SOCK_EVENT_SET_REC;
    if (s == nullptr) {
        errno = ENOMEM;
        return KV_RET_ERROR;
    }
    s->epfd = epoll_create1(EPOLL_CLOEXEC);
    s->wakefd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    struct epoll_event ev = {};
    ev.events = EPOLLIN;
    ev.data.u64 = kWakeRecord;
    if (s->epfd < 0 || s->wakefd < 0 || epoll_ctl(s->epfd, EPOLL_CTL_ADD, s->wakefd, &ev) != 0) {
        int err = errno;
        delete s;
        errno = err;
        return KV_RET_ERROR;
    }
    *set = s;
    return KV_RET_OK;
}

KV_RET KVOS_sockEventsAdd(KVOS_SOCK_EVENT_SET set, KVNET_SOCK_ID sock, unsigned interest, void* user)
{
    if (set == nullptr || !interestOk(interest)) {
        errno = EINVAL;
        return KV_RET_ERROR;
    }
    if (sock < 0) {
        errno = EBADF;
        return KV_RET_ERROR;
    }
    std::lock_guard<std::mutex> guard(set->lock);
    uint32_t generation = set->newGeneration();
    struct epoll_event ev = {};
    ev.events = epollMask(interest);
    ev.data.u64 = (static_cast<uint64_t>(generation) << 32) | static_cast<uint32_t>(sock);
    // The kernel decides whether sock is registered: a socket closed while
    // registered left the epoll set by itself, and its stale table entry is
    // simply overwritten here.
    if (epoll_ctl(set->epfd, EPOLL_CTL_ADD, sock, &ev) != 0) {
        return KV_RET_ERROR;
    }
    if (static_cast<size_t>(sock) >= set->table.size()) {
        try {
            set->table.resize(std::max(static_cast<size_t>(sock) + 1, set->table.size() * 2));
        } catch (const std::bad_alloc&) {
            epoll_ctl(set->epfd, EPOLL_CTL_DEL, sock, nullptr);
            errno = ENOMEM;
            return KV_RET_ERROR;
        }
    }
    set->table[sock] = Registration{generation, interest, user};
    return KV_RET_OK;
}

KV_RET KVOS_sockEventsModify(KVOS_SOCK_EVENT_SET set, KVNET_SOCK_ID sock, unsigned interest, void* user)
{
    if (set == nullptr || !interestOk(interest)) {
        errno = EINVAL;
        return KV_RET_ERROR;
    }
    std::lock_guard<std::mutex> guard(set->lock);
    Registration* reg = set->find(sock);
    if (reg == nullptr) {
        errno = ENOENT;
        return KV_RET_ERROR;
    }
    struct epoll_event ev = {};
    ev.events = epollMask(interest);
    ev.data.u64 = (static_cast<uint64_t>(reg->generation) << 32) | static_cast<uint32_t>(sock);
    if (epoll_ctl(set->epfd, EPOLL_CTL_MOD, sock, &ev) != 0) {
        if (errno == ENOENT || errno == EBADF) {
            *reg = Registration{}; // closed while registered
            errno = ENOENT;
        }
        return KV_RET_ERROR;
    }
    reg->interest = interest;
    reg->user = user;
    return KV_RET_OK;
}

KV_RET KVOS_sockEventsRemove(KVOS_SOCK_EVENT_SET set, KVNET_SOCK_ID sock)
{
    if (set == nullptr) {
        errno = EINVAL;
        return KV_RET_ERROR;
    }
    std::lock_guard<std::mutex> guard(set->lock);
    Registration* reg = set->find(sock);
    if (reg == nullptr) {
        errno = ENOENT;
        return KV_RET_ERROR;
    }
    *reg = Registration{};
    // A socket closed while registered is gone from the kernel's set already.
    if (epoll_ctl(set->epfd, EPOLL_CTL_DEL, sock, nullptr) != 0) {
        errno = ENOENT;
        return KV_RET_ERROR;
    }
    return KV_RET_OK;
}

KV_RET KVOS_sockEventsWait(KVOS_SOCK_EVENT_SET set, KVOS_SOCK_EVENT* events, int max, int timeoutMs)
{
    if (set == nullptr || events == nullptr || max < 1) {
        errno = EINVAL;
        return KV_RET_ERROR;
    }
    struct epoll_event ready[kBatch];
    kvos_sock::Deadline deadline(timeoutMs);
    for (;;) {
        int n = kvos_syscall_table.epollWait.load(std::memory_order_relaxed)(set->epfd, ready, std::min(max, kBatch), deadline.remainingMs());
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return KV_RET_ERROR;
        }
        if (n == 0) {
            return 0;
        }
        int out = 0;
        {
            std::lock_guard<std::mutex> guard(set->lock);
            for (int i = 0; i < n; ++i) {
                uint64_t record = ready[i].data.u64;
                if (record == kWakeRecord) {
                    continue;
                }
                int fd = static_cast<int>(record & 0xFFFFFFFFu);
                Registration* reg = set->find(fd);
                if (reg == nullptr || reg->generation != static_cast<uint32_t>(record >> 32)) {
                    continue; // removed after the kernel queued the event
                }
                events[out].user = reg->user;
                events[out].events = eventBits(ready[i].events);
                ++out;
            }
        }
        for (int i = 0; i < n; ++i) {
            if (ready[i].data.u64 == kWakeRecord) {
                uint64_t count;
                // Drains every wake so far; EAGAIN if another waiter took them.
                if (read(set->wakefd, &count, sizeof(count)) == static_cast<ssize_t>(sizeof(count))) {
                    events[out].user = nullptr;
                    events[out].events = KVOS_SOCK_EVENT_WAKE;
                    ++out;
                }
            }
        }
        if (out > 0) {
            return out;
        }
        if (deadline.remainingMs() == 0) {
            return 0;
        }
    }
}

KV_RET KVOS_sockEventsWake(KVOS_SOCK_EVENT_SET set)
{
    if (set == nullptr) {
        errno = EINVAL;
        return KV_RET_ERROR;
    }
    uint64_t one = 1;
    for (;;) {
        if (write(set->wakefd, &one, sizeof(one)) == static_cast<ssize_t>(sizeof(one))) {
            return KV_RET_OK;
        }
        if (errno != EINTR) {
            // EAGAIN: the counter is at its maximum, so a wake is pending anyway.
            return errno == EAGAIN ? KV_RET_OK : KV_RET_ERROR;
        }
    }
}

void KVOS_sockEventsDestroy(KVOS_SOCK_EVENT_SET set)
{
    delete set;
}
