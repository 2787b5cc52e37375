/* The D-Bus dispatcher task: the singleton, its place in the task list,
 * stopping and restarting without spinning, and a real method call served
 * on the "DBus dispatcher" task through a private bus daemon. */
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include <dbus-c++/dbus.h>

#include "abstraction/dbusthread.h"
#include "abstraction/kvos_task.h"
#include "support.h"

using namespace kvos_test;

namespace {

std::string dispatcherLine()
{
    auto lines = linesWith(taskDump(), "DBus dispatcher");
    return lines.empty() ? "" : lines[0];
}

}  // namespace

TEST(DBusThreadTest, SingletonIsStartedByInit)
{
    DBusThread& a = DBusThread::instance();
    EXPECT_EQ(&a, &DBusThread::instance());
    EXPECT_NE(static_cast<KVOS_TASK_ID>(0), a.taskId());
    EXPECT_EQ(DBus::default_dispatcher, a.dispatcher());
    ASSERT_TRUE(waitFor([] { return !dispatcherLine().empty(); }));
    std::string line = dispatcherLine();
    EXPECT_EQ(0u, line.find("DBus dispatcher     "));
    EXPECT_NE(std::string::npos, line.find("/  65536"));
}

TEST(DBusThreadTest, StopAndRestartNeverSpin)
{
    DBusThread& t = DBusThread::instance();
    for (int round = 0; round < 3; ++round) {
        // Stopping straight after a start must wait for the loop, not race it.
        DBus::BusDispatcher* before = t.dispatcher();
        t.stop();
        EXPECT_EQ(static_cast<KVOS_TASK_ID>(0), t.taskId());
        EXPECT_NE(before, t.dispatcher());
        EXPECT_EQ(DBus::default_dispatcher, t.dispatcher());
        ASSERT_TRUE(waitFor([] { return dispatcherLine().empty(); })) << "stopped task still listed";
        t.stop();  // stopping a stopped thread does nothing
        t.start();
        EXPECT_NE(static_cast<KVOS_TASK_ID>(0), t.taskId());
    }
    ASSERT_TRUE(waitFor([] { return !dispatcherLine().empty(); }));
    // The running loop waits in poll: its task uses (almost) no processor.
    int lwp = 0;
    sscanf(dispatcherLine().c_str() + 20, "%*s %*d %d", &lwp);
    ASSERT_NE(0, lwp);
    auto cpuTicks = [lwp] {
        FILE* f = fopen(("/proc/self/task/" + std::to_string(lwp) + "/stat").c_str(), "r");
        char buf[1024] = "";
        size_t n = f ? fread(buf, 1, sizeof(buf) - 1, f) : 0;
        if (f) {
            fclose(f);
        }
        buf[n] = '\0';
        const char* p = strrchr(buf, ')');
        unsigned long utime = 0, stime = 0;
        if (p) {
            sscanf(p + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &utime, &stime);
        }
        return utime + stime;
    };
    unsigned long before = cpuTicks();
    KVOS_msleep(500);
    EXPECT_LE(cpuTicks() - before, 5u);  // at most 50 ms of 500
}

TEST(DBusThreadDeathTest, StartingTwiceStopsTheProcess)
{
    EXPECT_DEATH(DBusThread::instance().start(),
                 "\\*\\*\\*\\*\\* Internal Program Error - assertion \\(!task_id_\\) failed in ");
}

namespace {

/* A private session bus for one test. */
class PrivateBus {
public:
    PrivateBus()
    {
        FILE* p = popen("dbus-daemon --session --print-address=1 --print-pid=1 --fork 2>/dev/null", "r");
        if (p == nullptr) {
            return;
        }
        char line[512];
        if (fgets(line, sizeof(line), p)) {
            address_ = line;
            address_.erase(address_.find_last_not_of("\n") + 1);
        }
        if (fgets(line, sizeof(line), p)) {
            pid_ = atoi(line);
        }
        pclose(p);
    }
    ~PrivateBus()
    {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
        }
    }
    const std::string& address() const { return address_; }
    bool ok() const { return pid_ > 0 && !address_.empty(); }

private:
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
        DBus::MessageIter in = call.reader();
        std::string text;
        in >> text;
        DBus::ReturnMessage reply(call);
        DBus::MessageIter out = reply.writer();
        out << ("echo: " + text);
        return reply;
    }

    std::atomic<KVOS_TASK_ID> servedOn{0};
};

}  // namespace

namespace {
/* Runs the round trips; the connections end with this function, after the
 * caller has stopped the loop that serves them. */
void roundTrips(const std::string& address, KVOS_TASK_ID* servedOn);
}  // namespace

TEST(DBusThreadTest, MethodCallIsServedOnTheDispatcherTask)
{
    PrivateBus bus;
    ASSERT_TRUE(bus.ok()) << "dbus-daemon could not be started";
    KVOS_TASK_ID servedOn = 0;
    KVOS_TASK_ID dispatcherTask = DBusThread::instance().taskId();
    roundTrips(bus.address(), &servedOn);
    EXPECT_TRUE(pthread_equal(dispatcherTask, servedOn));
    DBusThread::instance().start();
}

namespace {
void roundTrips(const std::string& address, KVOS_TASK_ID* servedOn)
{
    DBus::Connection server(address.c_str(), true);
    ASSERT_TRUE(server.register_bus());
    EchoAdaptor echo(server);
    DBus::Connection client(address.c_str(), true);
    ASSERT_TRUE(client.register_bus());
    struct StopFirst {
        ~StopFirst() { DBusThread::instance().stop(); }  // before the connections go
    } stopFirst;

    for (int i = 0; i < 3; ++i) {
        DBus::CallMessage call(server.unique_name(), "/org/korvenda/Test", "org.korvenda.Test", "Echo");
        DBus::MessageIter args = call.writer();
        args << std::string("ping ") + std::to_string(i);
        DBus::Message reply = client.send_blocking(call, 2000);
        DBus::MessageIter r = reply.reader();
        std::string text;
        r >> text;
        EXPECT_EQ("echo: ping " + std::to_string(i), text);
    }
    *servedOn = echo.servedOn.load();

    DBus::CallMessage unknown(server.unique_name(), "/org/korvenda/Test", "org.korvenda.Test", "Nope");
    EXPECT_THROW(client.send_blocking(unknown, 2000), DBus::Error);
}
}  // namespace
