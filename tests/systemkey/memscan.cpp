#include "memscan.h"

#include <openssl/crypto.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/mman.h>
#include <unistd.h>

namespace sktest {

Needle::Needle(const void* bytes, size_t len)
{
    const auto* b = static_cast<const unsigned char*>(bytes);
    masked_.reserve(len);
    for (size_t i = 0; i < len; ++i) {
        masked_.push_back(static_cast<unsigned char>(b[i] ^ kMask));
    }
}

size_t Needle::findIn(const unsigned char* p, size_t n) const
{
    const size_t m = masked_.size();
    if (m == 0 || n < m) {
        return n;
    }
    for (size_t i = 0; i + m <= n; ++i) {
        size_t j = 0;
        while (j < m && static_cast<unsigned char>(p[i + j] ^ kMask) == masked_[j]) {
            ++j;
        }
        if (j == m) {
            return i;
        }
    }
    return n;
}

namespace {

constexpr size_t kMaxMapping = 256u << 20;
constexpr size_t kChunk = 1u << 20;

struct Mapping {
    uintptr_t start, end;
    std::string line;
};

std::vector<Mapping> writableMappings()
{
    std::vector<Mapping> out;
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line)) {
        uintptr_t start = 0, end = 0;
        char perms[5] = {};
        if (std::sscanf(line.c_str(), "%" SCNxPTR "-%" SCNxPTR " %4s", &start, &end, perms) != 3) {
            continue;
        }
        if (perms[0] != 'r' || perms[1] != 'w' || perms[3] != 'p' || end - start > kMaxMapping ||
            line.find("[vvar]") != std::string::npos || line.find("[vsyscall]") != std::string::npos) {
            continue;
        }
        out.push_back({start, end, line});
    }
    return out;
}

} // namespace

std::string findInProcessMemory(const std::vector<const Needle*>& needles)
{
    size_t overlap = 0;
    for (const Needle* n : needles) {
        overlap = std::max(overlap, n->size());
    }
    const int fd = open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return "cannot open /proc/self/mem";
    }
    // The chunk buffer lives outside the heap and is wiped before it is
    // unmapped, so a find is never copied somewhere a later scan would see it.
    const size_t bufSize = kChunk + overlap;
    void* mem = mmap(nullptr, bufSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mem == MAP_FAILED) {
        close(fd);
        return "cannot map a scan buffer";
    }
    auto* buf = static_cast<unsigned char*>(mem);
    const uintptr_t self = reinterpret_cast<uintptr_t>(mem);
    std::string found;
    for (const Mapping& m : writableMappings()) {
        if (m.start == self) {
            continue;
        }
        size_t carried = 0; // bytes kept from the previous chunk
        for (uintptr_t at = m.start; at < m.end && found.empty();) {
            const size_t want = std::min<uintptr_t>(kChunk, m.end - at);
            const ssize_t got = pread(fd, buf + carried, want, static_cast<off_t>(at));
            if (got <= 0) {
                break; // unreadable (device memory, guard): skip the rest
            }
            const size_t have = carried + static_cast<size_t>(got);
            for (size_t i = 0; i < needles.size() && found.empty(); ++i) {
                const size_t pos = needles[i]->findIn(buf, have);
                if (pos < have) {
                    std::ostringstream os;
                    os << "needle " << i << " at 0x" << std::hex << (at - carried + pos) << " in " << m.line;
                    found = os.str();
                }
            }
            carried = std::min(have, overlap);
            std::memmove(buf, buf + have - carried, carried);
            at += static_cast<uintptr_t>(got);
        }
        if (!found.empty()) {
            break;
        }
    }
    OPENSSL_cleanse(buf, bufSize);
    munmap(mem, bufSize);
    close(fd);
    return found;
}

} // namespace sktest
