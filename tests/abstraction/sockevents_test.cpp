/* KVOS event sets on real loopback sockets: registration results, level-
 * triggered reporting, HUP and ERR, wakes, batches smaller than the ready
 * count, sockets closed while registered, and removal from another thread
 * while a wait runs (deterministically through the epoll seam, and as a
 * stress run for TSan). */
#include <sys/socket.h>

#include <chrono>
#include <set>
#include <vector>

#include "loopback.h"

namespace {

using kvos_test::Pair;
using kvos_test::SeamScope;

class SockEvents : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(KVOS_sockEventsCreate(&set_), KV_RET_OK); }
    void TearDown() override { KVOS_sockEventsDestroy(set_); }
    KV_RET wait(int timeoutMs) { return KVOS_sockEventsWait(set_, ev_, 8, timeoutMs); }
    KVOS_SOCK_EVENT_SET set_ = nullptr;
    KVOS_SOCK_EVENT ev_[8];
};

TEST_F(SockEvents, RegistrationResults)
{
    Pair p;
    int tag;
    struct Case {
        const char* what;
        KV_RET (*call)(KVOS_SOCK_EVENT_SET, KVNET_SOCK_ID, void*);
        bool useSet;
        KV_RET result;
        int err;
    };
    // Order matters: each case sees the registrations of the ones before.
    const Case cases[] = {
        {"modify before add", [](KVOS_SOCK_EVENT_SET s, KVNET_SOCK_ID k, void* u) { return KVOS_sockEventsModify(s, k, KVOS_SOCK_EVENT_READ, u); }, true, KV_RET_ERROR, ENOENT},
        {"remove before add", [](KVOS_SOCK_EVENT_SET s, KVNET_SOCK_ID k, void*) { return KVOS_sockEventsRemove(s, k); }, true, KV_RET_ERROR, ENOENT},
        {"unknown interest bits", [](KVOS_SOCK_EVENT_SET s, KVNET_SOCK_ID k, void* u) { return KVOS_sockEventsAdd(s, k, KVOS_SOCK_EVENT_HUP, u); }, true, KV_RET_ERROR, EINVAL},
        {"null set", [](KVOS_SOCK_EVENT_SET s, KVNET_SOCK_ID k, void* u) { return KVOS_sockEventsAdd(s, k, 0, u); }, false, KV_RET_ERROR, EINVAL},
        {"add", [](KVOS_SOCK_EVENT_SET s, KVNET_SOCK_ID k, void* u) { return KVOS_sockEventsAdd(s, k, KVOS_SOCK_EVENT_READ, u); }, true, KV_RET_OK, 0},
        {"add again", [](KVOS_SOCK_EVENT_SET s, KVNET_SOCK_ID k, void* u) { return KVOS_sockEventsAdd(s, k, KVOS_SOCK_EVENT_READ, u); }, true, KV_RET_ERROR, EEXIST},
        {"modify", [](KVOS_SOCK_EVENT_SET s, KVNET_SOCK_ID k, void* u) { return KVOS_sockEventsModify(s, k, KVOS_SOCK_EVENT_READ | KVOS_SOCK_EVENT_WRITE, u); }, true, KV_RET_OK, 0},
        {"remove", [](KVOS_SOCK_EVENT_SET s, KVNET_SOCK_ID k, void*) { return KVOS_sockEventsRemove(s, k); }, true, KV_RET_OK, 0},
        {"remove again", [](KVOS_SOCK_EVENT_SET s, KVNET_SOCK_ID k, void*) { return KVOS_sockEventsRemove(s, k); }, true, KV_RET_ERROR, ENOENT},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        errno = 0;
        EXPECT_EQ(c.call(c.useSet ? set_ : nullptr, p.server, &tag), c.result);
        EXPECT_EQ(errno, c.err);
    }
    EXPECT_EQ(KVOS_sockEventsAdd(set_, -1, KVOS_SOCK_EVENT_READ, nullptr), KV_RET_ERROR);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(KVOS_sockEventsWait(set_, ev_, 0, 0), KV_RET_ERROR);
    EXPECT_EQ(KVOS_sockEventsWait(set_, nullptr, 1, 0), KV_RET_ERROR);
    EXPECT_EQ(KVOS_sockEventsWait(nullptr, ev_, 1, 0), KV_RET_ERROR);
    EXPECT_EQ(KVOS_sockEventsWake(nullptr), KV_RET_ERROR);
    KVOS_sockEventsDestroy(nullptr);
}

