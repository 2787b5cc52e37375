// Network addresses against the C library and plain keys doing the same
// work: parsing and printing the same inputs as inet_pton/inet_ntop (ours
// also takes ports and zones and checks more), and ordering and hashing
// 10^5 addresses in sorted and hashed containers against 16-byte keys.
#include "libkvc/netaddr.h"

#include <arpa/inet.h>

#include <benchmark/benchmark.h>

#include <array>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

namespace {

std::vector<std::string> inputs(bool v6)
{
    std::mt19937 rng(7);
    std::vector<std::string> out;
    char buf[INET6_ADDRSTRLEN];
    for (int i = 0; i < 1024; ++i) {
        if (!v6) {
            uint32_t a = rng();
            inet_ntop(AF_INET, &a, buf, sizeof buf);
        } else {
            unsigned char a[16] = {0x20, 0x01, 0x0d, 0xb8};
            switch (i % 4) {
            case 0:  // a few trailing groups: "2001:db8::x:y"
                a[12] = static_cast<unsigned char>(rng());
                a[15] = static_cast<unsigned char>(rng());
                break;
            case 1:  // all groups used
                for (int k = 4; k < 16; ++k) {
                    a[k] = static_cast<unsigned char>(rng());
                }
                break;
            case 2:  // IPv4-mapped
                std::memset(a, 0, 10);
                a[10] = a[11] = 0xff;
                for (int k = 12; k < 16; ++k) {
                    a[k] = static_cast<unsigned char>(rng());
                }
                break;
            default:  // link-local
                std::memset(a, 0, 16);
                a[0] = 0xfe;
                a[1] = 0x80;
                for (int k = 8; k < 16; ++k) {
                    a[k] = static_cast<unsigned char>(rng());
                }
            }
            inet_ntop(AF_INET6, a, buf, sizeof buf);
        }
        out.push_back(buf);
    }
    return out;
}

void parseOurs(benchmark::State& state, bool v6)
{
    const std::vector<std::string> in = inputs(v6);
    NET_ADDR a;
    for (auto _ : state) {
        for (const std::string& s : in) {
            benchmark::DoNotOptimize(NET_ADDR_fromString(&a, s.c_str()));
        }
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(in.size()));
}

void parseLibc(benchmark::State& state, bool v6)
{
    const std::vector<std::string> in = inputs(v6);
    unsigned char a[16];
    for (auto _ : state) {
        for (const std::string& s : in) {
            benchmark::DoNotOptimize(inet_pton(v6 ? AF_INET6 : AF_INET, s.c_str(), a));
        }
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(in.size()));
}

void printOurs(benchmark::State& state, bool v6)
{
    std::vector<NET_ADDR> addrs;
    for (const std::string& s : inputs(v6)) {
        NET_ADDR a;
        NET_ADDR_fromString(&a, s.c_str());
        addrs.push_back(a);
    }
    char buf[NET_ADDR_STRLEN];
    for (auto _ : state) {
        for (const NET_ADDR& a : addrs) {
            benchmark::DoNotOptimize(NET_ADDR_toString(&a, buf, sizeof buf));
        }
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(addrs.size()));
}

void printLibc(benchmark::State& state, bool v6)
{
    std::vector<std::array<unsigned char, 16>> addrs;
    for (const std::string& s : inputs(v6)) {
        std::array<unsigned char, 16> a{};
        inet_pton(v6 ? AF_INET6 : AF_INET, s.c_str(), a.data());
        addrs.push_back(a);
    }
    char buf[INET6_ADDRSTRLEN];
    for (auto _ : state) {
        for (const auto& a : addrs) {
            benchmark::DoNotOptimize(inet_ntop(v6 ? AF_INET6 : AF_INET, a.data(), buf, sizeof buf));
        }
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(addrs.size()));
}

void BM_Parse_NetAddr_v4(benchmark::State& s) { parseOurs(s, false); }
void BM_Parse_inet_pton_v4(benchmark::State& s) { parseLibc(s, false); }
void BM_Parse_NetAddr_v6(benchmark::State& s) { parseOurs(s, true); }
void BM_Parse_inet_pton_v6(benchmark::State& s) { parseLibc(s, true); }
void BM_Print_NetAddr_v4(benchmark::State& s) { printOurs(s, false); }
void BM_Print_inet_ntop_v4(benchmark::State& s) { printLibc(s, false); }
void BM_Print_NetAddr_v6(benchmark::State& s) { printOurs(s, true); }
void BM_Print_inet_ntop_v6(benchmark::State& s) { printLibc(s, true); }

/* ---- 10^5 addresses in containers ---- */

constexpr size_t kMany = 100000;

std::vector<NET_ADDR> manyAddresses()
{
    std::mt19937_64 rng(11);
    std::vector<NET_ADDR> out(kMany);
    for (size_t i = 0; i < kMany; ++i) {
        if (i % 2 == 0) {
            NET_ADDR_fromIPv4(&out[i], static_cast<uint32_t>(rng()));
        } else {
            uint8_t o[16];
            uint64_t hi = 0x20010db800000000ULL | (rng() & 0xffff), lo = rng();
            for (int k = 0; k < 8; ++k) {
                o[k] = static_cast<uint8_t>(hi >> (56 - 8 * k));
                o[8 + k] = static_cast<uint8_t>(lo >> (56 - 8 * k));
            }
            NET_ADDR_fromIPv6(&out[i], o, 0);
        }
        NET_ADDR_setPort(&out[i], static_cast<NET_IP_PORT>(rng() % 65536));
    }
    return out;
}

/* The baseline key: family, 16 octets and port, compared with memcmp. */
struct RawKey {
    std::array<uint8_t, 20> bytes;
    bool operator<(const RawKey& o) const { return std::memcmp(bytes.data(), o.bytes.data(), 20) < 0; }
    bool operator==(const RawKey& o) const { return std::memcmp(bytes.data(), o.bytes.data(), 20) == 0; }
};

struct RawHash {
    size_t operator()(const RawKey& k) const
    {
        return std::hash<std::string_view>()(std::string_view(reinterpret_cast<const char*>(k.bytes.data()), 20));
    }
};

std::vector<RawKey> rawKeys(const std::vector<NET_ADDR>& addrs)
{
    std::vector<RawKey> out(addrs.size());
    for (size_t i = 0; i < addrs.size(); ++i) {
        const NET_ADDR& a = addrs[i];
        out[i].bytes.fill(0);
        out[i].bytes[0] = static_cast<uint8_t>(a.type_);
        if (a.type_ == NET_ADDR_TYPE_IPV4) {
            std::memcpy(&out[i].bytes[1], &a.addr_, 4);
        } else {
            std::memcpy(&out[i].bytes[1], a.ipv6_.addr, 16);
        }
        out[i].bytes[17] = static_cast<uint8_t>(a.port_ >> 8);
        out[i].bytes[18] = static_cast<uint8_t>(a.port_);
    }
    return out;
}

struct NetAddrLess {
    bool operator()(const NET_ADDR& a, const NET_ADDR& b) const { return NET_ADDR_compare(&a, &b) < 0; }
};
struct NetAddrHash {
    size_t operator()(const NET_ADDR& a) const { return NET_ADDR_hash(&a); }
};
struct NetAddrEq {
    bool operator()(const NET_ADDR& a, const NET_ADDR& b) const { return NET_ADDR_equal(&a, &b); }
};

template <typename Set, typename Key>
void fillAndFind(benchmark::State& state, const std::vector<Key>& keys)
{
    for (auto _ : state) {
        Set set;
        for (const Key& k : keys) {
            set.insert(k);
        }
        size_t hits = 0;
        for (const Key& k : keys) {
            hits += set.count(k);
        }
        benchmark::DoNotOptimize(hits);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(keys.size()) * 2);
}

void BM_SortedSet_NetAddr(benchmark::State& s)
{
    fillAndFind<std::set<NET_ADDR, NetAddrLess>>(s, manyAddresses());
}
void BM_SortedSet_RawKey(benchmark::State& s)
{
    fillAndFind<std::set<RawKey>>(s, rawKeys(manyAddresses()));
}
void BM_HashSet_NetAddr(benchmark::State& s)
{
    fillAndFind<std::unordered_set<NET_ADDR, NetAddrHash, NetAddrEq>>(s, manyAddresses());
}
void BM_HashSet_RawKey(benchmark::State& s)
{
    fillAndFind<std::unordered_set<RawKey, RawHash>>(s, rawKeys(manyAddresses()));
}

}  // namespace

BENCHMARK(BM_Parse_NetAddr_v4);
BENCHMARK(BM_Parse_inet_pton_v4);
BENCHMARK(BM_Parse_NetAddr_v6);
BENCHMARK(BM_Parse_inet_pton_v6);
BENCHMARK(BM_Print_NetAddr_v4);
BENCHMARK(BM_Print_inet_ntop_v4);
BENCHMARK(BM_Print_NetAddr_v6);
BENCHMARK(BM_Print_inet_ntop_v6);
BENCHMARK(BM_SortedSet_NetAddr)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SortedSet_RawKey)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HashSet_NetAddr)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HashSet_RawKey)->Unit(benchmark::kMillisecond);
