/* The D-Bus dispatcher task: the singleton, its place in the task list,
 * stopping and restarting without spinning, and a real method call served
 * on the "DBus dispatcher" task through a private bus daemon. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <mutex>
#include <string>

#include <dbus-c++/dbus.h>
#include <dbus/dbus.h>

#include "abstraction/dbusthread.h"
#include "support.h"

using namespace kvos_test;

namespace {

std::string dispatcherLine()
{
    auto lines = linesWith(taskDump(), "DBus dispatcher");
    return lines.empty() ? "" : lines[0];
}

/* User plus system clock ticks a thread of this process has used. */
unsigned long cpuTicks(int lwp)
{
    unsigned long utime = 0, stime = 0;
    sscanf(threadStat(lwp).c_str(), "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &utime, &stime);
    return utime + stime;
}

/* A private session bus for one test. */
struct PrivateBus {
    PrivateBus()
    {
        FILE* p = popen("dbus-daemon --session --print-address=1 --print-pid=1 --fork 2>/dev/null", "r");
        char line[512];
        if (p && fgets(line, sizeof(line), p)) {
            address_ = line;
            address_.erase(address_.find_last_not_of('\n') + 1);
            pid_ = fgets(line, sizeof(line), p) ? atoi(line) : 0;
        }
        if (p) {
            pclose(p);
        }
    }
    ~PrivateBus()
    {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
        }
    }
    std::string address_;
    int pid_ = 0;
};

class EchoAdaptor : public DBus::InterfaceAdaptor, public DBus::ObjectAdaptor {
public:
    explicit EchoAdaptor(DBus::Connection& conn)
        : DBus::InterfaceAdaptor("org.korvenda.Test"), DBus::ObjectAdaptor(conn, "/org/korvenda/Test")
    {
        register_method(EchoAdaptor, Echo, echoStub);
    }

    DBus::Message echoStub(const DBus::CallMessage& call)
    {
        servedOn = KVOS_taskID();
        std::string text;
        DBus::MessageIter in = call.reader();
        in >> text;
        DBus::ReturnMessage reply(call);
        DBus::MessageIter out = reply.writer();
        out << ("echo: " + text);
        return reply;
    }

    std::atomic<KVOS_TASK_ID> servedOn{0};
};

}  // namespace

TEST(DBusThreadTest, SingletonStartedByInitStopsAndRestartsWithoutSpinning)
{
    DBusThread& t = DBusThread::instance();
    EXPECT_EQ(&t, &DBusThread::instance());
    EXPECT_EQ(DBus::default_dispatcher, t.dispatcher());
    ASSERT_TRUE(waitFor([] { return !dispatcherLine().empty(); }));
    EXPECT_EQ(0u, dispatcherLine().find("DBus dispatcher     "));
    EXPECT_NE(std::string::npos, dispatcherLine().find("/  65536"));
    for (int round = 0; round < 3; ++round) {
        // Stopping straight after a start must wait for the loop, not race it.
        DBus::BusDispatcher* before = t.dispatcher();
        EXPECT_NE(static_cast<KVOS_TASK_ID>(0), t.taskId());
        t.stop();
        EXPECT_EQ(static_cast<KVOS_TASK_ID>(0), t.taskId());
        EXPECT_NE(before, t.dispatcher());
        EXPECT_EQ(DBus::default_dispatcher, t.dispatcher());
        ASSERT_TRUE(waitFor([] { return dispatcherLine().empty(); })) << "stopped task still listed";
        t.stop();  // stopping a stopped thread does nothing
        t.start();
    }
    ASSERT_TRUE(waitFor([] { return !dispatcherLine().empty(); }));
    int lwp = 0;  // the running loop waits in poll: (almost) no processor
    sscanf(dispatcherLine().c_str() + 20, "%*s %*d %d", &lwp);
    ASSERT_NE(0, lwp);
    unsigned long before = cpuTicks(lwp);
    KVOS_msleep(500);
    EXPECT_LE(cpuTicks(lwp) - before, 5u);  // at most 50 ms of 500
}