TEST_F(SockEvents, TimeoutReadableWritableHupAndErr)
{
    Pair p;
    int tag;
    ASSERT_EQ(KVOS_sockEventsAdd(set_, p.server, KVOS_SOCK_EVENT_READ, &tag), KV_RET_OK);
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(wait(80), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(80));

    ASSERT_EQ(KVOS_sockSend(p.client, "ab", 2, 1000, nullptr), 2);
    ASSERT_EQ(wait(1000), 1);
    EXPECT_EQ(ev_[0].user, &tag);
    EXPECT_EQ(ev_[0].events, KVOS_SOCK_EVENT_READ);
    ASSERT_EQ(wait(0), 1) << "level-triggered: reported until read";

    ASSERT_EQ(KVOS_sockEventsModify(set_, p.server, 0, &tag), KV_RET_OK);
    EXPECT_EQ(wait(0), 0) << "no interest, nothing reported";
    ASSERT_EQ(KVOS_sockEventsModify(set_, p.server, KVOS_SOCK_EVENT_WRITE, &tag), KV_RET_OK);
    ASSERT_EQ(wait(0), 1);
    EXPECT_EQ(ev_[0].events, KVOS_SOCK_EVENT_WRITE);

    // A reset peer: HUP and ERR whatever the interest.
    ASSERT_EQ(KVOS_sockEventsModify(set_, p.server, 0, &tag), KV_RET_OK);
    struct linger hard = {1, 0};
    setsockopt(p.client, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
    KVOS_sockClose(p.client);
    p.client = KVNET_SOCK_ID_UNDEF;
    ASSERT_EQ(wait(1000), 1);
    EXPECT_EQ(ev_[0].events, KVOS_SOCK_EVENT_HUP | KVOS_SOCK_EVENT_ERR);
}

TEST_F(SockEvents, OrderlyCloseIsReadableAndHup)
{
    Pair p;
    int tag;
    ASSERT_EQ(KVOS_sockEventsAdd(set_, p.server, KVOS_SOCK_EVENT_READ, &tag), KV_RET_OK);
    ASSERT_EQ(KVOS_sockShutdownSend(p.client), KV_RET_OK);
    ASSERT_EQ(wait(1000), 1);
    EXPECT_EQ(ev_[0].events, KVOS_SOCK_EVENT_READ | KVOS_SOCK_EVENT_HUP);
    char c;
    EXPECT_EQ(KVOS_sockRecv(p.server, &c, 1, 0), 0);
}

TEST_F(SockEvents, WakesMergeAndComeFromOtherThreads)
{
    EXPECT_EQ(KVOS_sockEventsWake(set_), KV_RET_OK);
    EXPECT_EQ(KVOS_sockEventsWake(set_), KV_RET_OK);
    ASSERT_EQ(wait(0), 1);
    EXPECT_EQ(ev_[0].events, KVOS_SOCK_EVENT_WAKE);
    EXPECT_EQ(ev_[0].user, nullptr);
    EXPECT_EQ(wait(0), 0);

    std::thread waker([this] {
        KVOS_msleep(50);
        KVOS_sockEventsWake(set_);
    });
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(wait(-1), 1);
    EXPECT_EQ(ev_[0].events, KVOS_SOCK_EVENT_WAKE);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5));
    waker.join();
}

TEST_F(SockEvents, SmallBatchesTakeTurns)
{
    Pair a, b, c;
    Pair* pairs[] = {&a, &b, &c};
    for (Pair* p : pairs) {
        ASSERT_EQ(KVOS_sockEventsAdd(set_, p->server, KVOS_SOCK_EVENT_READ, p), KV_RET_OK);
        ASSERT_EQ(KVOS_sockSend(p->client, "x", 1, 1000, nullptr), 1);
    }
    std::set<void*> seen;
    KVOS_msleep(20);
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(KVOS_sockEventsWait(set_, ev_, 1, 1000), 1);
        seen.insert(ev_[0].user);
    }
    // epoll hands out ready entries round-robin: three calls of one see all.
    EXPECT_EQ(seen.size(), 3u);
}

TEST_F(SockEvents, SocketClosedWhileRegisteredLeavesTheSet)
{
    KVNET_SOCK_ID s = KVOS_sockCreate(NET_ADDR_TYPE_IPV4, NET_PROTO_UDP);
    int first, second;
    ASSERT_EQ(KVOS_sockEventsAdd(set_, s, KVOS_SOCK_EVENT_WRITE, &first), KV_RET_OK);
    KVOS_sockClose(s);
    EXPECT_EQ(wait(0), 0);
    // The number comes back for the next socket; it registers afresh.
    KVNET_SOCK_ID again = KVOS_sockCreate(NET_ADDR_TYPE_IPV4, NET_PROTO_UDP);
    ASSERT_EQ(again, s);
    EXPECT_EQ(KVOS_sockEventsModify(set_, again, KVOS_SOCK_EVENT_WRITE, &second), KV_RET_ERROR);
    ASSERT_EQ(KVOS_sockEventsAdd(set_, again, KVOS_SOCK_EVENT_WRITE, &second), KV_RET_OK);
    ASSERT_EQ(wait(0), 1);
    EXPECT_EQ(ev_[0].user, &second);
    KVOS_sockClose(again);
}

