#include "memscan.h"

#include <openssl/crypto.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <algorithm>
#include <iterator>
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
    // Candidates by their first byte (one byte of the secret in a register
    // is no copy in memory), then the rest compared masked.
    const int first = masked_[0] ^ kMask;
    for (const unsigned char* c = p; (c = static_cast<const unsigned char*>(
                                          std::memchr(c, first, static_cast<size_t>(p + n - m + 1 - c)))) != nullptr;
         ++c) {
        size_t j = 1;
        while (j < m && static_cast<unsigned char>(c[j] ^ kMask) == masked_[j]) {
            ++j;
        }
        if (j == m) {
            return static_cast<size_t>(c - p);
        }
        if (c == p + n - m) {
            break;
        }
    }
    return n;
}

namespace {

constexpr size_t kMaxMapping = 256u << 20;
constexpr size_t kChunk = 1u << 20;
constexpr size_t kMapsText = 4u << 20;
constexpr size_t kMaxMappings = 8192;

struct Mapping {
    uintptr_t start, end;
    const char* line; // into the maps text, terminated
};

// Scratch outside the heap: the scan must not allocate, or it would reuse
// (and overwrite) the very freed chunks it is looking into.
struct Scratch {
    explicit Scratch(size_t n) : size(n)
    {
        void* p = mmap(nullptr, n, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        data = p == MAP_FAILED ? nullptr : static_cast<unsigned char*>(p);
    }
    ~Scratch()
    {
        if (data != nullptr) {
            OPENSSL_cleanse(data, size); // a find is never left for a later scan
            munmap(data, size);
        }
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    size_t size;
    unsigned char* data;
};

// The readable, writable, private mappings of at most kMaxMapping bytes.
size_t writableMappings(Scratch& text, Mapping* out, size_t cap)
{
    const int fd = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return 0;
    }
    size_t len = 0;
    for (ssize_t n; len + 1 < text.size && (n = read(fd, text.data + len, text.size - 1 - len)) > 0;) {
        len += static_cast<size_t>(n);
    }
    close(fd);
    text.data[len] = '\0';
    size_t count = 0;
    char* line = reinterpret_cast<char*>(text.data);
    while (*line != '\0' && count < cap) {
        char* eol = std::strchr(line, '\n');
        if (eol != nullptr) {
            *eol = '\0';
        }
        uintptr_t start = 0, end = 0;
        char perms[5] = {};
        if (std::sscanf(line, "%" SCNxPTR "-%" SCNxPTR " %4s", &start, &end, perms) == 3 && perms[0] == 'r' &&
            perms[1] == 'w' && perms[3] == 'p' && end - start <= kMaxMapping && std::strstr(line, "[vvar]") == nullptr &&
            std::strstr(line, "[vsyscall]") == nullptr) {
            out[count++] = {start, end, line};
        }
        if (eol == nullptr) {
            break;
        }
        line = eol + 1;
    }
    return count;
}

} // namespace

std::string findInProcessMemory(const std::vector<const Needle*>& needles)
{
    size_t overlap = 0;
    for (const Needle* n : needles) {
        overlap = std::max(overlap, n->size());
    }
    Scratch chunk(kChunk + overlap);
    Scratch mapsText(kMapsText);
    Scratch table(kMaxMappings * sizeof(Mapping));
    const int fd = open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
    if (chunk.data == nullptr || mapsText.data == nullptr || table.data == nullptr || fd < 0) {
        if (fd >= 0) {
            close(fd);
        }
        return "cannot set up the scan";
    }
    auto* maps = reinterpret_cast<Mapping*>(table.data);
    const size_t count = writableMappings(mapsText, maps, kMaxMappings);
    unsigned char* buf = chunk.data;
    const uintptr_t own[] = {reinterpret_cast<uintptr_t>(chunk.data), reinterpret_cast<uintptr_t>(mapsText.data),
                             reinterpret_cast<uintptr_t>(table.data)};
    std::string found;
    for (size_t k = 0; k < count && found.empty(); ++k) {
        const Mapping& m = maps[k];
        if (std::find(std::begin(own), std::end(own), m.start) != std::end(own)) {
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
    }
    close(fd);
    return found;
}

} // namespace sktest
