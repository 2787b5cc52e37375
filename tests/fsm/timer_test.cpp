/* The timer wheel on its own: timing, order, restart, stop, the 32-bit wrap,
 * the listing, and a differential run against the sorted-list model. The
 * expiries go to a sink (the test seam) so that every delivery is seen with
 * the tick it happened on; the real far send is covered at the end and in
 * the end-to-end suite. */
#include <algorithm>
#include <random>
#include <regex>
#include <sstream>
#include <tuple>
#include <vector>

#include "fsm/fsm_timer_seams.h"
#include "support.h"
#include "timer_model.h"

using namespace fsm_test;

namespace {

struct Delivery {
    uint32_t tick;
    MSGNAME msg;
    FSMADDR owner;
    uintptr_t data;
    bool operator==(const Delivery& o) const
    {
        return std::tie(tick, msg, owner.Spec, owner.Ind, data) ==
               std::tie(o.tick, o.msg, o.owner.Spec, o.owner.Ind, o.data);
    }
};

std::ostream& operator<<(std::ostream& os, const Delivery& d)
{
    return os << "{tick " << d.tick << " msg " << std::hex << d.msg << std::dec << " owner " << d.owner.Spec << ':'
              << d.owner.Ind << " data " << d.data << '}';
}

/* A timer system of its own whose expiries are recorded with their tick. */
class Wheel {
public:
    explicit Wheel(uint32_t startTick = 0, FSMADDR owner = {FSM_TIMER, 0})
        : ts_(timerSystemCreate(owner, "TestWheel")), tick_(startTick), owner_(owner)
    {
        timerSystemSetTicks(ts_, startTick);
        timerSystemSetExpirySink(ts_, &Wheel::sink, this);
    }
    ~Wheel() { timerSystemDelete(ts_); }
    Wheel(const Wheel&) = delete;
    Wheel& operator=(const Wheel&) = delete;

    TIMER_SYSTEM* ts() const { return ts_; }
    void start(TIMERBUF* t, uint32_t interval, uintptr_t data = 0, MSGNAME msg = GEN_timer_1,
               FSMADDR owner = {ALPHA, 0})
    {
        timerSystemStartTimer(ts_, t, interval, msg, owner, data);
    }
    void tick(uint32_t n = 1)
    {
        for (uint32_t i = 0; i < n; ++i) {
            ++tick_;
            timerSystemRunTimerWheel(ts_);
        }
    }
    std::vector<uintptr_t> dataDelivered() const
    {
        std::vector<uintptr_t> v;
        for (const Delivery& d : got) {
            v.push_back(d.data);
        }
        return v;
    }

    std::vector<Delivery> got;
    /* A timer whose state the sink notes at each delivery. */
    TIMERBUF* watched = nullptr;
    std::vector<bool> watchedActiveInSink;

private:
    static void sink(void* arg, MSGNAME msg, FSMADDR owner, FSMADDR source, uintptr_t data)
    {
        auto* w = static_cast<Wheel*>(arg);
        EXPECT_EQ(w->owner_, source);
        w->got.push_back(Delivery{w->tick_, msg, owner, data});
        if (w->watched != nullptr) {
            w->watchedActiveInSink.push_back(timerSystemIsActiveTimer(w->watched));
        }
    }

    TIMER_SYSTEM* ts_;
    uint32_t tick_;
    FSMADDR owner_;
};

TIMERBUF idleTimer()
{
    TIMERBUF t;
    timerSystemInitTimer(&t);
    return t;
}

class FsmTimerTest : public ::testing::Test {
protected:
    FsmSystem sys_;
};

}  // namespace

TEST_F(FsmTimerTest, InitClearsEveryField)
{
    TIMERBUF t;
    memset(&t, 0xA5, sizeof(t));
    timerSystemInitTimer(&t);
    EXPECT_EQ(nullptr, t.next);
    EXPECT_EQ(nullptr, t.prev);
    EXPECT_EQ(0u, t.expireAt);
    EXPECT_FALSE(t.inwheel);
    EXPECT_EQ(NO_MSGNAME, t.msgName);
    EXPECT_EQ((FSMADDR{NO_SPECIE, NO_IND}), t.owner);
    EXPECT_EQ(0u, t.data);
}