TEST(DBusThreadDeathTest, StartingTwiceStopsTheProcess)
{
    EXPECT_DEATH(DBusThread::instance().start(),
                 "\\*\\*\\*\\*\\* Internal Program Error - assertion \\(!task_id_\\) failed in ");
}

TEST(DBusThreadTest, MethodCallIsServedOnTheDispatcherTask)
{
    PrivateBus bus;
    ASSERT_TRUE(bus.pid_ > 0 && !bus.address_.empty()) << "dbus-daemon could not be started";
    KVOS_TASK_ID dispatcherTask = 0, servedOn = 0;
    DBusThread::instance().stop();  // connections are made while no loop runs
    {
        DBus::Connection server(bus.address_.c_str(), true);
        ASSERT_TRUE(server.register_bus());
        EchoAdaptor echo(server);
        DBus::Connection client(bus.address_.c_str(), true);
        ASSERT_TRUE(client.register_bus());
        struct StopFirst {  // and destroyed after the loop has stopped
            ~StopFirst() { DBusThread::instance().stop(); }
        } stopFirst;
        DBusThread::instance().start();
        dispatcherTask = DBusThread::instance().taskId();
        for (int i = 0; i < 3; ++i) {
            DBus::CallMessage call(server.unique_name(), "/org/korvenda/Test", "org.korvenda.Test", "Echo");
            DBus::MessageIter args = call.writer();
            args << std::string("ping ") + std::to_string(i);
            DBus::Message reply = client.send_blocking(call, 2000);
            std::string text;
            DBus::MessageIter r = reply.reader();
            r >> text;
            EXPECT_EQ("echo: ping " + std::to_string(i), text);
        }
        servedOn = echo.servedOn.load();
        DBus::CallMessage unknown(server.unique_name(), "/org/korvenda/Test", "org.korvenda.Test", "Nope");
        EXPECT_THROW(client.send_blocking(unknown, 2000), DBus::Error);
    }
    EXPECT_TRUE(pthread_equal(dispatcherTask, servedOn));
    DBusThread::instance().start();
}

namespace {
std::mutex gOurs;
}  // namespace

TEST(DBusThreadDeathTest, InversionsWithOurLocksThroughLibdbusAreReported)
{
    // The sanitizer suppressions name only the watch-list frames of the D-Bus
    // libraries' own inversion; one between a lock of ours and a
    // connection's lock must still stop the run.
    if (!KV_TSAN) {
        GTEST_SKIP() << "needs the ThreadSanitizer build";
    }
    const char* options = getenv("TSAN_OPTIONS");
    if (options == nullptr || strstr(options, "suppressions=") == nullptr) {
        GTEST_SKIP() << "run with the project's TSAN_OPTIONS (ctest under make tsan)";
    }
    EXPECT_EXIT(
        {
            // A peer-to-peer connection to a listener of our own: no daemon.
            // An abstract socket, because TSan ends this child before any
            // clean-up could remove a socket file.
            DBusError err;
            dbus_error_init(&err);
            const std::string listen = "unix:abstract=kvos-test-" + std::to_string(getpid());
            DBusServer* server = dbus_server_listen(listen.c_str(), &err);
            char* address = server ? dbus_server_get_address(server) : nullptr;
            DBusConnection* conn = address ? dbus_connection_open_private(address, &err) : nullptr;
            if (conn == nullptr) {
                _exit(2);
            }
            // libdbus calls the add function holding the connection's lock.
            dbus_connection_set_watch_functions(
                conn,
                [](DBusWatch*, void*) -> dbus_bool_t {
                    std::lock_guard<std::mutex> guard(gOurs);
                    return TRUE;
                },
                nullptr, nullptr, nullptr, nullptr);
            {
                std::lock_guard<std::mutex> guard(gOurs);
                dbus_connection_get_is_connected(conn);  // takes the connection's lock
            }
            fprintf(stderr, "not reported\n");
            _exit(0);
        },
        ::testing::ExitedWithCode(66), "lock-order-inversion");
}
