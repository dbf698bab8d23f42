/* IPv4 configuration of a network interface: address, netmask, up/down state
 * and hardware address through socket ioctls, the default gateway through the
 * kernel's route table, the resolver's name servers, and host-name
 * resolution. Nothing is kept between calls but one shared socket-address
 * record used by the setters, so callers that change addresses or routes from
 * several threads serialise those calls.
 *
 * Every operation returns 0 on success and -1 on failure (get_flag returns
 * the flags word, get_dns an address) and prints each failure on stderr.
 * After a failed system call the operation leaves errno as that call set it;
 * null arguments are refused with -1 and EINVAL, before anything is touched.
 * Addresses of type in_addr_t are in network byte order. */
#ifndef UTIL_NET_FUNCTION_H
#define UTIL_NET_FUNCTION_H

#include <netinet/in.h>

#include "util_common_base_type.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A 32-bit IPv4 address seen as one word or as its four bytes in memory order. */
typedef union __NET_IPV4 {
    UTIL_U32 int32;
    UTIL_U8 str[4];
} NET_IPV4;

/* The interface summary filled by get_info. */
typedef struct UTIL_NET_CONFIG_ATTR {
    UTIL_UCHAR mac[6];  /* hardware address, first byte first */
    in_addr_t ifaddr;   /* interface address */
    in_addr_t netmask;  /* interface netmask */
    in_addr_t gateway;  /* first gateway of the route table */
    in_addr_t dns;      /* first name server of the resolver file */
} util_net_config_t;

typedef struct UTIL_OPERATION_STRUCT_LIB_FUNC_NETWORK_FUNCTION {
    /* Dotted address / netmask of ifname into ipaddr (at most ipaddrLen bytes). */
    UTIL_S32 (*get_ifaddr_str)(UTIL_CHAR* ifname, UTIL_CHAR* ipaddr, UTIL_S32 ipaddrLen);
    UTIL_S32 (*get_netmask)(UTIL_CHAR* ifname, UTIL_CHAR* ipaddr, UTIL_S32 ipaddrLen);
    /* First name server's text (dnsname holds at least 80 bytes): 0, 1 for an
     * empty resolver file, -1 when it cannot be read. */
    UTIL_S32 (*get_dns_str)(UTIL_CHAR* dnsname);
    in_addr_t (*get_dns)(void);
    /* The gateway of the first gateway route, as text (ip holds at least 16
     * bytes) or as an address. */
    UTIL_S32 (*get_gateway_str)(UTIL_CHAR* ip);
    UTIL_S32 (*get_gateway)(in_addr_t* pstInaddrt);
    /* The first 6 bytes of the hardware address into mac. */
    UTIL_S32 (*get_hwaddr)(UTIL_CHAR* ifname, UTIL_UCHAR* mac);
    /* Sets IFF_UP | IFF_RUNNING. */
    UTIL_S32 (*nic_up)(UTIL_CHAR* ifname);
    /* The 16-bit flags word, sign-extended, or -1. */
    UTIL_S32 (*get_flag)(UTIL_CHAR* ifname);
    /* Clears IFF_UP only. */
    UTIL_S32 (*nic_down)(UTIL_CHAR* ifname);
    UTIL_S32 (*set_ifaddr)(UTIL_CHAR* ifname, in_addr_t addr);
    UTIL_S32 (*set_netmask)(UTIL_CHAR* ifname, in_addr_t addr);
    /* Deletes the default routes through every listed gateway, then adds one through addr. */
    UTIL_S32 (*set_gateway)(in_addr_t addr);
    UTIL_S32 (*clean_gateway)(void);
    /* Rewrites the resolver file with two name servers (set_dns adds a fixed public one).
     * A name with a line end or another control character is refused (-1,
     * "fwrite" message) and the file is left as it was. */
    UTIL_S32 (*set_dns)(UTIL_CHAR* dnsname);
    UTIL_S32 (*set_dns_ex)(UTIL_CHAR* domain_dns, UTIL_CHAR* wifi_dns);
    UTIL_S32 (*get_info)(UTIL_CHAR* ifname, util_net_config_t* netcfg);
    /* Address of ifname through the caller's own open socket skfd. */
    UTIL_S32 (*get_ip)(UTIL_S32 skfd, UTIL_CHAR* ifname, struct in_addr* pstInaddr);
    UTIL_S32 (*getIpaddrByDomainName)(const UTIL_CHAR* domain, UTIL_CHAR* ipaddr, UTIL_S32 ipaddrLen);
    UTIL_S32 (*getIpaddrByDomainName_V2)(const UTIL_CHAR* domain, UTIL_CHAR* ipaddr, UTIL_S32 ipaddrLen);
} util_ops_net_fun_t;

#ifdef __cplusplus
}
#endif

#endif /* UTIL_NET_FUNCTION_H */
