// A scratch directory for one test, under /tmp,
// removed with everything in it when the test ends, whether it passed or not.
//
// A death-test child (the test binary run again for one statement) ends
// without tearing down, so it must not make a directory of its own: it
// inherits the directory of the test that started it through the
// environment, and that test removes it.
#ifndef TESTS_KVLOG_SCRATCH_ROOT_H
#define TESTS_KVLOG_SCRATCH_ROOT_H

#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <vector>

namespace kvlogtest {

class ScratchRoot {
public:
    explicit ScratchRoot(const std::string& stem)
    {
        const char* inherited = std::getenv(kVariable);
        struct stat st;
        if (inherited != nullptr && *inherited != '\0' && ::stat(inherited, &st) == 0 && S_ISDIR(st.st_mode)) {
            path_ = inherited;
            inherited_ = true;
            return;
        }
        std::string tmpl = "/tmp/" + stem + "-XXXXXX";
        std::vector<char> buf(tmpl.begin(), tmpl.end());
        buf.push_back('\0');
        if (::mkdtemp(buf.data()) != nullptr) {
            path_ = buf.data();
            ::setenv(kVariable, path_.c_str(), 1);
        }
    }
    ~ScratchRoot()
    {
        if (inherited_ || path_.empty()) {
            return;
        }
        ::unsetenv(kVariable);
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchRoot(const ScratchRoot&) = delete;
    ScratchRoot& operator=(const ScratchRoot&) = delete;

    bool ok() const { return !path_.empty(); }
    const std::string& path() const { return path_; }
    // True in a death-test child: the directory and what the test put in it
    // before the child started are already there.
    bool inherited() const { return inherited_; }

private:
    static constexpr const char* kVariable = "KV_TEST_SCRATCH_ROOT";
    std::string path_;
    bool inherited_ = false;
};

} // namespace kvlogtest

#endif
