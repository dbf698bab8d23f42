// Against the real kernel in private network and mount namespaces: the host's interfaces and /etc stay safe.
#include <arpa/inet.h>
#include <net/if.h>
#include <netdb.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include <functional>

#include "test_support.h"

namespace {

using qtest::FullyMatches;
using qtest::net_error;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

int sh(const std::string& cmd) { return std::system((cmd + " >/dev/null 2>&1").c_str()); }

char* name(const char* text) { return const_cast<char*>(text); }
util_ops_net_fun_t* net = util_ops_pfun->net;

class PrivateNetwork : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root: builds interfaces in a private network namespace";
        static const bool private_mounts =
            unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
        ASSERT_TRUE(private_mounts) << "no private mount namespace: " << std::strerror(errno);
        ASSERT_EQ(unshare(CLONE_NEWNET), 0) << std::strerror(errno);
    }
    std::string sh_out(const std::string& cmd) {
        const std::string out = dir_.file("out");
        return std::system((cmd + " >" + out).c_str()) < 0 ? "" : qtest::read_file(out);
    }
    void stand_in(const std::string& target, const std::string& content) {
        const std::string path = dir_.file(std::filesystem::path(target).filename());
        qtest::write_file(path, content);
        umount2(target.c_str(), MNT_DETACH);  // an earlier test's stand-in, whose file is gone
        ASSERT_EQ(mount(path.c_str(), target.c_str(), nullptr, MS_BIND, nullptr), 0) << std::strerror(errno);
    }

private:
    qtest::TempDir dir_;
};

