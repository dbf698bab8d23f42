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

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"

namespace {

using qtest::FullyMatches;
using qtest::net_error;
using testing::HasSubstr;

int sh(const std::string& cmd) { return std::system((cmd + " >/dev/null 2>&1").c_str()); }

std::string sh_out(const std::string& cmd) {
    std::string out;
    FILE* p = popen(cmd.c_str(), "r");
    if (p == nullptr) return out;
    char buf[512];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    pclose(p);
    return out;
}

ino_t netns_inode() {
    struct stat st{};
    stat("/proc/self/ns/net", &st);
    return st.st_ino;
}

char* name(const char* text) { return const_cast<char*>(text); }

// The kernel reports a carrier change (IFF_RUNNING) through a rate-limited
// worker, up to a second later: wait for the flags to settle.
int settled_flags(const char* ifname, int mask, int want) {
    int flags = util_ops_pfun->net->get_flag(name(ifname));
    for (int i = 0; i < 100 && (flags & mask) != want; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        flags = util_ops_pfun->net->get_flag(name(ifname));
    }
    return flags;
}

// Runs fn in a child process with its stderr and stdout captured; the child's
// stdout carries what fn reports of its results.
struct ChildOutput {
    std::string out;
    std::string err;
};
ChildOutput in_child(const std::function<std::string()>& fn) {
    qtest::TempDir dir;
    const std::string out = dir.file("out");
    const std::string err = dir.file("err");
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        // Both files are opened before fn may give up privileges or descriptors.
        const int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(e, 2);
        close(e);
        const std::string result = fn();
        const bool written = write(o, result.data(), result.size()) == static_cast<ssize_t>(result.size());
        _exit(written ? 0 : 1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    return {qtest::read_file(out), qtest::read_file(err)};
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
    void veth(const std::string& a, const std::string& b, const std::string& cidr = "",
              const std::string& mac = "02:11:22:33:44:55") {
        ASSERT_EQ(sh("ip link add " + a + " address " + mac + " type veth peer name " + b), 0);
        if (!cidr.empty()) {
            ASSERT_EQ(sh("ip addr add " + cidr + " dev " + a), 0);
        }
        ASSERT_EQ(sh("ip link set " + a + " up && ip link set " + b + " up"), 0);
    }

    // Puts a stand-in file over a system file, in this mount namespace only.
    void stand_in(const std::string& target, const std::string& content) {
        const std::string path = dir_.file("standin" + std::to_string(mounts_.size()));
        qtest::write_file(path, content);
        ASSERT_EQ(mount(path.c_str(), target.c_str(), nullptr, MS_BIND, nullptr), 0) << std::strerror(errno);
        mounts_.push_back(target);
    }

    util_ops_net_fun_t* net = util_ops_pfun->net;
    qtest::TempDir dir_;

private:
    std::vector<std::string> mounts_;
};

TEST_F(PrivateNetwork, AddressAndMaskAreSetAndReadBack) {
    veth("q0", "q1");
    EXPECT_EQ(net->set_ifaddr(name("q0"), inet_addr("10.20.30.40")), 0);
    EXPECT_EQ(net->set_netmask(name("q0"), inet_addr("255.255.255.0")), 0);
    EXPECT_THAT(sh_out("ip -4 -o addr show dev q0"), HasSubstr(" inet 10.20.30.40/24 "));

    char text[16] = {};
    EXPECT_EQ(net->get_ifaddr_str(name("q0"), text, sizeof text), 0);
    EXPECT_STREQ(text, "10.20.30.40");
    EXPECT_EQ(net->get_netmask(name("q0"), text, sizeof text), 0);
    EXPECT_STREQ(text, "255.255.255.0");

    // A buffer too small for the text still succeeds and is left as it was.
    char small[6] = "xxxxx";
    EXPECT_EQ(net->get_ifaddr_str(name("q0"), small, sizeof small), 0);
    EXPECT_STREQ(small, "xxxxx");
    EXPECT_EQ(net->get_netmask(name("q0"), small, 0), 0);
    EXPECT_EQ(net->get_netmask(name("q0"), small, -5), 0);
    EXPECT_STREQ(small, "xxxxx");

    // The caller's own socket.
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    struct in_addr in{};
    EXPECT_EQ(net->get_ip(fd, name("q0"), &in), 0);
    EXPECT_EQ(in.s_addr, inet_addr("10.20.30.40"));
    testing::internal::CaptureStderr();
    EXPECT_EQ(net->get_ip(fd, name("q1"), &in), -1);  // no address
    EXPECT_EQ(in.s_addr, 0xFFFFFFFFu);
    close(fd);
    in.s_addr = 0;
    EXPECT_EQ(net->get_ip(fd, name("q0"), &in), -1);  // closed socket
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(in.s_addr, 0xFFFFFFFFu);
    const std::string msg = net_error("Func_net_get_ip", "Func_net_get_ip: ioctl SIOCGIFADDR\n");
    EXPECT_THAT(testing::internal::GetCapturedStderr(), FullyMatches(msg + msg));

    // Names of 16 characters or more: the readers use the first 15.
    ASSERT_EQ(sh("ip link set q0 name abcdefghijklmno"), 0);
    EXPECT_EQ(net->get_ifaddr_str(name("abcdefghijklmnoXYZ"), text, sizeof text), 0);
    EXPECT_STREQ(text, "10.20.30.40");
    EXPECT_EQ(net->get_netmask(name("abcdefghijklmnop"), text, sizeof text), 0);
    EXPECT_STREQ(text, "255.255.255.0");
}

// The flag names `ip link` prints, with their bits (it never prints RUNNING).
std::set<std::string> ip_link_flags(const std::string& ifname) {
    const std::string line = sh_out("ip -o link show " + ifname);
    const auto open = line.find('<');
    const auto close = line.find('>');
    std::set<std::string> names;
    std::stringstream list(line.substr(open + 1, close - open - 1));
    for (std::string item; std::getline(list, item, ',');) names.insert(item);
    return names;
}

std::set<std::string> flag_names(int flags) {
    static const std::map<int, std::string> bits = {
        {IFF_UP, "UP"},         {IFF_BROADCAST, "BROADCAST"}, {IFF_LOOPBACK, "LOOPBACK"},
        {IFF_NOARP, "NOARP"},   {IFF_PROMISC, "PROMISC"},     {IFF_ALLMULTI, "ALLMULTI"},
        {IFF_MULTICAST, "MULTICAST"}, {IFF_DYNAMIC, "DYNAMIC"}};
    std::set<std::string> names;
    for (const auto& [bit, text] : bits)
        if ((flags & bit) != 0) names.insert(text);
    return names;
}

std::set<std::string> without_lower_state(std::set<std::string> names) {
    names.erase("LOWER_UP");
    names.erase("NO-CARRIER");
    names.erase("M-DOWN");
    return names;
}

TEST_F(PrivateNetwork, FlagsFollowUpAndDownAsIpLinkSeesThem) {
    veth("q0", "q1");
    const int up = settled_flags("q0", IFF_UP | IFF_RUNNING, IFF_UP | IFF_RUNNING);
    EXPECT_EQ(up & (IFF_UP | IFF_RUNNING), IFF_UP | IFF_RUNNING);
    EXPECT_EQ(flag_names(up), without_lower_state(ip_link_flags("q0")));

    EXPECT_EQ(net->nic_down(name("q0")), 0);
    const int down = net->get_flag(name("q0"));
    EXPECT_EQ(down & IFF_UP, 0);
    EXPECT_EQ(flag_names(down), without_lower_state(ip_link_flags("q0")));
    EXPECT_EQ(net->nic_up(name("q0")), 0);
    EXPECT_EQ(settled_flags("q0", IFF_UP | IFF_RUNNING, IFF_UP | IFF_RUNNING) & (IFF_UP | IFF_RUNNING),
              IFF_UP | IFF_RUNNING);

    // Bit 15 makes the sign-extended word negative, yet never -1.
    ASSERT_EQ(sh("ip link set q0 dynamic on promisc on"), 0);
    const int dynamic = net->get_flag(name("q0"));
    EXPECT_LT(dynamic, -1);
    EXPECT_EQ(dynamic & 0xFFFF, (up | IFF_DYNAMIC | IFF_PROMISC) & 0xFFFF);
    EXPECT_EQ(flag_names(dynamic), without_lower_state(ip_link_flags("q0")));
}

TEST_F(PrivateNetwork, HardwareAddressOfAVethWithAFixedMac) {
    veth("q0", "q1", "", "02:a0:b1:c2:d3:e4");
    UTIL_UCHAR mac[8] = {0, 0, 0, 0, 0, 0, 0x5A, 0x5A};
    EXPECT_EQ(net->get_hwaddr(name("q0"), mac), 0);
    const UTIL_UCHAR want[8] = {0x02, 0xa0, 0xb1, 0xc2, 0xd3, 0xe4, 0x5A, 0x5A};
    EXPECT_EQ(std::memcmp(mac, want, sizeof want), 0);
}

TEST_F(PrivateNetwork, InterfaceThatDoesNotExist) {
    char text[16] = "untouched";
    UTIL_UCHAR mac[6] = {9, 9, 9, 9, 9, 9};
    struct in_addr in{};
    util_net_config_t cfg;
    std::memset(&cfg, 0x5A, sizeof cfg);
    const util_net_config_t before = cfg;
    testing::internal::CaptureStderr();
    errno = 0;
    EXPECT_EQ(net->get_ifaddr_str(name("nosuch0"), text, sizeof text), -1);
    EXPECT_EQ(errno, ENODEV);  // the kernel's reason survives the message
    EXPECT_EQ(net->get_netmask(name("nosuch0"), text, sizeof text), -1);
    EXPECT_EQ(net->get_hwaddr(name("nosuch0"), mac), -1);
    EXPECT_EQ(net->get_flag(name("nosuch0")), -1);
    EXPECT_EQ(net->nic_up(name("nosuch0")), -1);
    EXPECT_EQ(net->nic_down(name("nosuch0")), -1);
    EXPECT_EQ(net->set_ifaddr(name("nosuch0"), inet_addr("10.0.0.1")), -1);
    EXPECT_EQ(net->set_netmask(name("nosuch0"), inet_addr("255.0.0.0")), -1);
    EXPECT_EQ(net->get_info(name("nosuch0"), &cfg), -1);
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    EXPECT_EQ(net->get_ip(fd, name("nosuch0"), &in), -1);
    close(fd);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                FullyMatches(net_error("Func_net_get_ifaddr_str", "Func_net_get_ifaddr_str ioctl\n") +
                             net_error("Func_net_get_netmask", "Func_net_get_netmask ioctl\n") +
                             net_error("Func_net_get_hwaddr", "Func_net_get_hwaddr: ioctl SIOCGIFHWADDR\n") +
                             net_error("Func_net_get_flag", "Func_net_get_flag: ioctl SIOCGIFFLAGS\n") +
                             net_error("net_set_flag", "net_set_flag: ioctl SIOCGIFFLAGS.\n") +
                             net_error("net_clr_flag", "net_clr_flag: ioctl SIOCGIFFLAGS.\n") +
                             net_error("Func_net_set_ifaddr", "Func_net_set_ifaddr: ioctl SIOCSIFADDR\n") +
                             net_error("Func_net_set_netmask", "Func_net_set_netmask: ioctl SIOCSIFNETMASK\n") +
                             net_error("Func_net_get_info", "Func_net_get_info: ioctl SIOCGIFADDR\n") +
                             net_error("Func_net_get_ip", "Func_net_get_ip: ioctl SIOCGIFADDR\n")));
    EXPECT_STREQ(text, "untouched");
    EXPECT_EQ(mac[0], 9);
    EXPECT_EQ(std::memcmp(&cfg, &before, sizeof cfg), 0);

    // Null names and buffers are refused before anything is asked, silently.
    testing::internal::CaptureStderr();
    EXPECT_EQ(net->get_ifaddr_str(nullptr, text, sizeof text), -1);
    EXPECT_EQ(net->get_netmask(name("lo"), nullptr, 16), -1);
    EXPECT_EQ(net->get_hwaddr(name("lo"), nullptr), -1);
    EXPECT_EQ(net->get_flag(nullptr), -1);
    EXPECT_EQ(net->nic_up(nullptr), -1);
    EXPECT_EQ(net->nic_down(nullptr), -1);
    EXPECT_EQ(net->set_ifaddr(nullptr, 0), -1);
    EXPECT_EQ(net->set_netmask(nullptr, 0), -1);
    EXPECT_EQ(net->get_info(name("lo"), nullptr), -1);
    EXPECT_EQ(net->get_ip(0, name("lo"), nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(PrivateNetwork, RefusedSettersAndMissingSocketsReportTheirOwnMessages) {
    veth("q0", "q1", "10.1.0.2/24");
    const int flags = settled_flags("q0", IFF_RUNNING, IFF_RUNNING);
    // Without privilege the kernel answers reads but refuses every change.
    const ChildOutput unprivileged = in_child([&] {
        if (setgid(65534) != 0 || setuid(65534) != 0) return std::string("no setuid");
        std::ostringstream r;
        r << net->get_flag(name("q0")) << " " << net->nic_up(name("q0")) << " " << net->nic_down(name("q0"))
          << " " << net->set_ifaddr(name("q0"), inet_addr("10.1.0.3")) << " "
          << net->set_netmask(name("q0"), inet_addr("255.0.0.0")) << " " << net->set_gateway(inet_addr("10.1.0.1"));
        return r.str();
    });
    EXPECT_EQ(unprivileged.out, std::to_string(flags) + " -1 -1 -1 -1 -1");
    EXPECT_THAT(unprivileged.err,
                FullyMatches(net_error("net_set_flag", "net_set_flag: ioctl SIOCSIFFLAGS\n") +
                             net_error("net_clr_flag", "net_clr_flag: ioctl SIOCSIFFLAGS\n") +
                             net_error("Func_net_set_ifaddr", "Func_net_set_ifaddr: ioctl SIOCSIFADDR\n") +
                             net_error("Func_net_set_netmask", "Func_net_set_netmask: ioctl SIOCSIFNETMASK\n") +
                             net_error("net_add_gateway", "net_add_gateway: ioctl SIOCADDRT\n")));
    EXPECT_THAT(sh_out("ip -4 -o addr show dev q0"), HasSubstr(" inet 10.1.0.2/24 "));

    // With no descriptor left, no socket opens and no table can be read.
    const ChildOutput no_descriptors = in_child([&] {
        struct rlimit none = {2, 2};
        setrlimit(RLIMIT_NOFILE, &none);
        char text[16];
        UTIL_UCHAR mac[6];
        util_net_config_t cfg;
        in_addr_t gw;
        std::ostringstream r;
        r << net->get_ifaddr_str(name("q0"), text, 16) << net->get_netmask(name("q0"), text, 16)
          << net->get_hwaddr(name("q0"), mac) << net->get_flag(name("q0")) << net->nic_up(name("q0"))
          << net->nic_down(name("q0")) << net->set_ifaddr(name("q0"), 0) << net->set_netmask(name("q0"), 0)
          << net->get_info(name("q0"), &cfg) << net->get_gateway(&gw) << net->set_gateway(inet_addr("10.1.0.1"));
        return r.str();
    });
    EXPECT_EQ(no_descriptors.out, "-1-1-1-1-1-1-1-1-1-1-1");
    const std::string table = "error: /proc/net/route, INET (IPv4) not configured in this system\n";
    EXPECT_THAT(no_descriptors.err,
                FullyMatches(net_error("Func_net_get_ifaddr_str", "Func_net_get_ifaddr_str socket\n") +
                             net_error("Func_net_get_netmask", "Func_net_get_netmask socket\n") +
                             net_error("Func_net_get_hwaddr", "Func_net_get_hwaddr socket error\n") +
                             net_error("Func_net_get_flag", "Func_net_get_flag socket error\n") +
                             net_error("net_set_flag", "net_set_flag socket error\n") +
                             net_error("net_clr_flag", "net_clr_flag socket error\n") +
                             net_error("Func_net_set_ifaddr", "Func_net_set_ifaddr socket error\n") +
                             net_error("Func_net_set_netmask", "Func_net_set_netmask socket error\n") +
                             net_error("Func_net_get_info", "Func_net_get_info socket error\n") +
                             net_error("Func_net_get_gateway", table) +
                             net_error("Func_net_clean_gateway", table) +
                             net_error("net_add_gateway", "net_add_gateway socket error\n")));
}

TEST_F(PrivateNetwork, GatewayFromTheKernelsRouteTable) {
    veth("q0", "q1", "10.1.0.2/24");
    in_addr_t gw = 7;
    char text[16] = "untouched";
    testing::internal::CaptureStderr();
    EXPECT_EQ(net->get_gateway(&gw), -1);  // only a direct route: no message
    EXPECT_EQ(gw, 0u);
    EXPECT_EQ(net->get_gateway_str(text), -1);
    EXPECT_STREQ(text, "untouched");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

    // The first gateway route counts even when it is not the default route.
    ASSERT_EQ(sh("ip route add 172.16.0.0/16 via 10.1.0.254"), 0);
    EXPECT_EQ(net->get_gateway(&gw), 0);
    EXPECT_EQ(gw, inet_addr("10.1.0.254"));

    // The default route sorts first in the kernel's table.
    ASSERT_EQ(sh("ip route add default via 10.1.0.1"), 0);
    EXPECT_EQ(net->get_gateway_str(text), 0);
    EXPECT_STREQ(text, "10.1.0.1");
}

TEST_F(PrivateNetwork, SetGatewayReplacesEveryOldDefaultRoute) {
    veth("q0", "q1", "10.1.0.2/24");
    ASSERT_EQ(sh("ip route add default via 10.1.0.1 && ip route add default via 10.1.0.3 metric 50"), 0);
    ASSERT_EQ(sh("ip route add 172.16.0.0/16 via 10.1.0.254"), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(net->set_gateway(inet_addr("10.1.0.9")), 0);
    // The non-default gateway route cannot be deleted as a default route.
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                FullyMatches(net_error("net_del_gateway", "net_del_gateway: ioctl SIOCDELRT\n")));
    const std::string defaults = sh_out("ip -4 route show default");
    EXPECT_THAT(defaults, testing::StartsWith("default via 10.1.0.9 dev q0"));
    EXPECT_EQ(std::count(defaults.begin(), defaults.end(), '\n'), 1);
    EXPECT_THAT(sh_out("ip -4 route show 172.16.0.0/16"), HasSubstr("via 10.1.0.254"));

    testing::internal::CaptureStderr();
    EXPECT_EQ(net->clean_gateway(), 0);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                FullyMatches(net_error("net_del_gateway", "net_del_gateway: ioctl SIOCDELRT\n")));
    EXPECT_EQ(sh_out("ip -4 route show default"), "");

    // A gateway that is not on any attached network is refused.
    testing::internal::CaptureStderr();
    EXPECT_EQ(net->set_gateway(inet_addr("192.0.2.1")), -1);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                FullyMatches(net_error("net_del_gateway", "net_del_gateway: ioctl SIOCDELRT\n") +
                             net_error("net_add_gateway", "net_add_gateway: ioctl SIOCADDRT\n")));
}

TEST_F(PrivateNetwork, SummaryOfAnInterface) {
    veth("q0", "q1", "10.1.0.2/24", "02:11:22:33:44:55");
    veth("bare0", "bare1");
    stand_in("/etc/resolv.conf", "nameserver 10.1.0.53\n");
    util_net_config_t cfg;
    std::memset(&cfg, 0x5A, sizeof cfg);

    // No gateway yet: the interface fields are filled, the name server is not.
    testing::internal::CaptureStderr();
    EXPECT_EQ(net->get_info(name("q0"), &cfg), -1);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                FullyMatches(net_error("Func_net_get_info", "Func_net_get_info: Func_net_get_gateway failed! ret=-1\n")));
    EXPECT_EQ(cfg.ifaddr, inet_addr("10.1.0.2"));
    EXPECT_EQ(cfg.netmask, inet_addr("255.255.255.0"));
    EXPECT_EQ(cfg.gateway, 0u);
    EXPECT_EQ(cfg.dns, 0x5A5A5A5Au);

    ASSERT_EQ(sh("ip route add default via 10.1.0.1"), 0);
    EXPECT_EQ(net->get_info(name("q0"), &cfg), 0);
    const UTIL_UCHAR mac[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
    EXPECT_EQ(std::memcmp(cfg.mac, mac, 6), 0);
    EXPECT_EQ(cfg.gateway, inet_addr("10.1.0.1"));
    EXPECT_EQ(cfg.dns, inet_addr("10.1.0.53"));

    // An interface without an IPv4 address leaves the record untouched.
    std::memset(&cfg, 0x5A, sizeof cfg);
    const util_net_config_t before = cfg;
    testing::internal::CaptureStderr();
    EXPECT_EQ(net->get_info(name("bare0"), &cfg), -1);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                FullyMatches(net_error("Func_net_get_info", "Func_net_get_info: ioctl SIOCGIFADDR\n")));
    EXPECT_EQ(std::memcmp(&cfg, &before, sizeof cfg), 0);
    EXPECT_EQ(qtest::read_file("/etc/resolv.conf"), "nameserver 10.1.0.53\n");
}

// The resolver file is read by every program on the device: a name server
// text with a line end (or any other control character) would add lines of
// its own, so it is refused with the write failure's message and the file
// is left as it was. Bytes above 0x7F are not control characters.
TEST_F(PrivateNetwork, ResolverLinesRefuseControlCharacters) {
    const std::string before = "search example\nnameserver 10.9.9.9\n";
    stand_in("/etc/resolv.conf", before);
    struct Row {
        const char* first;
        const char* second;  // null: set_dns
        bool written;
    } rows[] = {
        {"10.0.0.1\noptions ndots:15\nsearch evil.example", "10.0.0.2", false},
        {"10.0.0.1", "10.0.0.2\r", false},
        {"10.0.0.1\t", nullptr, false},
        {"\x1b[2J10.0.0.1", nullptr, false},
        {"10.0.0.1", "10.0.0.\x7f", false},
        {"10.0.0.1", "caf\xc3\xa9", true},
        {"10.0.0.3", nullptr, true},
    };
    for (const Row& row : rows) {
        qtest::write_file("/etc/resolv.conf", before);
        testing::internal::CaptureStderr();
        const int rc = row.second != nullptr ? net->set_dns_ex(name(row.first), name(row.second))
                                             : net->set_dns(name(row.first));
        const std::string err = testing::internal::GetCapturedStderr();
        if (row.written) {  // set_dns adds the library's own second server
            EXPECT_EQ(rc, 0) << row.first;
            EXPECT_EQ(err, "");
            const std::string second = row.second != nullptr ? row.second + std::string("\n") : "[0-9.]+\n";
            EXPECT_THAT(qtest::read_file("/etc/resolv.conf"),
                        FullyMatches("nameserver " + std::string(row.first) + "\nnameserver " + second));
        } else {
            const char* op = row.second != nullptr ? "Func_net_set_dns_ex" : "Func_net_set_dns";
            EXPECT_EQ(rc, -1) << row.first;
            EXPECT_THAT(err, FullyMatches(net_error(op, op + std::string(" fwrite\n"))));
            EXPECT_EQ(qtest::read_file("/etc/resolv.conf"), before);
        }
    }
}

TEST_F(PrivateNetwork, NamesResolvedFromStandInHostsFile) {
    // Only the hosts file answers, so unknown names fail the same way everywhere.
    stand_in("/etc/nsswitch.conf", "hosts: files\n");
    stand_in("/etc/hosts", "127.0.0.1 localhost\n10.7.7.7 camera-hub.test\nfd00::77 six.test\n");
    char text[64];
    std::memset(text, '#', sizeof text);
    EXPECT_EQ(net->getIpaddrByDomainName("camera-hub.test", text, sizeof text), 0);
    EXPECT_STREQ(text, "10.7.7.7");
    std::memset(text, '#', sizeof text);
    EXPECT_EQ(net->getIpaddrByDomainName_V2("camera-hub.test", text, sizeof text), 0);
    EXPECT_STREQ(text, "10.7.7.7");
    EXPECT_EQ(net->getIpaddrByDomainName_V2("six.test", text, sizeof text), 0);
    EXPECT_STREQ(text, "fd00::77");

    // V2 copies exactly ipaddrLen bytes, or nothing outside 1..1024.
    std::memset(text, '#', sizeof text);
    EXPECT_EQ(net->getIpaddrByDomainName_V2("camera-hub.test", text, 4), 0);
    EXPECT_EQ(std::string(text, 5), "10.7#");
    std::memset(text, '#', sizeof text);
    EXPECT_EQ(net->getIpaddrByDomainName_V2("camera-hub.test", text, 0), 0);
    EXPECT_EQ(net->getIpaddrByDomainName_V2("camera-hub.test", text, 2000), 0);
    EXPECT_EQ(net->getIpaddrByDomainName_V2("camera-hub.test", text, -3), 0);
    EXPECT_EQ(text[0], '#');
    // The first form writes at most ipaddrLen bytes; too few leaves the buffer.
    EXPECT_EQ(net->getIpaddrByDomainName("camera-hub.test", text, 8), 0);
    EXPECT_EQ(text[0], '#');

    testing::internal::CaptureStderr();
    EXPECT_EQ(net->getIpaddrByDomainName("nowhere.test", text, sizeof text), -1);
    EXPECT_EQ(net->getIpaddrByDomainName("six.test", text, sizeof text), -1);  // IPv6 only
    EXPECT_EQ(net->getIpaddrByDomainName_V2("nowhere.test", text, sizeof text), -1);
    EXPECT_EQ(net->getIpaddrByDomainName(nullptr, text, sizeof text), -1);
    EXPECT_EQ(net->getIpaddrByDomainName_V2(nullptr, text, sizeof text), -1);
    EXPECT_EQ(net->getIpaddrByDomainName_V2("camera-hub.test", nullptr, 16), -1);
    const std::string lookup = net_error("Func_getIpaddrByDomainName", "Func_getIpaddrByDomainName: gethostbyname error\n");
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                FullyMatches(lookup + lookup +
                             net_error("Func_getIpaddrByDomainName_V2",
                                       std::string("warning1: Func_getIpaddrByDomainName_V2: getaddrinfo: ") +
                                           gai_strerror(EAI_NONAME) + "\n")));
    EXPECT_EQ(text[0], '#');
}