TEST_F(FsmTimerTest, TimerFallsDueExactlyIntervalTicksLater)
{
    // Around every boundary where the wheel moves timers between levels.
    const uint32_t intervals[] = {1, 2, 255, 256, 257, 511, 512, 16383, 16384, 16385, 70000};
    for (uint32_t startTick : {0u, 100u, 255u, 16380u}) {
        for (uint32_t interval : intervals) {
            SCOPED_TRACE(::testing::Message() << "start " << startTick << " interval " << interval);
            Wheel w(startTick);
            TIMERBUF t = idleTimer();
            w.start(&t, interval, 7);
            EXPECT_TRUE(timerSystemIsActiveTimer(&t));
            EXPECT_EQ(startTick + interval, t.expireAt);
            w.tick(interval - 1);
            EXPECT_TRUE(w.got.empty());
            w.tick();
            ASSERT_EQ(1u, w.got.size());
            EXPECT_EQ((Delivery{startTick + interval, GEN_timer_1, {ALPHA, 0}, 7}), w.got[0]);
            EXPECT_FALSE(timerSystemIsActiveTimer(&t));
            EXPECT_EQ(0u, t.expireAt);
            EXPECT_EQ(startTick + interval, timerSystemGetTicks(w.ts()));
            w.tick(300);
            EXPECT_EQ(1u, w.got.size());
            EXPECT_EQ(0u, timerSystemRunningCount(w.ts()));
        }
    }
}

TEST_F(FsmTimerTest, ZeroIntervalIsRefusedAndLogged)
{
    Wheel w;
    TIMERBUF t = idleTimer();
    LogCapture log;
    w.start(&t, 0, 1, GEN_timer_2, {BETA, 3});
    EXPECT_FALSE(timerSystemIsActiveTimer(&t));
    EXPECT_EQ(NO_MSGNAME, t.msgName);  // untouched
    w.tick(5);
    EXPECT_TRUE(w.got.empty());
    EXPECT_TRUE(log.contains("ERROR Detail=\"Timer will not be executed due to zero length interval\" "
                             "Fsm-owner=\"BETA:3\" Msg-name=\"GEN_timer_2\""))
        << log.text();

    // A running timer restarted with 0 keeps running on its old expiry.
    w.start(&t, 3, 2);
    w.start(&t, 0, 9);
    w.tick(3);
    ASSERT_EQ(1u, w.got.size());
    EXPECT_EQ(2u, w.got[0].data);
}

TEST_F(FsmTimerTest, TimersDueOnOneTickComeInReverseStartOrder)
{
    Wheel w;
    TIMERBUF a = idleTimer(), b = idleTimer(), c = idleTimer(), d = idleTimer();
    w.start(&a, 300, 1);  // sits above level 0 until the wheel moves it down
    w.tick(100);
    w.start(&b, 200, 2);
    w.tick(10);
    w.start(&c, 190, 3);
    w.start(&d, 189, 4);  // one tick earlier
    w.tick(190);
    EXPECT_EQ((std::vector<uintptr_t>{4, 3, 2, 1}), w.dataDelivered());
    EXPECT_EQ(299u, w.got[0].tick);
    for (size_t i = 1; i < w.got.size(); ++i) {
        EXPECT_EQ(300u, w.got[i].tick);
    }
}

TEST_F(FsmTimerTest, RestartMovesTheTimerAndDeliversOnce)
{
    struct Case {
        const char* name;
        uint32_t first, tickBefore, second, expectedTick;
    };
    const Case cases[] = {
        {"longer", 5, 2, 10, 12},
        {"shorter", 50, 2, 3, 5},
        {"same expiry, now last started", 5, 0, 5, 5},
        {"from a high level to level 0", 100000, 1000, 7, 1007},
        {"from level 0 to a high level", 7, 1, 20000, 20001},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Wheel w;
        TIMERBUF t = idleTimer(), other = idleTimer();
        w.start(&other, c.expectedTick, 99);
        w.start(&t, c.first, 1);
        w.tick(c.tickBefore);
        w.start(&t, c.second, 2, GEN_timer_3);
        w.tick(c.expectedTick - c.tickBefore + 200);
        ASSERT_EQ(2u, w.got.size());
        // The restarted timer was started after `other`: it comes first.
        EXPECT_EQ((Delivery{c.expectedTick, GEN_timer_3, {ALPHA, 0}, 2}), w.got[0]);
        EXPECT_EQ(99u, w.got[1].data);
        EXPECT_EQ(c.expectedTick, w.got[1].tick);
    }
}

