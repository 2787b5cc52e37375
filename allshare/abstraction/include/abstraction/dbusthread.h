/**
 * @file
 * DBusThread: the process's D-Bus dispatcher, run on a KVOS task of its own
 * ("DBus dispatcher") so that proxies and adaptors anywhere in the process
 * are served without an application main loop. KVOS_init starts it last.
 *
 * The dbus-c++ BusDispatcher is single-use: leave() before its loop has
 * started, or a second leave(), makes it spin or throw. stop() therefore
 * waits until the loop is known to be running, calls leave() exactly once,
 * waits for the task's entry to return and replaces the dispatcher with a
 * fresh one, so the thread may be started again; the spent dispatcher is
 * kept for the connections that still refer to it. A connection must not be
 * destroyed while a loop runs for it (the loop may still dispatch it):
 * stop the thread first, destroy the connections, then start it again.
 *
 * Make connections while the thread is stopped too. A connection adds its
 * watches to the dispatcher's watch list while libdbus holds the
 * connection's lock, and the running loop handles a ready watch, which
 * takes the connection's lock, while it holds the watch-list lock: a
 * connection made or destroyed while the loop runs can deadlock with it.
 * So: stop(), make (or destroy) the connections with their proxies and
 * adaptors, start(). KVOS_init starts the thread before any connection
 * exists.
 */
#ifndef ABSTRACTION_DBUSTHREAD_H
#define ABSTRACTION_DBUSTHREAD_H

#include <memory>

#include "abstraction/kvos_task.h"

#pragma GCC visibility push(default)

namespace DBus {
class BusDispatcher;
}

/** The process's D-Bus dispatcher thread (see the file note). One instance per process, never
 * destroyed. */
class DBusThread {
public:
    /** The one instance, created on first use with a fresh dispatcher and not yet started. */
    static DBusThread& instance();
    ~DBusThread();

    /** Starts the "DBus dispatcher" task; asserts "!task_id_". */
    void start();
    /** Leaves the loop once it runs and waits for the task's entry to
     * return; nothing when not started. Never throws. */
    void stop();
    /** Entry of the task: runs the dispatcher's loop until it is left. */
    static void main(void* self);

    /** Handle of the dispatcher task; 0 when it is not running. */
    KVOS_TASK_ID taskId() const;
    /** The dispatcher that the next (or the running) loop serves; set it as the default dispatcher
     * before creating connections. Owned by the thread. */
    DBus::BusDispatcher* dispatcher() const;

    DBusThread(const DBusThread&) = delete;
    DBusThread& operator=(const DBusThread&) = delete;

private:
    DBusThread();
    struct Loop;

    KVOS_TASK_ID task_id_;
    std::unique_ptr<DBus::BusDispatcher> dispatcher_;
    std::unique_ptr<Loop> loop_;
};

#pragma GCC visibility pop
#endif
