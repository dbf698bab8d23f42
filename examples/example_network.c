/* The network module, reading only: the loopback interface's flags, address,
 * netmask and hardware address, the gateway, the first name server, and name
 * resolution. Nothing here changes an interface, a route or a file; the
 * setters (set_ifaddr, set_netmask, nic_up, nic_down, set_gateway,
 * clean_gateway, set_dns, set_dns_ex) need root and change the whole
 * device's configuration. */
#define _DEFAULT_SOURCE /* the IFF_* flag names of <net/if.h> */
#include "example_support.h"

#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

static const char* address_text(in_addr_t addr, char* out, socklen_t size)
{
    struct in_addr in;
    in.s_addr = addr; /* already in network byte order */
    return inet_ntop(AF_INET, &in, out, size) != NULL ? out : "?";
}

static int loopback(void)
{
    util_ops_net_fun_t* net = util_ops_pfun->net;
    char lo[] = "lo";
    char addr[INET_ADDRSTRLEN] = "", mask[INET_ADDRSTRLEN] = "";
    UTIL_UCHAR mac[6];
    struct in_addr via_socket;
    UTIL_S32 flags = net->get_flag(lo);
    int skfd;

    EX_CHECK(flags != -1);
    printf("lo: flags 0x%04X (%s%s%s)\n", (unsigned)(flags & 0xFFFF), (flags & IFF_UP) ? "up" : "down",
           (flags & IFF_LOOPBACK) ? ", loopback" : "", (flags & IFF_RUNNING) ? ", running" : "");
    EX_CHECK((flags & IFF_LOOPBACK) != 0);

    EX_CHECK(net->get_hwaddr(lo, mac) == 0);
    printf("lo: hardware address %02x:%02x:%02x:%02x:%02x:%02x\n", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);

    if (net->get_ifaddr_str(lo, addr, sizeof addr) != 0) {
        /* An interface without an IPv4 address (a fresh network namespace)
         * is refused by the kernel; errno says why. */
        printf("lo: no IPv4 address (%s)\n", strerror(errno));
        return 0;
    }
    EX_CHECK(net->get_netmask(lo, mask, sizeof mask) == 0);
    printf("lo: address %s, netmask %s\n", addr, mask);
    EX_CHECK(strncmp(addr, "127.", 4) == 0);

    /* get_ip works on a socket of the caller's, for callers that make many requests. */
    skfd = socket(AF_INET, SOCK_DGRAM, 0);
    EX_CHECK(skfd >= 0);
    EX_CHECK(net->get_ip(skfd, lo, &via_socket) == 0);
    close(skfd);
    EX_CHECK(via_socket.s_addr == inet_addr(addr));
    return 0;
}

static int refused_request(void)
{
    char missing[] = "quillane-none";
    char addr[INET_ADDRSTRLEN] = "unchanged";

    /* The failure is printed on stderr; errno keeps the kernel's reason and
     * the caller's buffer is left as it was. */
    errno = 0;
    EX_CHECK(util_ops_pfun->net->get_ifaddr_str(missing, addr, sizeof addr) == -1);
    printf("%s: refused (%s), buffer still \"%s\"\n", missing, strerror(errno), addr);
    EX_CHECK(errno == ENODEV && strcmp(addr, "unchanged") == 0);
    return 0;
}

static int routes_and_names(void)
{
    util_ops_net_fun_t* net = util_ops_pfun->net;
    char lo[] = "lo";
    char gateway[16], dns[80] = "", name_v1[INET_ADDRSTRLEN] = "", name_v2[64] = "", text[INET_ADDRSTRLEN];
    util_net_config_t cfg;
    UTIL_S32 r;

    /* The device's own routes and resolver file: either may be missing on
     * a build machine, so the results are only reported. */
    if (net->get_gateway_str(gateway) == 0) {
        printf("gateway: %s\n", gateway);
    } else {
        printf("gateway: none in the route table\n");
    }
    r = net->get_dns_str(dns);
    printf("first name server: %s\n", r == 0 && dns[0] != '\0' ? dns : "none at the start of the resolver file");

    /* The summary needs a gateway: without one it fails after filling the
     * interface's own fields. */
    memset(&cfg, 0, sizeof cfg);
    if (net->get_info(lo, &cfg) == 0) {
        printf("get_info(lo): address %s, gateway %s\n", address_text(cfg.ifaddr, text, sizeof text),
               address_text(cfg.gateway, gateway, sizeof gateway));
    } else {
        printf("get_info(lo): refused (no gateway route or no address)\n");
    }

    /* Name resolution through the system resolver (/etc/hosts first). */
    EX_CHECK(net->getIpaddrByDomainName("localhost", name_v1, sizeof name_v1) == 0);
    EX_CHECK(net->getIpaddrByDomainName_V2("localhost", name_v2, sizeof name_v2) == 0);
    printf("localhost: %s (gethostbyname), %s (getaddrinfo, any family)\n", name_v1, name_v2);
    EX_CHECK(strncmp(name_v1, "127.", 4) == 0);
    return 0;
}

int main(void)
{
    static const ex_step_t steps[] = {loopback, refused_request, routes_and_names};
    return ex_main("network", steps, sizeof steps / sizeof steps[0], 0);
}
