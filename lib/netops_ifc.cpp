// Which network interface a short user text means: a name, an address that
// an interface holds, or one of the words for no particular interface.
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "netops.h"
#include "platform.h"
#include "syswrap.h"

LOG_UNIT(LLMOD_DEFAULT);

namespace {

// Same family and same address bytes; scope and port don't count. Callers
// hand in only the two families handled, so another is a fault.
bool saddr_equal(const sockaddr* a, const sockaddr* b)
{
    if (a->sa_family != b->sa_family)
        return false;
    switch (a->sa_family) {
    case AF_INET:
        return memcmp(&reinterpret_cast<const sockaddr_in*>(a)->sin_addr,
                      &reinterpret_cast<const sockaddr_in*>(b)->sin_addr, sizeof(in_addr)) == 0;
    case AF_INET6:
        return memcmp(&reinterpret_cast<const sockaddr_in6*>(a)->sin6_addr,
                      &reinterpret_cast<const sockaddr_in6*>(b)->sin6_addr, sizeof(in6_addr)) == 0;
    default:
        LOG_AT(ERR_level, "%s: unrecognized family: %d\n", "saddr_equal", a->sa_family);
        LOG_ASSERT(false);
        return false;
    }
}

// The first resolved form of a numeric address that a socket can be made
// for; false when there is none.
bool numeric_addr(const char* ifc, sockaddr_storage* out)
{
    static const char* const fn = "ifaddr_index";
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo* res = nullptr;
    if (W_getaddrinfo(fn, ifc, nullptr, &hints, &res) != 0)
        return false;

    errno = 0;
    bool found = false;
    for (const addrinfo* ai = res; ai != nullptr; ai = ai->ai_next) {
        LOG_AT(DEBUG_level, "af=%s (%d), proto = %d\n", af_name(ai->ai_family), ai->ai_family, ai->ai_protocol);
        const int fd = W_socket(fn, ai->ai_family, ai->ai_socktype, ai->ai_protocol);
        if (fd < 0)
            continue;
        (void)plat_sock_defaults(fd, ai->ai_family);
        W_close(fn, fd);
        LOG_ASSERT(ai->ai_addrlen <= sizeof(sockaddr_storage));
        memcpy(out, ai->ai_addr, ai->ai_addrlen);
        found = true;
        break;
    }
    freeaddrinfo(res);
    return found;
}

}  // namespace

int is_anyaddr(const char* addr_str)
{
    return addr_str == nullptr || addr_str[0] == '\0' || strcasecmp(addr_str, "any") == 0 ||
           strcasecmp(addr_str, "all") == 0;
}

int is_ipv6_mc_local(sockaddr* sa)
{
    if (sa->sa_family != AF_INET6)
        return 0;
    const uint8_t* b = reinterpret_cast<sockaddr_in6*>(sa)->sin6_addr.s6_addr;
    const int scope = b[1] & 0x0f;
    return b[0] == 0xff && (scope == 1 || scope == 2);  // interface- or link-local
}

ifc_info* any_ifc_info(int af)
{
    LOG_ASSERT(af == AF_INET || af == AF_INET6);
    auto* rec = static_cast<ifc_info*>(W_calloc("any_ifc_info", 1, sizeof(ifc_info)));
    if (rec == nullptr)
        return nullptr;
    // The zeroed bytes already are the any-address of either family.
    rec->ss.ss_family = static_cast<sa_family_t>(af);
    return rec;
}

ifc_info* get_ifc_info(int af, const char* tag)
{
    static const char* const fn = "get_ifc_info";
    auto* rec = static_cast<ifc_info*>(W_calloc(fn, 1, sizeof(ifc_info)));
    if (rec == nullptr)
        return nullptr;

    rec->idx = ifaddr_index(tag, &rec->ss);
    if (rec->idx == 0) {
        LOG_AT(ERR_level, "[%s] is not a valid %s interface address.\n", tag, af_name(af));
        free(rec);
        return nullptr;
    }

    int rc = 0;
    if (if_indextoname(rec->idx, rec->name) == nullptr) {
        LOG_AT(ERR_level, "%s: if_indextoname(%d, buf): %s\n", fn, static_cast<int>(rec->idx), strerror(errno));
        rc = -1;
    }
    // A tag that was a name left no address: take the interface's own.
    if (rec->ss.ss_family == 0)
        rc = ifc_addr_lookup(af, rec->name, reinterpret_cast<sockaddr*>(&rec->ss), sizeof(rec->ss));

    if (rc == 0)
        return rec;
    free(rec);
    return nullptr;
}

unsigned int ifaddr_index(const char* ifc, sockaddr_storage* ss)
{
    static const char* const fn = "ifaddr_index";
    LOG_ASSERT(ifc);
    const unsigned int idx = if_nametoindex(ifc);
    if (idx != 0)
        return idx;

    sockaddr_storage local{};
    sockaddr_storage* addr = ss ? ss : &local;
    if (!numeric_addr(ifc, addr))
        return 0;

    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        // The errno value comes back where an index is expected.
        const int err = errno;
        LOG_AT(ERR_level, "%s: getifaddrs [%s] (family=%d): %s\n", fn, ifc, 0, strerror(err));
        return static_cast<unsigned int>(err);
    }
    unsigned int found = 0;
    for (const ifaddrs* ifa = list; ifa != nullptr; ifa = ifa->ifa_next) {
        if (ifa->ifa_addr == nullptr || !saddr_equal(reinterpret_cast<const sockaddr*>(addr), ifa->ifa_addr))
            continue;
        found = if_nametoindex(ifa->ifa_name);
        LOG_AT(DEBUG_level, "%s: %s matched to interface [%s], idx=%u\n", fn, ifc, ifa->ifa_name, found);
        break;
    }
    freeifaddrs(list);
    return found;
}

int ifc_addr_lookup(int family, const char* ifc, sockaddr* sa, socklen_t len)
{
    static const char* const fn = "ifc_addr_lookup";
    LOG_ASSERT(sa && ifc);
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        const int err = errno;
        LOG_AT(ERR_level, "%s: getifaddrs [%s] (family=%d): %s\n", fn, ifc, family, strerror(err));
        return err;
    }

    const sockaddr* found = nullptr;
    const sockaddr* local_scope = nullptr;
    for (const ifaddrs* ifa = list; ifa != nullptr; ifa = ifa->ifa_next) {
        if (ifa->ifa_addr == nullptr || ifa->ifa_addr->sa_family != family ||
            strncmp(ifa->ifa_name, ifc, IFC_NAME_LEN) != 0)
            continue;
        // An address of local scope is taken only when nothing else turns up.
        if (is_ipv6_mc_local(ifa->ifa_addr)) {
            local_scope = ifa->ifa_addr;
            continue;
        }
        found = ifa->ifa_addr;
        break;
    }
    if (found == nullptr)
        found = local_scope;

    if (found == nullptr) {
        freeifaddrs(list);
        LOG_AT(ERR_level, "%s: failed to look up address for ifc=%s\n", fn, ifc);
        return -1;
    }
    cpy_sockaddr(found, sa, len);
    freeifaddrs(list);
    return 0;
}
