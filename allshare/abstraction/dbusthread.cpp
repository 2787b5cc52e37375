/*
 * DBusThread on dbus-c++'s BusDispatcher.
 *
 * BusDispatcher::enter() sets its running flag itself, and leave() clears
 * it and closes the dispatcher's wake-up pipe. A leave() that comes before
 * enter() has set the flag leaves the loop spinning on a closed pipe for
 * ever, and a second leave() throws. So the loop proves it is running: the
 * task arms a timeout before it enters, and the timeout's
 * callback, which the dispatcher only runs from inside its loop, reports
 * "entered". stop() waits for that report, calls leave() once, waits for
 * the entry to return, and puts a fresh dispatcher in place. The spent
 * dispatcher is kept, never destroyed: connections made on it refer to it
 * (and may sit in its queue of connections to dispatch) until they are
 * destroyed, which is only safe once no loop runs for them.
 *
 * The same timeout repeats every 100 ms. The dispatcher builds its poll set
 * once per round and nothing wakes it when a connection adds a watch from
 * another thread, so without a bound on the round a new connection could
 * go unserved for the dispatcher's default ten seconds.
 *
 * The singleton is never destroyed: at process exit the dispatcher task may
 * still be inside the loop, and destroying the dispatcher under it would
 * crash; a task blocked in the loop is harmless at exit.
 */
#include "abstraction/dbusthread.h"

#include <condition_variable>
#include <mutex>
#include <vector>

#include <dbus-c++/dbus.h>

#include "abstraction/kvos_task.h"
#include "kvlog/kvlog_assert.h"
#include "linux/kvos_log.h"

struct DBusThread::Loop {
    std::mutex lock;
    std::condition_variable changed;
    bool entered = false;
    bool done = false;

    static constexpr int kRoundMs = 100;

    void onRound(DBus::DefaultTimeout&)
    {
        std::lock_guard<std::mutex> guard(lock);
        if (!entered) {
            entered = true;
            changed.notify_all();
        }
    }

    void finished()
    {
        std::lock_guard<std::mutex> guard(lock);
        done = true;
        changed.notify_all();
    }
};

namespace {
/* Dispatchers of earlier runs; never destroyed. */
std::vector<DBus::BusDispatcher*>& retired()
{
    static auto* list = new std::vector<DBus::BusDispatcher*>;
    return *list;
}
}  // namespace

DBusThread& DBusThread::instance()
{
    static DBusThread* the = new DBusThread;
    return *the;
}

DBusThread::DBusThread() : task_id_(0), dispatcher_(new DBus::BusDispatcher)
{
    DBus::_init_threading();
    DBus::default_dispatcher = dispatcher_.get();
}

DBusThread::~DBusThread()
{
    if (DBus::default_dispatcher == dispatcher_.get()) {
        DBus::default_dispatcher = nullptr;
    }
    dispatcher_.reset();
}

void DBusThread::start()
{
    BOOST_ASSERT_MSG(!task_id_, "the D-Bus dispatcher thread is already running");
    loop_.reset(new Loop);
    KVOS_TASK_ATTR* attr = KVOS_taskAttrCreate();
    KVOS_taskAttrSetName(attr, "DBus dispatcher");
    KVOS_taskAttrSetPriority(attr, 50);
    KVOS_taskAttrSetStackSize(attr, 65536);
    KVOS_taskAttrSetScheduler(attr, KVOS_SCHED_DEFAULT);
    task_id_ = KVOS_taskCreate(&DBusThread::main, this, attr);
    KVOS_taskAttrDestroy(attr);
}

void DBusThread::main(void* self)
{
    auto* thread = static_cast<DBusThread*>(self);
    BOOST_ASSERT_MSG(thread->dispatcher_, "the D-Bus dispatcher thread has no dispatcher");
    Loop* loop = thread->loop_.get();
    {
        DBus::DefaultTimeout round(Loop::kRoundMs, true, thread->dispatcher_.get());
        round.expired = new DBus::Callback<Loop, void, DBus::DefaultTimeout&>(loop, &Loop::onRound);
        thread->dispatcher_->enter();
    }
    loop->finished();
}

void DBusThread::stop()
{
    if (task_id_ == 0) {
        return;
    }
    if (task_id_ != KVOS_NO_TASK_ID) {
        Loop* loop = loop_.get();
        std::unique_lock<std::mutex> guard(loop->lock);
        loop->changed.wait(guard, [loop] { return loop->entered || loop->done; });
        if (!loop->done) {
            guard.unlock();
            try {
                dispatcher_->leave();
            } catch (const DBus::Error& e) {
                KVLOG_ERROR(kvos_logger(), kvp("Detail", "Leaving the D-Bus dispatcher failed")
                                               << kvp("Error", e.what()));
            }
            guard.lock();
            loop->changed.wait(guard, [loop] { return loop->done; });
        }
    }
    // The old dispatcher is spent (its wake-up pipe is closed) but is kept:
    // connections made on it still refer to it until they are destroyed,
    // and may have queued themselves for dispatching on it.
    DBus::BusDispatcher* fresh = new DBus::BusDispatcher;
    if (DBus::default_dispatcher == dispatcher_.get()) {
        DBus::default_dispatcher = fresh;
    }
    retired().push_back(dispatcher_.release());
    dispatcher_.reset(fresh);
    loop_.reset();
    task_id_ = 0;
}

KVOS_TASK_ID DBusThread::taskId() const
{
    return task_id_;
}

DBus::BusDispatcher* DBusThread::dispatcher() const
{
    return dispatcher_.get();
}