TEST_F(FsmTimerTest, StopIsHarmlessOnIdleTimersAndPreventsDelivery)
{
    Wheel w;
    TIMERBUF never = idleTimer(), stopped = idleTimer(), expired = idleTimer();
    timerSystemStopTimer(w.ts(), &never);
    EXPECT_FALSE(timerSystemIsActiveTimer(&never));

    w.start(&stopped, 20000, 1);  // above level 0
    w.start(&expired, 2, 2);
    w.tick(2);
    timerSystemStopTimer(w.ts(), &expired);
    timerSystemStopTimer(w.ts(), &expired);
    timerSystemStopTimer(w.ts(), &stopped);
    EXPECT_FALSE(timerSystemIsActiveTimer(&stopped));
    EXPECT_EQ(0u, stopped.expireAt);
    timerSystemStopTimer(w.ts(), &stopped);
    w.tick(20000);
    EXPECT_EQ((std::vector<uintptr_t>{2}), w.dataDelivered());
    EXPECT_EQ(0u, timerSystemRunningCount(w.ts()));

    // A stopped timer can be started again.
    w.start(&stopped, 1, 3);
    w.tick();
    EXPECT_EQ((std::vector<uintptr_t>{2, 3}), w.dataDelivered());
}

TEST_F(FsmTimerTest, TimerIsIdleWhenItsExpiryIsHandled)
{
    Wheel w;
    TIMERBUF t = idleTimer();
    w.watched = &t;
    w.start(&t, 3);
    w.tick(3);
    EXPECT_EQ((std::vector<bool>{false}), w.watchedActiveInSink);
}

TEST_F(FsmTimerTest, SmallIntervalsFireAcrossTheWrapOfTheTickCount)
{
    for (uint32_t start : {0xFFFFFFFFu, 0xFFFFFFF0u, 0xFFFFFF00u, 0xFFFF0000u - 5}) {
        for (uint32_t interval : {1u, 2u, 16u, 17u, 300u, 70000u}) {
            SCOPED_TRACE(::testing::Message() << std::hex << "start 0x" << start << " interval 0x" << interval);
            Wheel w(start);
            TIMERBUF t = idleTimer(), early = idleTimer();
            w.start(&t, interval, 1);
            w.start(&early, 1, 2);
            w.tick(interval - 1);
            EXPECT_EQ(interval > 1 ? std::vector<uintptr_t>{2} : std::vector<uintptr_t>{}, w.dataDelivered());
            w.tick();
            ASSERT_EQ(2u, w.got.size());
            EXPECT_EQ((Delivery{start + interval, GEN_timer_1, {ALPHA, 0}, 1}), w.got.back());
            EXPECT_EQ(start + 1, w.got[interval > 1 ? 0 : 1].tick);
            EXPECT_EQ(start + interval, timerSystemGetTicks(w.ts()));
        }
    }
}

TEST_F(FsmTimerTest, ListingShowsRunningTimersInDeliveryOrder)
{
    Wheel w(1000);
    TIMERBUF a = idleTimer(), b = idleTimer(), c = idleTimer();
    w.start(&a, 20000, 5, GEN_timer_1, {ALPHA, 2});
    w.start(&b, 10, 6, GEN_timer_2, {BETA, 0});
    w.start(&c, 10, 7, GEN_timer_3, {GAMMA, 1});
    std::ostringstream os;
    timerSystemListTimers(w.ts(), os);
    const std::string text = std::regex_replace(os.str(), std::regex("timer 0x[0-9a-f]+"), "timer P");
    EXPECT_EQ("Timer system TestWheel: tick 1000, 3 running\n"
              "  tick 1010 (in 10): GEN_timer_3 to GAMMA:1 data 7 timer P\n"
              "  tick 1010 (in 10): GEN_timer_2 to BETA:0 data 6 timer P\n"
              "  tick 21000 (in 20000): GEN_timer_1 to ALPHA:2 data 5 timer P\n",
              text);
    char first[48];
    snprintf(first, sizeof(first), "data 7 timer %p\n", static_cast<void*>(&c));
    EXPECT_NE(std::string::npos, os.str().find(first)) << os.str();

    Wheel empty;
    std::ostringstream none;
    timerSystemListTimers(empty.ts(), none);
    EXPECT_EQ("Timer system TestWheel: tick 0, 0 running\n", none.str());
}

TEST_F(FsmTimerTest, MembershipIsPerSystem)
{
    Wheel w, other;
    TIMERBUF t = idleTimer();
    EXPECT_FALSE(timerSystemIsTimerInList(w.ts(), &t));
    w.start(&t, 30000);
    EXPECT_TRUE(timerSystemIsTimerInList(w.ts(), &t));
    EXPECT_FALSE(timerSystemIsTimerInList(other.ts(), &t));
    w.tick(300);  // moved down a level on the way: still found
    EXPECT_TRUE(timerSystemIsTimerInList(w.ts(), &t));
    timerSystemStopTimer(w.ts(), &t);
    EXPECT_FALSE(timerSystemIsTimerInList(w.ts(), &t));
}

