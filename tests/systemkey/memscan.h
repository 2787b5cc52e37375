// Looks for a secret anywhere in the process's writable memory: heap (freed
// chunks included), stacks, static data. A secret that a code path forgot to
// wipe shows up here even after the buffer holding it was freed.
//
// The secret is kept XOR-masked, so looking for it leaves no plain copy of
// its own, and memory is read through /proc/self/mem, so freed and poisoned
// areas can be read under the sanitizers too.
#ifndef TESTS_SYSTEMKEY_MEMSCAN_H
#define TESTS_SYSTEMKEY_MEMSCAN_H

#include <cstddef>
#include <string>
#include <vector>

namespace sktest {

class Needle {
public:
    // Takes a masked copy; the caller wipes its plain one.
    Needle(const void* bytes, size_t len);
    size_t size() const { return masked_.size(); }
    // Where the needle starts in [p, p + n), or n when it does not.
    size_t findIn(const unsigned char* p, size_t n) const;

private:
    static constexpr unsigned char kMask = 0xA5;
    std::vector<unsigned char> masked_;
};

// Readable and writable private mappings of at most 256 MiB (larger ones
// are the sanitizers' shadow), scanned for each needle. Returns a
// description of the first place one was found ("" when none was): the
// needle's index and the mapping.
std::string findInProcessMemory(const std::vector<const Needle*>& needles);

} // namespace sktest

#endif