TEST_F(PrivateNetwork, NoDescriptorLeaksOverThousandsOfCalls) {
    veth("q0", "q1", "10.1.0.2/24");
    ASSERT_EQ(sh("ip route add default via 10.1.0.1"), 0);
    stand_in("/etc/resolv.conf", "nameserver 10.1.0.53\n");
    const int lowest = dup(0);
    close(lowest);
    char text[80];
    UTIL_UCHAR mac[6];
    util_net_config_t cfg;
    in_addr_t gw;
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    struct in_addr in;
    testing::internal::CaptureStderr();
    for (int i = 0; i < 1000; ++i) {
        for (const char* ifname : {"q0", "nosuch0"}) {
            net->get_ifaddr_str(name(ifname), text, 16);
            net->get_netmask(name(ifname), text, 16);
            net->get_hwaddr(name(ifname), mac);
            net->get_flag(name(ifname));
            net->nic_up(name(ifname));
            net->set_ifaddr(name(ifname), inet_addr("10.1.0.2"));
            net->get_info(name(ifname), &cfg);
            net->get_ip(fd, name(ifname), &in);
        }
        net->get_gateway(&gw);
        net->get_dns_str(text);
        net->set_gateway(inet_addr(i % 2 ? "10.1.0.1" : "10.1.0.4"));
    }
    testing::internal::GetCapturedStderr();
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
    EXPECT_THAT(sh_out(tool + " cam0"),
                HasSubstr("gateway      192.168.5.1 (default route, via cam0)\nname server  192.168.5.53\n"));
    EXPECT_THAT(sh_out(tool + " --help"), HasSubstr("usage: quillane-netinfo [--verbose] IFNAME\n"));
    EXPECT_EQ(WEXITSTATUS(std::system((tool + " nosuch0 2>/dev/null").c_str())), 1);
    // Failures are said in words; the library's raw diagnostics only with --verbose.
    EXPECT_EQ(sh_out(tool + " nosuch0 2>&1"), "quillane-netinfo: no interface named 'nosuch0'\n");
    EXPECT_EQ(sh_out(tool + " cam1 2>&1"), "quillane-netinfo: cam1 has no IPv4 address\n");
    EXPECT_THAT(sh_out(tool + " --verbose cam1 2>&1"), HasSubstr("ioctl SIOCGIFADDR"));
    EXPECT_EQ(WEXITSTATUS(std::system((tool + " >/dev/null 2>&1").c_str())), 2);
    EXPECT_EQ(WEXITSTATUS(std::system((tool + " abcdefghijklmnopq >/dev/null 2>&1").c_str())), 2);
}
#endif

}  // namespace
