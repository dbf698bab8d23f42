// Network configuration: interface requests through socket ioctls, the
// default gateway through the kernel's route table text, the resolver file's
// name servers, and host-name resolution.
//
// Every request opens its own datagram socket and closes it on every path;
// the diagnostics keep errno, so a caller sees why the kernel refused.
#include "util_net_function.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <net/route.h>
#include <netdb.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cctype>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <memory>

#include "core/util_msg.h"
#include "net/util_net_internal.h"
#include "core/util_raii.h"

char quillane::net::procNetRoute_path[kPathBufSize] = "/proc/net/route";
char quillane::net::resolv_conf_path[kPathBufSize] = "/etc/resolv.conf";

namespace {

using quillane::UniqueFd;
using quillane::UniqueFile;
using quillane::net::procNetRoute_path;
using quillane::net::resolv_conf_path;

constexpr std::size_t kRouteLineSize = 130;
constexpr std::size_t kResolverTextSize = 128;
// get_dns reads into 80 bytes; get_dns_str never writes more than that.
constexpr std::size_t kDnsNameSize = 80;
constexpr std::size_t kHostTextSize = 1025;
constexpr short kUpRunning = IFF_UP | IFF_RUNNING;

UniqueFd open_request_socket() noexcept {
    return UniqueFd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}

// The interface request for ifname: at most 16 bytes of the name, the rest
// NUL. Some readers also cut the name to 15 characters themselves; the other
// requests leave that to the kernel, which does the same.
struct ifreq make_request(const UTIL_CHAR* ifname, bool terminate) noexcept {
    struct ifreq ifr;
    std::memset(&ifr, 0, sizeof ifr);
    std::strncpy(ifr.ifr_name, ifname, sizeof ifr.ifr_name);
    if (terminate) ifr.ifr_name[sizeof ifr.ifr_name - 1] = '\0';
    return ifr;
}

// Null arguments are refused before any socket or file is touched.
UTIL_S32 refuse_null() noexcept {
    errno = EINVAL;
    return -1;
}

UTIL_S32 clamp_length(UTIL_S32 len) noexcept { return len > 0 ? len : 0; }

// How a step failed, as the index of the message the operation prints for it:
// the first is the socket's (or the resolver text's), then its requests' in
// order. kSilent fails with the result alone.
enum class Fail { kNone, kFirst, kSecond, kThird, kSilent };

// Tells whether a step failed. A failure prints the calling operation's
// message for it, so the message carries that operation's name and line; the
// caller then returns -1.
bool failed(quillane::Where where, Fail fail, std::initializer_list<const char*> texts) noexcept {
    if (fail == Fail::kNone) return false;
    const auto index = static_cast<std::size_t>(fail) - 1;
    if (fail != Fail::kSilent && index < texts.size()) UTIL_DBG_ERR_AT(where, "%s", std::data(texts)[index]);
    return true;
}

// Opens a socket, issues one ioctl on ifr and closes the socket.
Fail one_request(unsigned long request, struct ifreq& ifr) noexcept {
    UniqueFd fd = open_request_socket();
    if (!fd) return Fail::kFirst;
    return ioctl(fd.get(), request, &ifr) < 0 ? Fail::kSecond : Fail::kNone;
}

// An IPv4 socket address without a port, as the setters and the route
// requests carry it.
struct sockaddr_in inet_address(in_addr_t addr) noexcept {
    struct sockaddr_in in;
    std::memset(&in, 0, sizeof in);
    in.sin_family = AF_INET;
    in.sin_addr.s_addr = addr;
    return in;
}

in_addr_t address_of(const struct sockaddr& addr) noexcept {
    struct sockaddr_in in;
    std::memcpy(&in, &addr, sizeof in);
    return in.sin_addr.s_addr;
}

void address_text(const struct sockaddr& addr, UTIL_CHAR* out, UTIL_S32 outLen) noexcept {
    const struct in_addr in = {address_of(addr)};
    // A buffer too small for the text is not an error: inet_ntop leaves it as is.
    inet_ntop(AF_INET, &in, out, static_cast<socklen_t>(clamp_length(outLen)));
}

// The readers of an address as text: the name is cut to 15 characters, and
// the address and the netmask share one place in the answer.
Fail address_as_text(const UTIL_CHAR* ifname, unsigned long request, UTIL_CHAR* out, UTIL_S32 outLen) noexcept {
    struct ifreq ifr = make_request(ifname, true);
    const Fail fail = one_request(request, ifr);
    if (fail == Fail::kNone) address_text(ifr.ifr_addr, out, outLen);
    return fail;
}

UTIL_S32 Func_net_get_ifaddr_str(UTIL_CHAR* ifname, UTIL_CHAR* ipaddr, UTIL_S32 ipaddrLen) noexcept {
    if (ifname == nullptr || ipaddr == nullptr) return refuse_null();
    if (failed(UTIL_HERE, address_as_text(ifname, SIOCGIFADDR, ipaddr, ipaddrLen),
               {"Func_net_get_ifaddr_str socket\n", "Func_net_get_ifaddr_str ioctl\n"})) {
        return -1;
    }
    return 0;
}

UTIL_S32 Func_net_get_netmask(UTIL_CHAR* ifname, UTIL_CHAR* ipaddr, UTIL_S32 ipaddrLen) noexcept {
    if (ifname == nullptr || ipaddr == nullptr) return refuse_null();
    if (failed(UTIL_HERE, address_as_text(ifname, SIOCGIFNETMASK, ipaddr, ipaddrLen),
               {"Func_net_get_netmask socket\n", "Func_net_get_netmask ioctl\n"})) {
        return -1;
    }
    return 0;
}

UTIL_S32 Func_net_get_hwaddr(UTIL_CHAR* ifname, UTIL_UCHAR* mac) noexcept {
    if (ifname == nullptr || mac == nullptr) return refuse_null();
    struct ifreq ifr = make_request(ifname, false);
    if (failed(UTIL_HERE, one_request(SIOCGIFHWADDR, ifr),
               {"Func_net_get_hwaddr socket error\n", "Func_net_get_hwaddr: ioctl SIOCGIFHWADDR\n"})) {
        return -1;
    }
    std::memcpy(mac, ifr.ifr_hwaddr.sa_data, 6);
    return 0;
}

UTIL_S32 Func_net_get_flag(UTIL_CHAR* ifname) noexcept {
    if (ifname == nullptr) return refuse_null();
    struct ifreq ifr = make_request(ifname, false);
    if (failed(UTIL_HERE, one_request(SIOCGIFFLAGS, ifr),
               {"Func_net_get_flag socket error\n", "Func_net_get_flag: ioctl SIOCGIFFLAGS\n"})) {
        return -1;
    }
    // The word is signed: with IFF_DYNAMIC (bit 15) set the result is negative.
    return static_cast<UTIL_S32>(ifr.ifr_flags);
}

// The setters' request, carrying addr. The address and the netmask share
// one place in the request.
Fail set_address(const UTIL_CHAR* ifname, unsigned long request, in_addr_t addr) noexcept {
    static_assert(offsetof(struct ifreq, ifr_addr) == offsetof(struct ifreq, ifr_netmask));
    struct ifreq ifr = make_request(ifname, false);
    const struct sockaddr_in in = inet_address(addr);
    std::memcpy(&ifr.ifr_addr, &in, sizeof in);
    return one_request(request, ifr);
}

UTIL_S32 Func_net_set_ifaddr(UTIL_CHAR* ifname, in_addr_t addr) noexcept {
    if (ifname == nullptr) return refuse_null();
    if (failed(UTIL_HERE, set_address(ifname, SIOCSIFADDR, addr),
               {"Func_net_set_ifaddr socket error\n", "Func_net_set_ifaddr: ioctl SIOCSIFADDR\n"})) {
        return -1;
    }
    return 0;
}

UTIL_S32 Func_net_set_netmask(UTIL_CHAR* ifname, in_addr_t addr) noexcept {
    if (ifname == nullptr) return refuse_null();
    if (failed(UTIL_HERE, set_address(ifname, SIOCSIFNETMASK, addr),
               {"Func_net_set_netmask socket error\n", "Func_net_set_netmask: ioctl SIOCSIFNETMASK\n"})) {
        return -1;
    }
    return 0;
}

// Reads the flags word and writes it back changed, on one socket.
Fail change_flags(const UTIL_CHAR* ifname, UTIL_S16 set, UTIL_S16 clear) noexcept {
    UniqueFd fd = open_request_socket();
    if (!fd) return Fail::kFirst;
    struct ifreq ifr = make_request(ifname, false);
    if (ioctl(fd.get(), SIOCGIFFLAGS, &ifr) < 0) return Fail::kSecond;
    const short flags = static_cast<short>((ifr.ifr_flags | set) & ~clear);
    ifr = make_request(ifname, false);
    ifr.ifr_flags = flags;
    if (ioctl(fd.get(), SIOCSIFFLAGS, &ifr) < 0) return Fail::kThird;
    return Fail::kNone;
}

UTIL_S32 net_set_flag(UTIL_CHAR* ifname, UTIL_S16 flag) noexcept {
    if (failed(UTIL_HERE, change_flags(ifname, flag, 0),
               {"net_set_flag socket error\n", "net_set_flag: ioctl SIOCGIFFLAGS.\n",
                "net_set_flag: ioctl SIOCSIFFLAGS\n"})) {
        return -1;
    }
    return 0;
}

UTIL_S32 net_clr_flag(UTIL_CHAR* ifname, UTIL_S16 flag) noexcept {
    if (failed(UTIL_HERE, change_flags(ifname, 0, flag),
               {"net_clr_flag socket error\n", "net_clr_flag: ioctl SIOCGIFFLAGS.\n",
                "net_clr_flag: ioctl SIOCSIFFLAGS\n"})) {
        return -1;
    }
    return 0;
}

UTIL_S32 Func_net_nic_up(UTIL_CHAR* ifname) noexcept {
    if (ifname == nullptr) return refuse_null();
    return net_set_flag(ifname, kUpRunning);
}

// Clears IFF_UP only: IFF_RUNNING stays as it was.
UTIL_S32 Func_net_nic_down(UTIL_CHAR* ifname) noexcept {
    if (ifname == nullptr) return refuse_null();
    return net_clr_flag(ifname, IFF_UP);
}

UTIL_S32 Func_net_get_ip(UTIL_S32 skfd, UTIL_CHAR* ifname, struct in_addr* pstInaddr) noexcept {
    if (pstInaddr == nullptr) return refuse_null();
    if (ifname == nullptr) {
        pstInaddr->s_addr = 0xFFFFFFFFu;
        return refuse_null();
    }
    struct ifreq ifr = make_request(ifname, false);
    if (ioctl(skfd, SIOCGIFADDR, &ifr) < 0) {
        UTIL_DBG_ERR("Func_net_get_ip: ioctl SIOCGIFADDR\n");
        pstInaddr->s_addr = 0xFFFFFFFFu;
        return -1;
    }
    pstInaddr->s_addr = address_of(ifr.ifr_addr);
    return 0;
}

// ---- the route table ----

// A gateway line: interface, destination, gateway and flags parse, and the
// route is up and goes through a gateway. The destination is not examined.
UTIL_S32 net_search_gateway(UTIL_CHAR* buf, in_addr_t* gate_addr) noexcept {
    char name[16];
    unsigned long long destination = 0;
    unsigned long long gateway = 0;
    unsigned int flags = 0;
    if (std::sscanf(buf, "%15s\t%08llX\t%08llX\t%8X\t", name, &destination, &gateway, &flags) != 4) return -1;
    if ((flags & (RTF_UP | RTF_GATEWAY)) != (RTF_UP | RTF_GATEWAY)) return -1;
    *gate_addr = static_cast<in_addr_t>(gateway);
    return 0;
}

// The default-route request through addr, as the route ioctls take it.
struct rtentry default_route_via(in_addr_t addr) noexcept {
    struct rtentry rt;
    std::memset(&rt, 0, sizeof rt);
    const struct sockaddr_in any = inet_address(INADDR_ANY);
    const struct sockaddr_in gateway = inet_address(addr);
    std::memcpy(&rt.rt_dst, &any, sizeof any);
    std::memcpy(&rt.rt_genmask, &any, sizeof any);
    std::memcpy(&rt.rt_gateway, &gateway, sizeof gateway);
    rt.rt_flags = RTF_UP | RTF_GATEWAY;
    return rt;
}

Fail route_request(unsigned long request, in_addr_t addr) noexcept {
    struct rtentry rt = default_route_via(addr);
    UniqueFd fd = open_request_socket();
    if (!fd) return Fail::kFirst;
    return ioctl(fd.get(), request, &rt) < 0 ? Fail::kSecond : Fail::kNone;
}

UTIL_S32 net_add_gateway(in_addr_t addr) noexcept {
    if (failed(UTIL_HERE, route_request(SIOCADDRT, addr),
               {"net_add_gateway socket error\n", "net_add_gateway: ioctl SIOCADDRT\n"})) {
        return -1;
    }
    return 0;
}

UTIL_S32 net_del_gateway(in_addr_t addr) noexcept {
    if (failed(UTIL_HERE, route_request(SIOCDELRT, addr),
               {"net_del_gateway socket error\n", "net_del_gateway: ioctl SIOCDELRT\n"})) {
        return -1;
    }
    return 0;
}

// Opens the route table and consumes its header line, or returns null.
UniqueFile open_route_table() noexcept {
    UniqueFile fp(std::fopen(procNetRoute_path, "re"));
    char header[kRouteLineSize];
    // An empty table has no header either; the walk that follows then ends at once.
    if (fp) static_cast<void>(std::fgets(header, sizeof header, fp.get()) != nullptr);
    return fp;
}

// Hands the gateway of every gateway line, in table order, to visit until it
// returns true; tells whether it did.
template <typename Visit>
bool for_each_gateway(FILE* fp, Visit visit) noexcept {
    char line[kRouteLineSize];
    while (std::fgets(line, sizeof line, fp) != nullptr) {
        in_addr_t gateway = 0;
        if (net_search_gateway(line, &gateway) == 0 && visit(gateway)) return true;
    }
    return false;
}

UTIL_S32 Func_net_get_gateway(in_addr_t* pstInaddrt) noexcept {
    if (pstInaddrt == nullptr) return refuse_null();
    UniqueFile fp = open_route_table();
    if (!fp) {
        UTIL_DBG_ERR("error: %s, INET (IPv4) not configured in this system\n", procNetRoute_path);
        *pstInaddrt = 0;
        return -1;
    }
    if (for_each_gateway(fp.get(), [&](in_addr_t gateway) {
            *pstInaddrt = gateway;
            return true;
        })) {
        return 0;
    }
    *pstInaddrt = 0;
    return -1;
}

UTIL_S32 Func_net_get_gateway_str(UTIL_CHAR* ip) noexcept {
    if (ip == nullptr) return refuse_null();
    in_addr_t gateway = 0;
    if (Func_net_get_gateway(&gateway) != 0 || gateway == 0) return -1;
    NET_IPV4 bytes;
    std::memcpy(bytes.str, &gateway, sizeof bytes.str);
    std::snprintf(ip, 16, "%d.%d.%d.%d", bytes.str[0], bytes.str[1], bytes.str[2], bytes.str[3]);
    return 0;
}

UTIL_S32 Func_net_clean_gateway() noexcept {
    UniqueFile fp = open_route_table();
    if (!fp) {
        UTIL_DBG_ERR("error: %s, INET (IPv4) not configured in this system\n", procNetRoute_path);
        return -1;
    }
    // A refused delete reports itself; the walk goes on.
    for_each_gateway(fp.get(), [](in_addr_t gateway) {
        net_del_gateway(gateway);
        return false;
    });
    return 0;
}

UTIL_S32 Func_net_set_gateway(in_addr_t addr) noexcept {
    Func_net_clean_gateway();
    return net_add_gateway(addr);
}

// ---- the resolver file ----

// True when text holds a control character (C0 or DEL). Compared as
// unsigned bytes, so UTF-8 bytes above 0x7F never count, whatever the
// signedness of char.
bool has_control_character(const UTIL_CHAR* text) noexcept {
    for (const auto* p = reinterpret_cast<const unsigned char*>(text); *p != 0; ++p) {
        if (*p < 0x20 || *p == 0x7F) return true;
    }
    return false;
}

// Rewrites the resolver file with two name-server lines. Lines that would not
// fit the 128-byte text are refused before the file is touched, so it is never
// rewritten with a cut address. So is a text with a line end or any other
// control character: it would add lines of its own ("options", "search") to
// a file every resolver of the system reads. Nothing is written then, which
// is reported as a write that wrote nothing. The stream is unbuffered so that
// the one fwrite is the one write to the file and its result tells whether
// anything reached the file.
Fail rewrite_resolver(const UTIL_CHAR* first, const UTIL_CHAR* second) noexcept {
    if (has_control_character(first) || has_control_character(second)) {
        errno = EINVAL;
        return Fail::kSecond;
    }
    char text[kResolverTextSize] = {};
    const int n = std::snprintf(text, sizeof text, "nameserver %s\nnameserver %s\n", first, second);
    if (n < 0 || static_cast<std::size_t>(n) >= sizeof text) {
        errno = EINVAL;
        return Fail::kFirst;
    }
    UniqueFile fp(std::fopen(resolv_conf_path, "we"));
    if (!fp) return Fail::kSilent;
    std::setvbuf(fp.get(), nullptr, _IONBF, 0);
    if (std::fwrite(text, 1, static_cast<std::size_t>(n), fp.get()) == 0) return Fail::kSecond;
    return Fail::kNone;
}

UTIL_S32 Func_net_set_dns(UTIL_CHAR* dnsname) noexcept {
    if (dnsname == nullptr) return refuse_null();
    if (failed(UTIL_HERE, rewrite_resolver(dnsname, quillane::net::kFallbackNameServer),
               {"Func_net_set_dns: name server text too long\n", "Func_net_set_dns fwrite\n"})) {
        return -1;
    }
    return 0;
}

UTIL_S32 Func_net_set_dns_ex(UTIL_CHAR* domain_dns, UTIL_CHAR* wifi_dns) noexcept {
    if (domain_dns == nullptr || wifi_dns == nullptr) return refuse_null();
    if (failed(UTIL_HERE, rewrite_resolver(domain_dns, wifi_dns),
               {"Func_net_set_dns_ex: name server text too long\n", "Func_net_set_dns_ex fwrite\n"})) {
        return -1;
    }
    return 0;
}

// Only the start of the file counts: "nameserver", white space, one token.
// A token that would not fit 80 bytes is no usable name server: the caller's
// buffer is left as it was, as for a file that starts otherwise.
UTIL_S32 Func_net_get_dns_str(UTIL_CHAR* dnsname) noexcept {
    if (dnsname == nullptr) return refuse_null();
    UniqueFile fp(std::fopen(resolv_conf_path, "re"));
    if (!fp) return -1;
    char token[kDnsNameSize];
    const int n = std::fscanf(fp.get(), "nameserver %79s", token);
    if (n == EOF) return 1;
    if (n == 1) {
        const int next = std::fgetc(fp.get());
        const bool whole = next == EOF || std::isspace(next) != 0;
        if (whole) std::memcpy(dnsname, token, std::strlen(token) + 1);
    }
    return 0;
}

in_addr_t Func_net_get_dns() noexcept {
    char name[kDnsNameSize] = {};
    if (Func_net_get_dns_str(name) != 0) return 0;
    return inet_addr(name);
}

// ---- summary and name resolution ----

UTIL_S32 Func_net_get_info(UTIL_CHAR* ifname, util_net_config_t* netcfg) noexcept {
    if (ifname == nullptr || netcfg == nullptr) return refuse_null();
    {
        UniqueFd fd = open_request_socket();
        if (!fd) {
            UTIL_DBG_ERR("Func_net_get_info socket error\n");
            return -1;
        }
        struct ifreq ifr = make_request(ifname, false);
        if (ioctl(fd.get(), SIOCGIFADDR, &ifr) < 0) {
            UTIL_DBG_ERR("Func_net_get_info: ioctl SIOCGIFADDR\n");
            return -1;
        }
        netcfg->ifaddr = address_of(ifr.ifr_addr);
        if (ioctl(fd.get(), SIOCGIFNETMASK, &ifr) < 0) {
            UTIL_DBG_ERR("Func_net_get_info: ioctl SIOCGIFNETMASK\n");
            return -1;
        }
        netcfg->netmask = address_of(ifr.ifr_netmask);
        if (ioctl(fd.get(), SIOCGIFHWADDR, &ifr) < 0) {
            UTIL_DBG_ERR("Func_net_get_info: ioctl SIOCGIFHWADDR\n");
            return -1;
        }
        std::memcpy(netcfg->mac, ifr.ifr_hwaddr.sa_data, sizeof netcfg->mac);
    }
    const UTIL_S32 ret = Func_net_get_gateway(&netcfg->gateway);
    if (ret != 0 || netcfg->gateway == 0) {
        UTIL_DBG_ERR("Func_net_get_info: Func_net_get_gateway failed! ret=%d\n", ret);
        return -1;
    }
    netcfg->dns = Func_net_get_dns();
    return 0;
}

UTIL_S32 Func_getIpaddrByDomainName(const UTIL_CHAR* domain, UTIL_CHAR* ipaddr, UTIL_S32 ipaddrLen) noexcept {
    if (domain == nullptr || ipaddr == nullptr) return refuse_null();
    const struct hostent* host = gethostbyname(domain);
    if (host == nullptr || host->h_addr_list == nullptr || host->h_addr_list[0] == nullptr) {
        UTIL_DBG_ERR("Func_getIpaddrByDomainName: gethostbyname error\n");
        return -1;
    }
    inet_ntop(AF_INET, host->h_addr_list[0], ipaddr, static_cast<socklen_t>(clamp_length(ipaddrLen)));
    return 0;
}

struct AddrInfoFree {
    void operator()(struct addrinfo* list) const noexcept { freeaddrinfo(list); }
};

UTIL_S32 Func_getIpaddrByDomainName_V2(const UTIL_CHAR* domain, UTIL_CHAR* ipaddr, UTIL_S32 ipaddrLen) noexcept {
    if (domain == nullptr || ipaddr == nullptr) return refuse_null();
    struct addrinfo hints;
    std::memset(&hints, 0, sizeof hints);
    hints.ai_flags = AI_CANONNAME;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    struct addrinfo* raw = nullptr;
    const int found = getaddrinfo(domain, nullptr, &hints, &raw);
    const std::unique_ptr<struct addrinfo, AddrInfoFree> list(raw);
    if (found != 0) {
        UTIL_DBG_ERR("warning1: Func_getIpaddrByDomainName_V2: getaddrinfo: %s\n", gai_strerror(found));
        return -1;
    }
    // Clear before every conversion: at the start, and after each failure.
    char text[kHostTextSize] = {};
    for (const struct addrinfo* entry = list.get(); entry != nullptr; entry = entry->ai_next) {
        const int converted =
            getnameinfo(entry->ai_addr, entry->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST);
        if (converted == 0) break;
        std::memset(text, 0, sizeof text);
        UTIL_DBG_ERR("warning2: Func_getIpaddrByDomainName_V2: getaddrinfo: %s\n", gai_strerror(converted));
    }
    // Exactly ipaddrLen bytes: a short buffer gets the text's start without its end.
    if (ipaddrLen > 0 && ipaddrLen < static_cast<UTIL_S32>(kHostTextSize)) {
        std::memcpy(ipaddr, text, static_cast<std::size_t>(ipaddrLen));
    }
    return 0;
}

}  // namespace

util_ops_net_fun_t util_ops_net_fun = {
    Func_net_get_ifaddr_str,
    Func_net_get_netmask,
    Func_net_get_dns_str,
    Func_net_get_dns,
    Func_net_get_gateway_str,
    Func_net_get_gateway,
    Func_net_get_hwaddr,
    Func_net_nic_up,
    Func_net_get_flag,
    Func_net_nic_down,
    Func_net_set_ifaddr,
    Func_net_set_netmask,
    Func_net_set_gateway,
    Func_net_clean_gateway,
    Func_net_set_dns,
    Func_net_set_dns_ex,
    Func_net_get_info,
    Func_net_get_ip,
    Func_getIpaddrByDomainName,
    Func_getIpaddrByDomainName_V2,
};
