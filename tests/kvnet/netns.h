/*
 * Private network namespaces for the routing suites. Each namespace is named
 * after the test process and a tag, so that parallel test processes never
 * meet, and is deleted (with the interfaces inside it) when the object goes,
 * whatever the test's outcome. Everything runs through `ip`, inside the
 * namespace; nothing touches the host's own interfaces or routes.
 */
#ifndef TESTS_KVNET_NETNS_H
#define TESTS_KVNET_NETNS_H

#include <string>
#include <vector>

namespace kvnet_test {

/* Why namespaces cannot be used here, or "" when they can. */
std::string netnsUnavailableReason();

/* Runs a shell command; its standard output and error, and its status. */
int shell(const std::string& command, std::string* output = nullptr);

class NetNs {
public:
    explicit NetNs(const std::string& tag);
    ~NetNs();
    NetNs(const NetNs&) = delete;
    NetNs& operator=(const NetNs&) = delete;

    const std::string& name() const { return name_; }
    bool ok() const { return ok_; }
    /* `ip -n <name> <args>`; true on success. The output goes to *output. */
    bool ip(const std::string& args, std::string* output = nullptr) const;
    /* Runs every line of `script` as an `ip -n` command; "" or the first
     * line that failed, with its output. */
    std::string ipScript(const std::vector<std::string>& script) const;
    /* Runs fn on a new thread that has entered the namespace (setns). */
    template <typename Fn>
    void enter(Fn fn) const;

private:
    bool enterThread() const;
    std::string name_;
    bool ok_ = false;
};

}  // namespace kvnet_test

#include <thread>

template <typename Fn>
void kvnet_test::NetNs::enter(Fn fn) const
{
    std::thread t([&] {
        if (enterThread()) {
            fn();
        }
    });
    t.join();
}

#endif
