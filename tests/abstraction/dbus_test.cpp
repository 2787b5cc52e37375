/* The D-Bus dispatcher task: the singleton, its place in the task list,
 * stopping and restarting without spinning, and a real method call served
 * on the "DBus dispatcher" task through a private bus daemon. */
#include <stdio.h>

#include <dbus-c++/dbus.h>

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
    KVOS_TASK_ID dispatcherTask = DBusThread::instance().taskId(), servedOn = 0;
    {
        DBus::Connection server(bus.address_.c_str(), true);
        ASSERT_TRUE(server.register_bus());
        EchoAdaptor echo(server);
        DBus::Connection client(bus.address_.c_str(), true);
        ASSERT_TRUE(client.register_bus());
        struct StopFirst {  // the loop must be stopped before the connections go
            ~StopFirst() { DBusThread::instance().stop(); }
        } stopFirst;
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
