// quillane-netinfo: the IPv4 summary of one network interface (address,
// netmask, hardware address, gateway, first name server) as the library's
// network module sees it, for a person at the device's console.
#include <arpa/inet.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "util_function.h"

namespace {

const char* kUsage =
    "usage: quillane-netinfo IFNAME\n"
    "\n"
    "Prints the IPv4 summary of the network interface IFNAME: its address,\n"
    "netmask and hardware address, the gateway of the first gateway route and\n"
    "the first name server of /etc/resolv.conf.\n"
    "\n"
    "exit status: 0 summary printed (\"none\" where the system has no gateway),\n"
    "             1 the interface cannot be read, 2 usage error\n";

std::string dotted(in_addr_t addr) {
    char text[INET_ADDRSTRLEN] = {};
    struct in_addr in;
    in.s_addr = addr;
    inet_ntop(AF_INET, &in, text, sizeof text);
    return text;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (argc != 2 || argv[1][0] == '-' || argv[1][0] == '\0') {
        std::fputs(kUsage, stderr);
        return 2;
    }
    std::string ifname = argv[1];
    if (ifname.size() > 15) {
        std::fprintf(stderr, "quillane-netinfo: interface name '%s' is longer than 15 characters\n", argv[1]);
        return 2;
    }
    util_ops_pfun->dbgout->pstDebugAttr->get()->enType = UTIL_DBGOUT_ENUM_TYPE_NOLOG;
    util_ops_net_fun_t* net = util_ops_pfun->net;

    // get_info fills the interface's fields before it looks for the gateway,
    // so a system without one still gets its interface summary.
    util_net_config_t cfg;
    std::memset(&cfg, 0, sizeof cfg);
    const bool whole = net->get_info(ifname.data(), &cfg) == 0;
    static const UTIL_UCHAR no_mac[6] = {};
    if (!whole && cfg.ifaddr == 0 && std::memcmp(cfg.mac, no_mac, sizeof no_mac) == 0) {
        std::fprintf(stderr, "quillane-netinfo: cannot read the IPv4 settings of '%s'"
                             " (no such interface, or no IPv4 address)\n", argv[1]);
        return 1;
    }
    // Without a gateway get_info stops before the name server: ask for it alone.
    const in_addr_t dns_addr = whole ? cfg.dns : net->get_dns();
    const std::string dns = dns_addr == 0 || dns_addr == INADDR_NONE ? "none" : dotted(dns_addr);
    std::printf("interface    %s\n", argv[1]);
    std::printf("address      %s\n", dotted(cfg.ifaddr).c_str());
    std::printf("netmask      %s\n", dotted(cfg.netmask).c_str());
    std::printf("mac          %02x:%02x:%02x:%02x:%02x:%02x\n", cfg.mac[0], cfg.mac[1], cfg.mac[2], cfg.mac[3],
                cfg.mac[4], cfg.mac[5]);
    std::printf("gateway      %s\n", whole ? dotted(cfg.gateway).c_str() : "none");
    std::printf("name server  %s\n", dns.c_str());
    return 0;
}
