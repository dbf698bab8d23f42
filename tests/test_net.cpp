// The network module against the real kernel. Every test runs as root in a
// network namespace of its own, inside a private mount namespace, builds its
// interfaces there from veth pairs and bind-mounts stand-in resolver files
// over /etc; the host's interfaces, routes and files are never touched.
#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netdb.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"

namespace {

using qtest::FullyMatches;
using qtest::net_error;
using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

int sh(const std::string& cmd) { return std::system((cmd + " >/dev/null 2>&1").c_str()); }

std::string sh_out(const std::string& cmd) {
    std::string out;
    FILE* p = popen(cmd.c_str(), "r");
    char buf[512];
    for (size_t n; p != nullptr && (n = std::fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    if (p != nullptr) pclose(p);
    return out;
}

ino_t netns_inode() {
    struct stat st{};
    stat("/proc/self/ns/net", &st);
    return st.st_ino;
}

char* name(const char* text) { return const_cast<char*>(text); }
util_ops_net_fun_t* net = util_ops_pfun->net;

// The kernel reports a carrier change (IFF_RUNNING) through a rate-limited
// worker, up to a second later: wait for the flags to settle.
int settled_flags(const char* ifname, int want) {
    int flags = net->get_flag(name(ifname));
    for (int i = 0; i < 100 && (flags & want) != want; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        flags = net->get_flag(name(ifname));
    }
    return flags;
}

// Runs fn in a child process; returns what it printed to stderr.
std::string stderr_of_child(const std::function<bool()>& fn) {
    qtest::TempDir dir;
    const std::string err = dir.file("err");
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        // Opened before fn may give up privileges or descriptors.
        dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
        _exit(fn() ? 0 : 1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_EQ(status, 0);
    return qtest::read_file(err);
}

class PrivateNetwork : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root: builds interfaces in a private network namespace";
        static const ino_t host_ns = netns_inode();
        static const bool private_mounts =
            unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
        ASSERT_TRUE(private_mounts) << "no private mount namespace: " << std::strerror(errno);
        ASSERT_EQ(unshare(CLONE_NEWNET), 0) << std::strerror(errno);
        // Refuse to go on anywhere but in a fresh namespace of our own.
        ASSERT_NE(netns_inode(), host_ns);
        ASSERT_THAT(sh_out("ip -o link show"), FullyMatches(R"(1: lo: [^\n]*\n)"));
    }
    void TearDown() override {
        for (auto it = mounts_.rbegin(); it != mounts_.rend(); ++it) umount2(it->c_str(), MNT_DETACH);
    }
    // A veth pair, both ends up; `a` gets the address and the hardware address.
    void veth(const std::string& a, const std::string& b, const std::string& cidr = "", const std::string& mac = "02:11:22:33:44:55") {
        ASSERT_EQ(sh("ip link add " + a + " address " + mac + " type veth peer name " + b), 0);
        if (!cidr.empty()) ASSERT_EQ(sh("ip addr add " + cidr + " dev " + a), 0);
        ASSERT_EQ(sh("ip link set " + a + " up && ip link set " + b + " up"), 0);
    }
    // Puts a stand-in file over a system file, in this mount namespace only.
    void stand_in(const std::string& target, const std::string& content) {
        const std::string path = dir_.file("standin" + std::to_string(mounts_.size()));
        qtest::write_file(path, content);
        ASSERT_EQ(mount(path.c_str(), target.c_str(), nullptr, MS_BIND, nullptr), 0) << std::strerror(errno);
        mounts_.push_back(target);
    }
    qtest::TempDir dir_;

private:
    std::vector<std::string> mounts_;
};

TEST_F(PrivateNetwork, AddressesFlagsAndHardwareAddress) {
    veth("q0", "q1", "", "02:a0:b1:c2:d3:e4");
    EXPECT_EQ(net->set_ifaddr(name("q0"), inet_addr("10.20.30.40")), 0);
    EXPECT_EQ(net->set_netmask(name("q0"), inet_addr("255.255.255.0")), 0);
    EXPECT_THAT(sh_out("ip -4 -o addr show dev q0"), HasSubstr(" inet 10.20.30.40/24 "));
    char text[16] = {}, small[6] = "xxxxx";
    EXPECT_EQ(net->get_ifaddr_str(name("q0"), text, sizeof text), 0);
    EXPECT_STREQ(text, "10.20.30.40");
    EXPECT_EQ(net->get_netmask(name("q0"), text, sizeof text), 0);
    EXPECT_STREQ(text, "255.255.255.0");
    // A buffer too small for the text still succeeds and is left as it was.
    EXPECT_EQ(net->get_ifaddr_str(name("q0"), small, sizeof small) + net->get_netmask(name("q0"), small, -5), 0);
    EXPECT_STREQ(small, "xxxxx");
    UTIL_UCHAR mac[8] = {0, 0, 0, 0, 0, 0, 0x5A, 0x5A};
    EXPECT_EQ(net->get_hwaddr(name("q0"), mac), 0);
    const UTIL_UCHAR want[8] = {0x02, 0xa0, 0xb1, 0xc2, 0xd3, 0xe4, 0x5A, 0x5A};
    EXPECT_EQ(std::memcmp(mac, want, sizeof want), 0);

    // The caller's own socket: an address, none, and a closed socket.
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    struct in_addr in{};
    EXPECT_EQ(net->get_ip(fd, name("q0"), &in), 0);
    EXPECT_EQ(in.s_addr, inet_addr("10.20.30.40"));
    CaptureStderr();
    EXPECT_EQ(net->get_ip(fd, name("q1"), &in), -1);
    EXPECT_EQ(in.s_addr, 0xFFFFFFFFu);
    close(fd);
    in.s_addr = 0;
    EXPECT_EQ(net->get_ip(fd, name("q0"), &in), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(in.s_addr, 0xFFFFFFFFu);
    const std::string msg = net_error("Func_net_get_ip", "Func_net_get_ip: ioctl SIOCGIFADDR\n");
    EXPECT_THAT(GetCapturedStderr(), FullyMatches(msg + msg));

    // Down clears the link's UP (the carrier follows), up sets both again;
    // bit 15 makes the sign-extended word negative, yet never -1.
    const int up = settled_flags("q0", IFF_UP | IFF_RUNNING);
    EXPECT_EQ(up & (IFF_UP | IFF_RUNNING | IFF_DYNAMIC | IFF_PROMISC), IFF_UP | IFF_RUNNING);
    EXPECT_EQ(net->nic_down(name("q0")), 0);
    EXPECT_EQ(net->get_flag(name("q0")), up & ~(IFF_UP | IFF_RUNNING));
    EXPECT_EQ(net->nic_up(name("q0")), 0);
    EXPECT_EQ(settled_flags("q0", IFF_UP | IFF_RUNNING), up);
    ASSERT_EQ(sh("ip link set q0 dynamic on promisc on"), 0);
    const int dynamic = net->get_flag(name("q0"));
    EXPECT_LT(dynamic, -1);
    EXPECT_EQ(dynamic & 0xFFFF, (up | IFF_DYNAMIC | IFF_PROMISC) & 0xFFFF);

    // Names of 16 characters or more: the readers use the first 15.
    ASSERT_EQ(sh("ip link set q0 name abcdefghijklmno"), 0);
    EXPECT_EQ(net->get_ifaddr_str(name("abcdefghijklmnoXYZ"), text, sizeof text), 0);
    EXPECT_STREQ(text, "10.20.30.40");
    EXPECT_EQ(net->get_netmask(name("abcdefghijklmnop"), text, sizeof text), 0);
    EXPECT_STREQ(text, "255.255.255.0");
}

// Each request's own message for each step that can fail: the socket (no
// descriptor left), the read (no such interface) and the change (no privilege).
TEST_F(PrivateNetwork, FailuresReportTheirOwnMessagesAndKeepTheCallersData) {
    veth("q0", "q1", "10.1.0.2/24");
    char text[16] = "untouched";
    UTIL_UCHAR mac[6] = {9, 9, 9, 9, 9, 9};
    util_net_config_t cfg, before;
    std::memset(&cfg, 0x5A, sizeof cfg);
    before = cfg;
    in_addr_t gw = 0;
    const char* ifname = "nosuch0";
    const struct {
        std::function<int()> call;
        const char *fn, *socket, *read, *change;
    } ops[] = {
        {[&] { return net->get_ifaddr_str(name(ifname), text, 16); }, "Func_net_get_ifaddr_str", "Func_net_get_ifaddr_str socket\n", "Func_net_get_ifaddr_str ioctl\n", nullptr},
        {[&] { return net->get_netmask(name(ifname), text, 16); }, "Func_net_get_netmask", "Func_net_get_netmask socket\n", "Func_net_get_netmask ioctl\n", nullptr},
        {[&] { return net->get_hwaddr(name(ifname), mac); }, "Func_net_get_hwaddr", "Func_net_get_hwaddr socket error\n", "Func_net_get_hwaddr: ioctl SIOCGIFHWADDR\n", nullptr},
        {[&] { return net->get_flag(name(ifname)); }, "Func_net_get_flag", "Func_net_get_flag socket error\n", "Func_net_get_flag: ioctl SIOCGIFFLAGS\n", nullptr},
        {[&] { return net->nic_up(name(ifname)); }, "net_set_flag", "net_set_flag socket error\n", "net_set_flag: ioctl SIOCGIFFLAGS.\n", "net_set_flag: ioctl SIOCSIFFLAGS\n"},
        {[&] { return net->nic_down(name(ifname)); }, "net_clr_flag", "net_clr_flag socket error\n", "net_clr_flag: ioctl SIOCGIFFLAGS.\n", "net_clr_flag: ioctl SIOCSIFFLAGS\n"},
        {[&] { return net->set_ifaddr(name(ifname), inet_addr("10.1.0.3")); }, "Func_net_set_ifaddr", "Func_net_set_ifaddr socket error\n", "Func_net_set_ifaddr: ioctl SIOCSIFADDR\n", "Func_net_set_ifaddr: ioctl SIOCSIFADDR\n"},
        {[&] { return net->set_netmask(name(ifname), inet_addr("255.0.0.0")); }, "Func_net_set_netmask", "Func_net_set_netmask socket error\n", "Func_net_set_netmask: ioctl SIOCSIFNETMASK\n", "Func_net_set_netmask: ioctl SIOCSIFNETMASK\n"},
        {[&] { return net->get_info(name(ifname), &cfg); }, "Func_net_get_info", "Func_net_get_info socket error\n", "Func_net_get_info: ioctl SIOCGIFADDR\n", nullptr},
        {[&] { return net->get_gateway(&gw); }, "Func_net_get_gateway", "error: /proc/net/route, INET (IPv4) not configured in this system\n", nullptr, nullptr},
        {[&] { return net->set_gateway(inet_addr("10.1.0.1")); }, "net_add_gateway", "net_add_gateway socket error\n", nullptr, "net_add_gateway: ioctl SIOCADDRT\n"},
    };
    std::string reads, sockets, changes;
    CaptureStderr();
    errno = 0;
    for (const auto& op : ops) {
        if (op.read == nullptr) continue;
        EXPECT_EQ(op.call(), -1) << op.fn;
        EXPECT_EQ(errno, ENODEV) << op.fn;  // the kernel's reason survives the message
        reads += net_error(op.fn, op.read);
    }
    EXPECT_THAT(GetCapturedStderr(), FullyMatches(reads));
    EXPECT_STREQ(text, "untouched");
    EXPECT_EQ(mac[0], 9);
    EXPECT_EQ(std::memcmp(&cfg, &before, sizeof cfg), 0);

    ifname = "q0";
    for (const auto& op : ops) {
        if (op.change != nullptr) changes += net_error(op.fn, op.change);
        // set_gateway reads the route table before it asks for a socket.
        if (std::strcmp(op.fn, "net_add_gateway") == 0) sockets += net_error("Func_net_clean_gateway", ops[9].socket);
        sockets += net_error(op.fn, op.socket);
    }
    // Without privilege the kernel answers reads but refuses every change.
    EXPECT_THAT(stderr_of_child([&] {
        bool ok = setgid(65534) == 0 && setuid(65534) == 0;
        for (const auto& op : ops) ok = ok && (op.change == nullptr || op.call() == -1);
        return ok && net->get_flag(name("q0")) > 0;
    }), FullyMatches(changes));
    EXPECT_THAT(sh_out("ip -4 -o addr show dev q0"), HasSubstr(" inet 10.1.0.2/24 "));
    // With no descriptor left, no socket opens and no table can be read.
    EXPECT_THAT(stderr_of_child([&] {
        struct rlimit none = {3, 3};
        bool ok = setrlimit(RLIMIT_NOFILE, &none) == 0;
        for (const auto& op : ops) ok = op.call() == -1 && ok;
        return ok;
    }), FullyMatches(sockets));

    // Null names and buffers are refused before anything is asked, silently.
    CaptureStderr();
    EXPECT_EQ(net->get_ifaddr_str(nullptr, text, 16) + net->get_netmask(name("lo"), nullptr, 16) +
              net->get_hwaddr(name("lo"), nullptr) + net->get_flag(nullptr) + net->nic_up(nullptr) + net->nic_down(nullptr) +
              net->set_ifaddr(nullptr, 0) + net->set_netmask(nullptr, 0) + net->get_info(name("lo"), nullptr) +
              net->get_ip(0, name("lo"), nullptr), -10);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(GetCapturedStderr(), "");
}

TEST_F(PrivateNetwork, GatewayIsReadFromAndSetInTheKernelsRouteTable) {
    veth("q0", "q1", "10.1.0.2/24");
    in_addr_t gw = 7;
    char text[16] = "untouched";
    CaptureStderr();
    EXPECT_EQ(net->get_gateway(&gw), -1);  // only a direct route: no message
    EXPECT_EQ(gw, 0u);
    EXPECT_EQ(net->get_gateway_str(text), -1);
    EXPECT_EQ(GetCapturedStderr(), "");
    EXPECT_STREQ(text, "untouched");
    // The first gateway route counts even when it is not the default route;
    // the default route sorts first in the kernel's table.
    ASSERT_EQ(sh("ip route add 172.16.0.0/16 via 10.1.0.254"), 0);
    EXPECT_EQ(net->get_gateway(&gw), 0);
    EXPECT_EQ(gw, inet_addr("10.1.0.254"));
    ASSERT_EQ(sh("ip route add default via 10.1.0.1 && ip route add default via 10.1.0.3 metric 50"), 0);
    EXPECT_EQ(net->get_gateway_str(text), 0);
    EXPECT_STREQ(text, "10.1.0.1");

    // Every old default route goes; the other gateway route cannot be
    // deleted as a default route, says so, and stays.
    const std::string refused = net_error("net_del_gateway", "net_del_gateway: ioctl SIOCDELRT\n");
    CaptureStderr();
    EXPECT_EQ(net->set_gateway(inet_addr("10.1.0.9")), 0);
    EXPECT_THAT(GetCapturedStderr(), FullyMatches(refused));
    EXPECT_EQ(sh_out("ip -4 route show default | cut -d' ' -f1-5"), "default via 10.1.0.9 dev q0\n");
    EXPECT_THAT(sh_out("ip -4 route show 172.16.0.0/16"), HasSubstr("via 10.1.0.254"));
    CaptureStderr();
    EXPECT_EQ(net->clean_gateway(), 0);
    EXPECT_EQ(sh_out("ip -4 route show default"), "");
    // A gateway that is not on any attached network is refused.
    EXPECT_EQ(net->set_gateway(inet_addr("192.0.2.1")), -1);
    EXPECT_THAT(GetCapturedStderr(), FullyMatches(refused + refused + net_error("net_add_gateway", "net_add_gateway: ioctl SIOCADDRT\n")));
}

TEST_F(PrivateNetwork, SummaryOfAnInterface) {
    veth("q0", "q1", "10.1.0.2/24", "02:11:22:33:44:55");
    veth("bare0", "bare1");
    stand_in("/etc/resolv.conf", "nameserver 10.1.0.53\n");
    util_net_config_t cfg;
    std::memset(&cfg, 0x5A, sizeof cfg);
    // No gateway yet: the interface fields are filled, the name server is not.
    CaptureStderr();
    EXPECT_EQ(net->get_info(name("q0"), &cfg), -1);
    EXPECT_THAT(GetCapturedStderr(), FullyMatches(net_error("Func_net_get_info", "Func_net_get_info: Func_net_get_gateway failed! ret=-1\n")));
    EXPECT_EQ(cfg.ifaddr, inet_addr("10.1.0.2"));
    EXPECT_EQ(cfg.netmask, inet_addr("255.255.255.0"));
    EXPECT_EQ(cfg.gateway, 0u);
    EXPECT_EQ(cfg.dns, 0x5A5A5A5Au);
    ASSERT_EQ(sh("ip route add default via 10.1.0.1"), 0);
    EXPECT_EQ(net->get_info(name("q0"), &cfg), 0);
    EXPECT_EQ(std::memcmp(cfg.mac, "\x02\x11\x22\x33\x44\x55", 6), 0);
    EXPECT_EQ(cfg.gateway, inet_addr("10.1.0.1"));
    EXPECT_EQ(cfg.dns, inet_addr("10.1.0.53"));
    // An interface without an IPv4 address leaves the record untouched.
    std::memset(&cfg, 0x5A, sizeof cfg);
    CaptureStderr();
    EXPECT_EQ(net->get_info(name("bare0"), &cfg), -1);
    EXPECT_THAT(GetCapturedStderr(), FullyMatches(net_error("Func_net_get_info", "Func_net_get_info: ioctl SIOCGIFADDR\n")));
    EXPECT_EQ(cfg.ifaddr, 0x5A5A5A5Au);
}

TEST_F(PrivateNetwork, NamesResolvedFromStandInHostsFile) {
    // Only the hosts file answers, so unknown names fail the same way everywhere.
    stand_in("/etc/nsswitch.conf", "hosts: files\n");
    stand_in("/etc/hosts", "127.0.0.1 localhost\n10.7.7.7 camera-hub.test\nfd00::77 six.test\n");
    char text[64];
    auto lookup = [&](auto fn, const char* host, int len) {
        std::memset(text, '#', sizeof text);
        const int rc = fn(host, text, len);
        return std::to_string(rc) + " " + std::string(text, std::find(text, text + sizeof text, '#'));
    };
    const auto v1 = net->getIpaddrByDomainName, v2 = net->getIpaddrByDomainName_V2;
    EXPECT_EQ(lookup(v1, "camera-hub.test", 64), std::string("0 10.7.7.7\0", 11));
    EXPECT_EQ(lookup(v2, "camera-hub.test", 64), std::string("0 10.7.7.7") + std::string(56, '\0'));
    EXPECT_EQ(lookup(v2, "six.test", 16), std::string("0 fd00::77") + std::string(8, '\0'));
    // V2 copies exactly ipaddrLen bytes, or nothing outside 1..1024; the
    // first form writes at most ipaddrLen bytes, and nothing when too few.
    EXPECT_EQ(lookup(v2, "camera-hub.test", 4), "0 10.7");
    for (int len : {0, 1025, -3}) EXPECT_EQ(lookup(v2, "camera-hub.test", len), "0 ") << len;
    EXPECT_EQ(lookup(v1, "camera-hub.test", 8), "0 ");

    CaptureStderr();
    EXPECT_EQ(lookup(v1, "nowhere.test", 64), "-1 ");
    EXPECT_EQ(lookup(v1, "six.test", 64), "-1 ");  // IPv6 only
    EXPECT_EQ(lookup(v2, "nowhere.test", 64), "-1 ");
    EXPECT_EQ(v1(nullptr, text, 64) + v2(nullptr, text, 64) + v2("camera-hub.test", nullptr, 16), -3);
    const std::string v1_error = net_error("Func_getIpaddrByDomainName", "Func_getIpaddrByDomainName: gethostbyname error\n");
    EXPECT_THAT(GetCapturedStderr(), FullyMatches(v1_error + v1_error + net_error("Func_getIpaddrByDomainName_V2",
                    std::string("warning1: Func_getIpaddrByDomainName_V2: getaddrinfo: ") + gai_strerror(EAI_NONAME) + "\n")));
}

TEST_F(PrivateNetwork, NoDescriptorLeaksOverManyCalls) {
    veth("q0", "q1", "10.1.0.2/24");
    ASSERT_EQ(sh("ip route add default via 10.1.0.1"), 0);
    stand_in("/etc/resolv.conf", "nameserver 10.1.0.53\n");
    const int lowest = dup(0);
    close(lowest);
    char text[80];
    UTIL_UCHAR mac[6];
    util_net_config_t cfg;
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    struct in_addr in;
    CaptureStderr();
    for (int i = 0; i < 200; ++i) {
        for (const char* ifname : {"q0", "nosuch0"}) {
            net->get_ifaddr_str(name(ifname), text, 16);
            net->get_hwaddr(name(ifname), mac);
            net->nic_up(name(ifname));
            net->set_ifaddr(name(ifname), inet_addr("10.1.0.2"));
            net->get_info(name(ifname), &cfg);
            net->get_ip(fd, name(ifname), &in);
        }
        net->set_dns_ex(name("10.1.0.53"), name("10.0.0.2"));
        net->set_gateway(inet_addr(i % 2 ? "10.1.0.1" : "10.1.0.4"));
    }
    GetCapturedStderr();
    close(fd);
    const int after = dup(0);
    close(after);
    EXPECT_EQ(after, lowest);
}

#ifdef QUILLANE_NETINFO
TEST_F(PrivateNetwork, NetinfoToolPrintsTheSummary) {
    const std::string tool = QUILLANE_NETINFO;
    veth("cam0", "cam1", "192.168.5.20/24", "02:aa:bb:cc:dd:ee");
    stand_in("/etc/resolv.conf", "nameserver 192.168.5.53\n");
    EXPECT_EQ(sh_out(tool + " cam0 2>/dev/null"),
              "interface    cam0\naddress      192.168.5.20\nnetmask      255.255.255.0\n"
              "mac          02:aa:bb:cc:dd:ee\ngateway      none\nname server  192.168.5.53\n");
    ASSERT_EQ(sh("ip route add default via 192.168.5.1"), 0);
    EXPECT_THAT(sh_out(tool + " cam0"), HasSubstr("gateway      192.168.5.1 (default route, via cam0)\nname server  192.168.5.53\n"));
    EXPECT_THAT(sh_out(tool + " --help"), HasSubstr("usage: quillane-netinfo [--verbose] IFNAME\n"));
    // Failures are said in words; the library's raw diagnostics only with --verbose.
    EXPECT_EQ(sh_out(tool + " nosuch0 2>&1; echo $?"), "quillane-netinfo: no interface named 'nosuch0'\n1\n");
    EXPECT_EQ(sh_out(tool + " cam1 2>&1"), "quillane-netinfo: cam1 has no IPv4 address\n");
    EXPECT_THAT(sh_out(tool + " --verbose cam1 2>&1"), HasSubstr("ioctl SIOCGIFADDR"));
    EXPECT_EQ(sh_out(tool + " >/dev/null 2>&1; echo $?; " + tool + " abcdefghijklmnopq >/dev/null 2>&1; echo $?"), "2\n2\n");
}
#endif

}  // namespace
