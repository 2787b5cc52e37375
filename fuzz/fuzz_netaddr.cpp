// Address text: whatever NET_ADDR_fromString accepts must print, parse back
// to the same record and print the same text again; the printer must honour
// every buffer size; and on plain addresses (no port, brackets or zone) the
// parser must agree with the C library's numeric parser, octet for octet.
#include "libkvc/netaddr.h"

#include <arpa/inet.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

void check(bool cond)
{
    if (!cond) {
        std::abort();
    }
}

void checkPrinter(const NET_ADDR& a, std::string* text)
{
    char buf[NET_ADDR_STRLEN];
    int n = NET_ADDR_toString(&a, buf, sizeof buf);
    check(n >= 0 && static_cast<size_t>(n) == std::strlen(buf) && n < NET_ADDR_STRLEN);
    *text = buf;
    // Exactly large enough, and one byte short, in buffers of exactly that
    // size so that ASan sees any write beyond them.
    char* fits = static_cast<char*>(std::malloc(static_cast<size_t>(n) + 1));
    check(NET_ADDR_toString(&a, fits, static_cast<size_t>(n) + 1) == n && *text == fits);
    std::free(fits);
    if (n > 0) {
        char* shortBuf = static_cast<char*>(std::malloc(static_cast<size_t>(n)));
        check(NET_ADDR_toString(&a, shortBuf, static_cast<size_t>(n)) == -1 && shortBuf[0] == '\0');
        std::free(shortBuf);
    }
}

void checkAgreement(const char* s, bool ok, const NET_ADDR& a)
{
    if (std::strpbrk(s, "[]%") != nullptr) {
        return;
    }
    const char* colon = std::strchr(s, ':');
    unsigned char want[16];
    if (colon == nullptr) {
        bool theirs = inet_pton(AF_INET, s, want) == 1;
        check(ok == theirs);
        check(!ok || (a.type_ == NET_ADDR_TYPE_IPV4 && std::memcmp(&a.addr_, want, 4) == 0));
    } else if (std::strchr(colon + 1, ':') != nullptr) {
        bool theirs = inet_pton(AF_INET6, s, want) == 1;
        check(ok == theirs);
        check(!ok || (a.type_ == NET_ADDR_TYPE_IPV6 && std::memcmp(a.ipv6_.addr, want, 16) == 0 &&
                      a.ipv6_.scope_id == 0 && a.port_ == NET_IP_PORT_UNDEF));
    } else {
        // One colon is never IPv6 text.
        check(inet_pton(AF_INET6, s, want) != 1);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 256) {
        return 0;
    }
    std::string input(reinterpret_cast<const char*>(data), size);
    const char* s = input.c_str();  // ends at the first NUL, for both parsers

    NET_ADDR a;
    bool ok = NET_ADDR_fromString(&a, s);
    checkAgreement(s, ok, a);
    if (!ok) {
        NET_ADDR unset;
        NET_ADDR_init(&unset);
        check(std::memcmp(&a, &unset, sizeof a) == 0);
        return 0;
    }
    check(!NET_ADDR_isUnset(&a) && a.proto_ == NET_PROTO_UNDEF && a.flags_ == 0);

    std::string text;
    checkPrinter(a, &text);
    NET_ADDR b;
    check(NET_ADDR_fromString(&b, text.c_str()));
    check(NET_ADDR_equal(&a, &b) && NET_ADDR_compare(&a, &b) == 0 && NET_ADDR_hash(&a) == NET_ADDR_hash(&b));
    std::string again;
    checkPrinter(b, &again);
    check(again == text);

    // Through the system's socket address and back: equal, except that port
    // 0 reads back as no port.
    sockaddr_storage ss;
    socklen_t len = 0;
    check(NET_ADDR_toSockaddr(&a, &ss, &len));
    NET_ADDR c;
    check(NET_ADDR_fromSockaddr(&c, reinterpret_cast<const sockaddr*>(&ss), len));
    if (a.port_ == 0) {
        check(c.port_ == NET_IP_PORT_UNDEF);
        c.port_ = 0;
    }
    check(NET_ADDR_equal(&a, &c));

    // Mapped forms convert both ways and keep their classes.
    NET_ADDR m;
    if (NET_ADDR_isV4Mapped(&a)) {
        check(NET_ADDR_unmapV4(&m, &a) && m.type_ == NET_ADDR_TYPE_IPV4);
        check(NET_ADDR_isLoopback(&m) == NET_ADDR_isLoopback(&a) && NET_ADDR_isPrivate(&m) == NET_ADDR_isPrivate(&a) &&
              NET_ADDR_isMulticast(&m) == NET_ADDR_isMulticast(&a) &&
              NET_ADDR_isLinkLocal(&m) == NET_ADDR_isLinkLocal(&a));
        NET_ADDR back;
        check(NET_ADDR_mapV4(&back, &m) && NET_ADDR_equal(&back, &a));
    }
    return 0;
}
