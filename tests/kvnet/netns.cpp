#include "netns.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>

#include <gtest/gtest.h>

namespace kvnet_test {

int shell(const std::string& command, std::string* output)
{
    std::string full = command + " 2>&1";
    FILE* p = popen(full.c_str(), "r");
    if (p == nullptr) {
        return -1;
    }
    std::string out;
    char buf[512];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), p)) > 0) {
        out.append(buf, n);
    }
    int status = pclose(p);
    if (output != nullptr) {
        *output = out;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string netnsUnavailableReason()
{
    if (geteuid() != 0) {
        return "needs root to create network namespaces and veth pairs";
    }
    if (shell("ip -V") != 0) {
        return "the ip command (iproute2) is not installed";
    }
    return "";
}

NetNs::NetNs(const std::string& tag)
{
    static std::atomic<int> counter{0};
    name_ = "kvtest" + std::to_string(getpid()) + "_" + tag + std::to_string(counter++);
    std::string out;
    ok_ = shell("ip netns add " + name_, &out) == 0;
    if (!ok_) {
        ADD_FAILURE() << "ip netns add " << name_ << ": " << out;
    }
}

NetNs::~NetNs()
{
    // Deleting the namespace destroys the interfaces in it, and a veth's
    // peer with it.
    if (ok_) {
        std::string out;
        if (shell("ip netns del " + name_, &out) != 0) {
            ADD_FAILURE() << "ip netns del " << name_ << ": " << out;
        }
    }
}

bool NetNs::ip(const std::string& args, std::string* output) const
{
    return shell("ip -n " + name_ + " " + args, output) == 0;
}

std::string NetNs::ipScript(const std::vector<std::string>& script) const
{
    for (const std::string& line : script) {
        std::string out;
        if (!ip(line, &out)) {
            return "ip -n " + name_ + " " + line + ": " + out;
        }
    }
    return "";
}

bool NetNs::enterThread() const
{
    std::string path = "/run/netns/" + name_;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        ADD_FAILURE() << "open " << path << ": " << strerror(errno);
        return false;
    }
    int rc = setns(fd, CLONE_NEWNET);
    int err = errno;
    close(fd);
    if (rc != 0) {
        ADD_FAILURE() << "setns " << path << ": " << strerror(err);
        return false;
    }
    return true;
}

}  // namespace kvnet_test
