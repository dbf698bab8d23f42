// quillane-netinfo: the IPv4 summary of one network interface (address,
// netmask, hardware address, gateway, first name server) as the library's
// network module sees it, for a person at the device's console.
#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <net/route.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "util_function.h"

namespace {

const char* kUsage =
    "usage: quillane-netinfo [--verbose] IFNAME\n"
    "\n"
    "Prints the IPv4 summary of the network interface IFNAME: its address,\n"
    "netmask and hardware address, the gateway of the first gateway route in\n"
    "the kernel's route table (with that route and the interface it leaves\n"
    "through) and the first name server of /etc/resolv.conf.\n"
    "\n"
    "options:\n"
    "  --verbose   also show the library's own diagnostics\n"
    "  --help      this text\n"
    "\n"
    "exit status: 0 summary printed (\"none\" where the system has no gateway\n"
    "             or name server), 1 the interface cannot be read (no such\n"
    "             interface, or no IPv4 address), 2 usage error\n";

const char* kRouteTable = "/proc/net/route";

[[noreturn]] void usage_error(const std::string& msg) {
    std::fprintf(stderr, "quillane-netinfo: %s\n(quillane-netinfo --help for the usage)\n", msg.c_str());
    std::exit(2);
}

std::string dotted(in_addr_t addr) {
    char text[INET_ADDRSTRLEN] = {};
    struct in_addr in;
    in.s_addr = addr;
    inet_ntop(AF_INET, &in, text, sizeof text);
    return text;
}

// The library reports every refused request on stderr in its own terms
// ("ioctl SIOCGIFADDR"); the tool says what failed in words instead, so
// those lines are sent to /dev/null unless the user asked for them.
class QuietStderr {
public:
    explicit QuietStderr(bool quiet) {
        if (!quiet) return;
        std::fflush(stderr);
        const int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (null_fd < 0) return;
        saved_ = dup(STDERR_FILENO);
        if (saved_ >= 0 && dup2(null_fd, STDERR_FILENO) < 0) {
            close(saved_);
            saved_ = -1;
        }
        close(null_fd);
    }
    ~QuietStderr() {
        if (saved_ < 0) return;
        const int err = errno;  // callers read errno after the scope ends
        std::fflush(stderr);
        dup2(saved_, STDERR_FILENO);
        close(saved_);
        errno = err;
    }
    QuietStderr(const QuietStderr&) = delete;
    QuietStderr& operator=(const QuietStderr&) = delete;

private:
    int saved_ = -1;
};

// The library takes the first route through a gateway, default or not. Find
// that same line again to say which route it is and where it leaves.
std::string gateway_route(in_addr_t gateway) {
    FILE* f = std::fopen(kRouteTable, "r");
    if (f == nullptr) return "";
    char line[256];
    std::string where;
    bool header = true;
    while (std::fgets(line, sizeof line, f) != nullptr) {
        if (header) {
            header = false;
            continue;
        }
        char ifname[IFNAMSIZ + 1] = {};
        unsigned int dest = 0, gw = 0, flags = 0, refcnt = 0, use = 0, metric = 0, mask = 0;
        if (std::sscanf(line, "%16s %x %x %x %u %u %u %x", ifname, &dest, &gw, &flags, &refcnt, &use, &metric,
                        &mask) != 8)
            continue;
        if ((flags & (RTF_UP | RTF_GATEWAY)) != (RTF_UP | RTF_GATEWAY)) continue;
        if (gw != gateway) break;  // not the line the library read: say nothing rather than guess
        if (dest == 0 && mask == 0)
            where = std::string(" (default route, via ") + ifname + ")";
        else
            where = " (route to " + dotted(dest) + "/" + std::to_string(std::popcount(mask)) + ", via " + ifname + ")";
        break;
    }
    std::fclose(f);
    return where;
}

}  // namespace

int main(int argc, char** argv) {
    bool verbose = false;
    std::string ifname;
    bool have_ifname = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (arg == "--verbose" || arg == "-v") {
            verbose = true;
        } else if (arg.size() > 1 && arg[0] == '-') {
            usage_error("unknown option '" + arg + "'");
        } else if (have_ifname) {
            usage_error("one interface name only ('" + ifname + "', then '" + arg + "')");
        } else {
            ifname = arg;
            have_ifname = true;
        }
    }
    if (!have_ifname) usage_error("no interface name given");
    if (ifname.empty() || ifname == "-") usage_error("'" + ifname + "' is not an interface name");
    if (ifname.size() >= IFNAMSIZ)
        usage_error("interface name '" + ifname + "' is longer than " + std::to_string(IFNAMSIZ - 1) + " characters");

    util_ops_pfun->dbgout->pstDebugAttr->get()->enType = UTIL_DBGOUT_ENUM_TYPE_NOLOG;
    util_ops_net_fun_t* net = util_ops_pfun->net;

    // get_info fills the interface's fields, then looks for the gateway and
    // writes that field whether it finds one or not: a gateway field still
    // holding the marker means the interface itself could not be read.
    // 255.255.255.255 is neither an interface address nor a gateway.
    util_net_config_t cfg;
    std::memset(&cfg, 0, sizeof cfg);
    cfg.ifaddr = INADDR_NONE;
    cfg.gateway = INADDR_NONE;
    bool whole;
    int err;
    in_addr_t dns_addr;
    {
        QuietStderr quiet(!verbose);
        errno = 0;
        whole = net->get_info(ifname.data(), &cfg) == 0;
        err = errno;
        // Without a gateway get_info stops before the name server: ask for it alone.
        dns_addr = whole ? cfg.dns : net->get_dns();
    }
    if (!whole && cfg.gateway == INADDR_NONE) {
        if (if_nametoindex(ifname.c_str()) == 0)
            std::fprintf(stderr, "quillane-netinfo: no interface named '%s'\n", ifname.c_str());
        else if (cfg.ifaddr == INADDR_NONE && (err == EADDRNOTAVAIL || err == 0))
            std::fprintf(stderr, "quillane-netinfo: %s has no IPv4 address\n", ifname.c_str());
        else
            std::fprintf(stderr, "quillane-netinfo: cannot read the IPv4 settings of %s: %s\n", ifname.c_str(),
                         std::strerror(err));
        return 1;
    }
    const std::string dns = dns_addr == 0 || dns_addr == INADDR_NONE ? "none" : dotted(dns_addr);
    const std::string gateway = whole ? dotted(cfg.gateway) + gateway_route(cfg.gateway) : "none";
    std::printf("interface    %s\n", ifname.c_str());
    std::printf("address      %s\n", dotted(cfg.ifaddr).c_str());
    std::printf("netmask      %s\n", dotted(cfg.netmask).c_str());
    std::printf("mac          %02x:%02x:%02x:%02x:%02x:%02x\n", cfg.mac[0], cfg.mac[1], cfg.mac[2], cfg.mac[3],
                cfg.mac[4], cfg.mac[5]);
    std::printf("gateway      %s\n", gateway.c_str());
    std::printf("name server  %s\n", dns.c_str());
    if (std::fflush(stdout) != 0) {
        std::fprintf(stderr, "quillane-netinfo: cannot write the summary: %s\n", std::strerror(errno));
        return 1;
    }
    return 0;
}