// Each request's own message for the step that fails (a read with no such interface, a change unprivileged).
TEST_F(PrivateNetwork, AddressesGatewayFlagsAndFailures) {
    ASSERT_EQ(sh("ip link add q0 address 02:a0:b1:c2:d3:e4 type veth peer name q1"), 0);
    ASSERT_EQ(sh("ip link set q0 up && ip link set q1 up"), 0);
    stand_in("/etc/resolv.conf", "nameserver 10.1.0.53\n");
    char text[16] = "xxxxx", *q0 = name("q0"), *ifn = q0;
    UTIL_UCHAR mac[8] = {0, 0, 0, 0, 0, 0, 0x5A, 0x5A};
    util_net_config_t cfg, before;
    std::memset(&cfg, 0x5A, sizeof cfg);
    before = cfg;
    in_addr_t gw = 7;
    const char *get_flags = ": ioctl SIOCGIFFLAGS.", *set_flags = ": ioctl SIOCSIFFLAGS";
    struct Row {
        std::function<int()> call;
        const char *fn, *read = nullptr, *change = nullptr;
    };
    const Row ops[] = {
        {[&] { return net->get_ifaddr_str(ifn, text, 16); }, "Func_net_get_ifaddr_str", " ioctl"},
        {[&] { return net->get_netmask(ifn, text, 16); }, "Func_net_get_netmask", " ioctl"},
        {[&] { return net->get_hwaddr(ifn, mac); }, "Func_net_get_hwaddr", ": ioctl SIOCGIFHWADDR"},
        {[&] { return net->get_flag(ifn); }, "Func_net_get_flag", ": ioctl SIOCGIFFLAGS"},
        {[&] { return net->nic_up(ifn); }, "net_set_flag", get_flags, set_flags},
        {[&] { return net->nic_down(ifn); }, "net_clr_flag", get_flags, set_flags},
        {[&] { return net->set_ifaddr(ifn, inet_addr("10.1.0.3")); }, "Func_net_set_ifaddr",
         ": ioctl SIOCSIFADDR", ": ioctl SIOCSIFADDR"},
        {[&] { return net->set_netmask(ifn, inet_addr("255.0.0.0")); }, "Func_net_set_netmask",
         ": ioctl SIOCSIFNETMASK", ": ioctl SIOCSIFNETMASK"},
        {[&] { return net->get_info(ifn, &cfg); }, "Func_net_get_info", ": ioctl SIOCGIFADDR"},
        {[&] { return net->set_gateway(inet_addr("10.1.0.1")); }, "net_add_gateway", nullptr,
         ": ioctl SIOCADDRT"},
    };
    // Each child fails every row of its step, with errno kept past the message and the caller's data intact.
    const struct {
        const char* ifname;
        std::function<bool()> prepare;
        const char* Row::*step;
        int why;
    } children[] = {{"nosuch0", [] { return true; }, &Row::read, ENODEV},
                    {"q0", [] { return setgid(65534) + setuid(65534) == 0; }, &Row::change, EPERM}};
    for (const auto& child : children) {
        ifn = name(child.ifname);
        std::string said;
        for (const auto& op : ops)
            said += op.*child.step ? net_error(op.fn, op.fn + std::string(op.*child.step) + "\n") : "";
        CaptureStderr();
        std::fflush(nullptr);
        if (fork() == 0) {
            bool ok = child.prepare();
            for (const auto& op : ops)
                ok = ok && (op.*child.step == nullptr || (op.call() == -1 && errno == child.why));
            ok = ok && std::strcmp(text, "xxxxx") == 0 && std::memcmp(&cfg, &before, sizeof cfg) == 0;
            _exit(ok ? 0 : 1);
        }
        int status = 0;
        wait(&status);
        EXPECT_EQ(status, 0) << child.ifname;
        EXPECT_THAT(GetCapturedStderr(), FullyMatches(said)) << child.ifname;
    }
    // Null buffers are refused before anything is asked, silently.
    CaptureStderr();
    EXPECT_EQ(net->get_ifaddr_str(q0, nullptr, 16) + net->get_netmask(q0, nullptr, 16) +
                  net->get_hwaddr(q0, nullptr) + net->get_info(q0, nullptr) + net->get_ip(0, q0, nullptr) +
                  net->get_gateway(nullptr) + net->get_dns_str(nullptr), -7);
    EXPECT_EQ(errno, EINVAL);

    // Set and read back; a buffer too small for the text still succeeds and is left as it was.
    const in_addr_t addr = inet_addr("10.1.0.2"), mask = inet_addr("255.255.255.0");
    EXPECT_EQ(net->set_ifaddr(q0, addr) + net->set_netmask(q0, mask), 0);
    EXPECT_EQ(net->get_ifaddr_str(q0, text, 6) + net->get_netmask(q0, text, -5) + net->get_hwaddr(q0, mac), 0);
    EXPECT_STREQ(text, "xxxxx");
    EXPECT_EQ(std::memcmp(mac, "\x02\xa0\xb1\xc2\xd3\xe4\x5A\x5A", 8), 0);
    // The caller's own socket: an address, or none and all ones.
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    struct in_addr in {}, none {};
    EXPECT_EQ(net->get_ip(fd, q0, &in) + net->get_ip(fd, name("q1"), &none), -1);
    EXPECT_EQ(std::make_pair(in.s_addr, none.s_addr), std::make_pair(addr, 0xFFFFFFFFu));
    close(fd);

    // A direct route only: no gateway, silently; then the first gateway route in the kernel's table wins.
    EXPECT_EQ(net->get_gateway(&gw) + net->get_gateway_str(text) + net->get_info(q0, &cfg), -3);
    EXPECT_THAT(GetCapturedStderr(),
                FullyMatches(net_error("Func_net_get_ip", "Func_net_get_ip: ioctl SIOCGIFADDR\n") +
                             net_error("Func_net_get_info",
                                       "Func_net_get_info: Func_net_get_gateway failed! ret=-1\n")));
    EXPECT_STREQ(text, "xxxxx");
    EXPECT_EQ(std::make_tuple(gw, cfg.ifaddr, cfg.netmask, cfg.gateway, cfg.dns),
              std::make_tuple(0u, addr, mask, 0u, 0x5A5A5A5Au));
    ASSERT_EQ(sh("ip route add 172.16.0.0/16 via 10.1.0.254 && ip route add default via 10.1.0.1"), 0);
    ASSERT_EQ(sh("ip route add default via 10.1.0.3 metric 50"), 0);
    EXPECT_EQ(net->get_gateway_str(text) + net->get_info(q0, &cfg), 0);
    EXPECT_STREQ(text, "10.1.0.1");
    EXPECT_EQ(std::make_tuple(cfg.gateway, cfg.dns, std::memcmp(cfg.mac, mac, 6)),
              std::make_tuple(inet_addr("10.1.0.1"), inet_addr("10.1.0.53"), 0));
#ifdef QUILLANE_NETINFO
    EXPECT_THAT(sh_out(QUILLANE_NETINFO " q0"),
                testing::HasSubstr("gateway      10.1.0.1 (default route, via q0)\n"));
#endif

    // Every old default route goes; the other gateway route cannot go as one and says so.
    const std::string refused = net_error("net_del_gateway", "net_del_gateway: ioctl SIOCDELRT\n");
    CaptureStderr();
    EXPECT_EQ(net->set_gateway(inet_addr("10.1.0.9")), 0);
    EXPECT_EQ(sh_out("ip -4 route show default | cut -d' ' -f1-5"), "default via 10.1.0.9 dev q0\n");
    EXPECT_EQ(net->clean_gateway(), 0);
    EXPECT_EQ(sh_out("ip -4 route show default"), "");
    EXPECT_THAT(GetCapturedStderr(), FullyMatches(refused + refused));

    // Down clears UP, up sets it again, the other flags kept (RUNNING follows the carrier later).
    EXPECT_EQ(net->nic_down(q0), 0);
    const int down = net->get_flag(q0);
    EXPECT_EQ(net->nic_up(q0) + (down & IFF_UP), 0);
    EXPECT_EQ(net->get_flag(q0) & ~IFF_RUNNING, (down | IFF_UP) & ~IFF_RUNNING);
    EXPECT_EQ(net->get_netmask(q0, text, sizeof text), 0);
    EXPECT_STREQ(text, "255.255.255.0");
}
// Only the hosts file answers. V2 copies exactly ipaddrLen bytes, or nothing outside 1..1024.
TEST_F(PrivateNetwork, NamesResolvedFromStandInHostsFile) {
    stand_in("/etc/nsswitch.conf", "hosts: files\n");
    stand_in("/etc/hosts", "127.0.0.1 localhost\n10.7.7.7 hub.test\nfd00::77 six.test\n");
    const std::string hub = "0 10.7.7.7", f1 = "Func_getIpaddrByDomainName", f2 = f1 + "_V2";
    const auto v1 = net->getIpaddrByDomainName, v2 = net->getIpaddrByDomainName_V2;
    const struct {
        decltype(v1) fn;
        const char* host;
        int len;
        std::string want;  // the result and the text up to the first byte left as it was
    } rows[] = {{v1, "hub.test", 64, hub + '\0'}, {v2, "hub.test", 64, hub + std::string(56, '\0')},
                {v2, "hub.test", 4, "0 10.7"}, {v2, "six.test", 16, "0 fd00::77" + std::string(8, 0)},
                {v2, "hub.test", -1, "0 "}, {v2, "hub.test", 1025, "0 "}, {v1, "hub.test", 8, "0 "},
                {v1, "six.test", 64, "-1 "}, {v1, "none.test", 64, "-1 "}, {v2, "none.test", 64, "-1 "}};
    CaptureStderr();
    for (const auto& row : rows) {
        char text[64];
        std::memset(text, '#', sizeof text);
        const int rc = row.fn(row.host, text, row.len);
        EXPECT_EQ(std::to_string(rc) + " " + std::string(text, std::find(text, text + 64, '#')), row.want)
            << row.host << " " << row.len;
    }
    const std::string v1_error = net_error(f1, f1 + ": gethostbyname error\n");
    EXPECT_THAT(GetCapturedStderr(), FullyMatches(v1_error + v1_error + net_error(f2, "warning1: " + f2 +
                                                  ": getaddrinfo: " + gai_strerror(EAI_NONAME) + "\n")));
}

}  // namespace