TEST_F(FsmTimerTest, SettingTheTicksWithTimersRunningIsAProgrammingFault)
{
    EXPECT_DEATH(
        {
            logToStderr();
            Wheel w;
            TIMERBUF t = idleTimer();
            w.start(&t, 5);
            timerSystemSetTicks(w.ts(), 7);
        },
        "no running timers");
}

/* The same random schedule through the wheel and through the sorted-list
 * model: starts, restarts (with the same and with other intervals), stops
 * and runs of ticks, from start ticks that put the wrap of the 32-bit count
 * and the carries into every level of the wheel inside the run. */
TEST_F(FsmTimerTest, WheelDeliversExactlyLikeTheSortedList)
{
    const uint32_t starts[] = {0u, (1u << 20) - 70000u, 5u * (1u << 26) - 90000u, 0u - 150000u, 0xFFFFFFFFu - 300u};
    constexpr int kTimers = 300;
    constexpr int kSteps = KV_SANITIZED ? 1500 : 6000;
    for (uint32_t start : starts) {
        SCOPED_TRACE(::testing::Message() << "start tick " << start);
        std::mt19937 rng(start ^ 0x5eed);
        Wheel w(start);
        std::vector<Delivery> modelGot;
        SortedListTimers model([&](uint32_t tick, MSGNAME msg, FSMADDR owner, uintptr_t data) {
            modelGot.push_back(Delivery{tick, msg, owner, data});
        });
        model.setTicks(start);
        std::vector<TIMERBUF> wheelTimers(kTimers), modelTimers(kTimers);
        for (int i = 0; i < kTimers; ++i) {
            timerSystemInitTimer(&wheelTimers[i]);
            timerSystemInitTimer(&modelTimers[i]);
        }
        // Intervals from every level: a few ticks up to 2^17, many of them
        // equal so that several timers share a tick.
        auto interval = [&rng]() -> uint32_t {
            switch (rng() % 4) {
            case 0:
                return 1 + rng() % 8;
            case 1:
                return 1 + rng() % 300;
            case 2:
                return 256 * (1 + rng() % 80);
            default:
                return 1 + rng() % (1u << 17);
            }
        };
        uintptr_t serial = 0;
        for (int step = 0; step < kSteps; ++step) {
            const int i = static_cast<int>(rng() % kTimers);
            const unsigned op = rng() % 10;
            if (op < 5) {
                const uint32_t iv = op == 0 ? 0 : interval();
                const MSGNAME msg = static_cast<MSGNAME>(GEN_timer_1 + rng() % 3);
                const FSMADDR owner{static_cast<SPECIE>(ALPHA + rng() % 2), static_cast<IND_NO>(rng() % 4)};
                ++serial;
                w.start(&wheelTimers[i], iv, serial, msg, owner);
                model.start(&modelTimers[i], iv, msg, owner, serial);
            } else if (op < 7) {
                timerSystemStopTimer(w.ts(), &wheelTimers[i]);
                model.stop(&modelTimers[i]);
            } else {
                const uint32_t n = op == 9 ? 1 + rng() % 5000 : 1 + rng() % 40;
                for (uint32_t k = 0; k < n; ++k) {
                    w.tick();
                    model.tick();
                }
            }
            ASSERT_EQ(static_cast<uint32_t>(model.running()), timerSystemRunningCount(w.ts())) << "step " << step;
            ASSERT_EQ(modelTimers[i].inwheel, timerSystemIsActiveTimer(&wheelTimers[i]));
            ASSERT_EQ(modelTimers[i].expireAt, wheelTimers[i].expireAt);
        }
        // Drain: every running timer falls due within 2^17 ticks.
        for (uint32_t k = 0; k < (1u << 17); ++k) {
            w.tick();
            model.tick();
        }
        EXPECT_EQ(0, model.running());
        EXPECT_EQ(model.ticks(), timerSystemGetTicks(w.ts()));
        ASSERT_EQ(modelGot.size(), w.got.size());
        for (size_t k = 0; k < modelGot.size(); ++k) {
            ASSERT_EQ(modelGot[k], w.got[k]) << "delivery " << k;
        }
        EXPECT_GT(modelGot.size(), static_cast<size_t>(kSteps / 10));
    }
}