/* The seam's state for the test below: the set, the socket to remove, and
 * whether the removal has run. */
struct RemovalWindow {
    KVOS_SOCK_EVENT_SET set;
    KVNET_SOCK_ID sock;
    std::atomic<bool> done{false};
};
RemovalWindow* gWindow;

TEST_F(SockEvents, RemovalDuringAWaitIsNeverReported)
{
    Pair p;
    int tag;
    ASSERT_EQ(KVOS_sockEventsAdd(set_, p.server, KVOS_SOCK_EVENT_READ, &tag), KV_RET_OK);
    ASSERT_EQ(KVOS_sockSend(p.client, "x", 1, 1000, nullptr), 1);
    RemovalWindow window{set_, p.server};
    gWindow = &window;
    {
        // The kernel has answered but the set has not yet looked at the
        // answer: another thread removes the socket exactly then.
        SeamScope seam(kvos_syscalls().epollWait, [](int epfd, struct epoll_event* evs, int max, int ms) {
            int n = epoll_wait(epfd, evs, max, ms);
            if (n > 0 && !gWindow->done) {
                std::thread remover([] { EXPECT_EQ(KVOS_sockEventsRemove(gWindow->set, gWindow->sock), KV_RET_OK); });
                remover.join();
                gWindow->done = true;
            }
            return n;
        });
        EXPECT_EQ(wait(100), 0);
    }
    EXPECT_TRUE(window.done);
    // Added again with a new pointer: the old event can never resurface
    // under the new registration, and the new one is reported.
    int other;
    ASSERT_EQ(KVOS_sockEventsAdd(set_, p.server, KVOS_SOCK_EVENT_READ, &other), KV_RET_OK);
    ASSERT_EQ(wait(1000), 1);
    EXPECT_EQ(ev_[0].user, &other);
}

TEST_F(SockEvents, ConcurrentAddRemoveWhileWaiting)
{
    constexpr int kPairs = 16;
    std::vector<std::unique_ptr<Pair>> pairs;
    for (int i = 0; i < kPairs; ++i) {
        pairs.emplace_back(new Pair);
        ASSERT_EQ(KVOS_sockSend(pairs.back()->client, "x", 1, 1000, nullptr), 1); // stays readable
    }
    // registered[i] is set before Add and cleared after Remove returned;
    // adds[i] counts Adds, bumped before each. If slot i was not registered
    // when a wait began and no Add of it started meanwhile, an event for it
    // can only be a removed registration resurfacing: a fault.
    std::atomic<bool> registered[kPairs];
    std::atomic<int> adds[kPairs];
    for (int i = 0; i < kPairs; ++i) {
        registered[i] = false;
        adds[i] = 0;
    }
    std::atomic<bool> stop{false};
    std::atomic<int> faults{0}, delivered{0};
    std::thread waiter([&] {
        KVOS_SOCK_EVENT evs[kPairs];
        while (!stop) {
            bool before[kPairs];
            int addsBefore[kPairs];
            for (int i = 0; i < kPairs; ++i) {
                addsBefore[i] = adds[i];
                before[i] = registered[i];
            }
            KV_RET n = KVOS_sockEventsWait(set_, evs, kPairs, 10);
            for (KV_RET k = 0; k < n; ++k) {
                if (evs[k].events == KVOS_SOCK_EVENT_WAKE) {
                    continue;
                }
                int i = static_cast<int>(reinterpret_cast<intptr_t>(evs[k].user));
                if (!before[i] && adds[i] == addsBefore[i]) {
                    ++faults;
                }
                ++delivered;
            }
        }
    });
    for (int round = 0; round < 600; ++round) {
        int i = (round * 7) % kPairs;
        void* user = reinterpret_cast<void*>(static_cast<intptr_t>(i));
        if (!registered[i]) {
            ++adds[i];
            registered[i] = true;
            ASSERT_EQ(KVOS_sockEventsAdd(set_, pairs[i]->server, KVOS_SOCK_EVENT_READ, user), KV_RET_OK);
        } else if (round % 3 == 0) {
            ASSERT_EQ(KVOS_sockEventsModify(set_, pairs[i]->server, KVOS_SOCK_EVENT_READ, user), KV_RET_OK);
        } else {
            ASSERT_EQ(KVOS_sockEventsRemove(set_, pairs[i]->server), KV_RET_OK);
            registered[i] = false;
        }
        if (round % 50 == 0) {
            KVOS_sockEventsWake(set_);
        }
        usleep(200); // let the waiter run between changes
    }
    stop = true;
    KVOS_sockEventsWake(set_);
    waiter.join();
    EXPECT_EQ(faults.load(), 0);
    EXPECT_GT(delivered.load(), 0);
}

}  // namespace
