// The gateway and name-server readers and writers on stand-in route tables
// and resolver files: the module's path buffers point into a temporary
// directory, so every shape of file can be laid down without root.
#include <arpa/inet.h>
#include <fcntl.h>

#include <cstring>
#include <string>

#include "../test_support.h"
#include "net/util_net_internal.h"

namespace {

using qtest::FullyMatches;
using qtest::net_error;

constexpr char kHeader[] =
    "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";

std::string route(const char* ifname, const char* dest, const char* gateway, const char* flags) {
    return std::string(ifname) + "\t" + dest + "\t" + gateway + "\t" + flags +
           "\t0\t0\t0\t00000000\t0\t0\t0\n";
}

// The kernel prints the address word in the machine's own byte order.
std::string hex_word(const char* dotted) {
    char text[9];
    std::snprintf(text, sizeof text, "%08X", static_cast<unsigned>(inet_addr(dotted)));
    return text;
}

class NetFiles : public ::testing::Test {
protected:
    void SetUp() override {
        std::memcpy(saved_route_, quillane::net::procNetRoute_path, sizeof saved_route_);
        std::memcpy(saved_resolv_, quillane::net::resolv_conf_path, sizeof saved_resolv_);
        point(quillane::net::procNetRoute_path, route_);
        point(quillane::net::resolv_conf_path, resolv_);
    }
    void TearDown() override {
        std::memcpy(quillane::net::procNetRoute_path, saved_route_, sizeof saved_route_);
        std::memcpy(quillane::net::resolv_conf_path, saved_resolv_, sizeof saved_resolv_);
    }
    static void point(char* buffer, const std::string& path) {
        ASSERT_LT(path.size(), quillane::net::kPathBufSize);
        std::snprintf(buffer, quillane::net::kPathBufSize, "%s", path.c_str());
    }

    util_ops_net_fun_t* net = util_ops_pfun->net;
    qtest::TempDir dir_;
    std::string route_ = dir_.file("route");
    std::string resolv_ = dir_.file("resolv.conf");

private:
    char saved_route_[quillane::net::kPathBufSize];
    char saved_resolv_[quillane::net::kPathBufSize];
};

TEST_F(NetFiles, GatewayIsTheFirstUpGatewayRouteWhateverItsDestination) {
    const std::string gw = hex_word("192.168.1.1");
    EXPECT_EQ(gw, "0101A8C0");  // the little-endian hosts this suite runs on
    // A direct route, a default route without a gateway and a line whose
    // interface name overflows the 16-byte field come first; none of them is
    // a gateway line.
    const std::string long_name(40, 'x');
    qtest::write_file(route_, kHeader + route("eth0", "0001A8C0", "00000000", "0001") +
                                  route("eth0", "00000000", "00000000", "0001") +
                                  route(long_name.c_str(), "00000000", "0A0A0A0A", "0003") +
                                  route("eth0", "0000000A", gw.c_str(), "0003") +
                                  route("eth0", "00000000", "0202A8C0", "0003"));
    in_addr_t addr = 7;
    EXPECT_EQ(net->get_gateway(&addr), 0);
    EXPECT_EQ(addr, inet_addr("192.168.1.1"));
    char text[16] = "untouched";
    EXPECT_EQ(net->get_gateway_str(text), 0);
    EXPECT_STREQ(text, "192.168.1.1");

    // A route that is down or has no gateway flag is skipped.
    qtest::write_file(route_, kHeader + route("eth0", "00000000", gw.c_str(), "0002") +
                                  route("eth0", "00000000", "FFFFFFFF", "0007"));
    EXPECT_EQ(net->get_gateway_str(text), 0);
    EXPECT_STREQ(text, "255.255.255.255");

    // A gateway line whose gateway is 0.0.0.0 is found, but the text form refuses it.
    qtest::write_file(route_, kHeader + route("eth0", "00000000", "00000000", "0003"));
    std::strcpy(text, "untouched");
    EXPECT_EQ(net->get_gateway(&addr), 0);
    EXPECT_EQ(addr, 0u);
    EXPECT_EQ(net->get_gateway_str(text), -1);
    EXPECT_STREQ(text, "untouched");
}

TEST_F(NetFiles, MissingEmptyAndHeaderOnlyRouteTables) {
    const std::string missing = net_error(
        "Func_net_get_gateway", "error: " + route_ + ", INET (IPv4) not configured in this system\n");
    in_addr_t addr = 7;
    char text[16] = "untouched";
    testing::internal::CaptureStderr();
    EXPECT_EQ(net->get_gateway(&addr), -1);
    EXPECT_EQ(addr, 0u);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), FullyMatches(missing));
    testing::internal::CaptureStderr();
    EXPECT_EQ(net->get_gateway_str(text), -1);
    EXPECT_EQ(net->clean_gateway(), -1);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                FullyMatches(missing + net_error("Func_net_clean_gateway", "error: " + route_ +
                                                                              ", INET (IPv4) not configured in this system\n")));
    EXPECT_STREQ(text, "untouched");

    for (const auto& content : {std::string(), std::string(kHeader)}) {
        qtest::write_file(route_, content);
        addr = 7;
        testing::internal::CaptureStderr();
        EXPECT_EQ(net->get_gateway(&addr), -1);
        EXPECT_EQ(addr, 0u);
        EXPECT_EQ(net->clean_gateway(), 0);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    }
    EXPECT_EQ(net->get_gateway(nullptr), -1);
    EXPECT_EQ(net->get_gateway_str(nullptr), -1);
}

TEST_F(NetFiles, FirstNameServerIsReadOnlyFromTheStartOfTheFile) {
    char name[80];
    std::strcpy(name, "untouched");
    EXPECT_EQ(net->get_dns_str(name), -1);  // missing file: the result alone says so
    EXPECT_EQ(net->get_dns(), 0u);

    qtest::write_file(resolv_, "");
    EXPECT_EQ(net->get_dns_str(name), 1);
    EXPECT_EQ(net->get_dns(), 0u);

    qtest::write_file(resolv_, "# written by hand\nnameserver 10.1.2.3\n");
    EXPECT_EQ(net->get_dns_str(name), 0);
    EXPECT_STREQ(name, "untouched");
    EXPECT_EQ(net->get_dns(), INADDR_NONE);

    qtest::write_file(resolv_, "nameserver   10.1.2.3 \nnameserver 10.9.9.9\n");
    EXPECT_EQ(net->get_dns_str(name), 0);
    EXPECT_STREQ(name, "10.1.2.3");
    EXPECT_EQ(net->get_dns(), inet_addr("10.1.2.3"));

    qtest::write_file(resolv_, "nameserver resolver.example\n");
    EXPECT_EQ(net->get_dns(), INADDR_NONE);

    // The token is bounded by the 80 bytes get_dns reads into: 79 characters
    // fit; a longer one is no usable name server and never written.
    const std::string fits(79, '7');
    qtest::write_file(resolv_, "nameserver " + fits);
    char guarded[96];
    std::memset(guarded, '#', sizeof guarded);
    EXPECT_EQ(net->get_dns_str(guarded), 0);
    EXPECT_EQ(std::string(guarded), fits);
    EXPECT_EQ(guarded[80], '#');
    qtest::write_file(resolv_, "nameserver " + fits + "7\n");
    std::memset(guarded, '#', sizeof guarded);
    EXPECT_EQ(net->get_dns_str(guarded), 0);
    EXPECT_EQ(guarded[0], '#');
    EXPECT_EQ(net->get_dns(), INADDR_NONE);
    EXPECT_EQ(net->get_dns_str(nullptr), -1);
}

TEST_F(NetFiles, ResolverRewriteIsTwoLinesOrNothing) {
    const std::string before = "search example\nnameserver 10.9.9.9\noptions ndots:2\n";
    qtest::write_file(resolv_, before);
    EXPECT_EQ(net->set_dns_ex(const_cast<char*>("10.0.0.1"), const_cast<char*>("10.0.0.2")), 0);
    EXPECT_EQ(qtest::read_file(resolv_), "nameserver 10.0.0.1\nnameserver 10.0.0.2\n");
    char name[80] = {};
    EXPECT_EQ(net->get_dns_str(name), 0);
    EXPECT_STREQ(name, "10.0.0.1");

    EXPECT_EQ(net->set_dns(const_cast<char*>("192.168.7.7")), 0);
    EXPECT_EQ(qtest::read_file(resolv_),
              std::string("nameserver 192.168.7.7\nnameserver ") + quillane::net::kFallbackNameServer + "\n");

    // Texts whose two lines do not fit 128 bytes are refused before the file is touched.
    qtest::write_file(resolv_, before);
    const std::string longest_ok(128 - 1 - 24 - 8, 'a');  // 24: the two "nameserver " and line ends
    std::string too_long = longest_ok + "a";
    testing::internal::CaptureStderr();
    EXPECT_EQ(net->set_dns_ex(const_cast<char*>(too_long.c_str()), const_cast<char*>("10.0.0.2")), -1);
    EXPECT_EQ(net->set_dns(const_cast<char*>(std::string(200, 'b').c_str())), -1);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                FullyMatches(net_error("Func_net_set_dns_ex", "Func_net_set_dns_ex: name server text too long\n") +
                             net_error("Func_net_set_dns", "Func_net_set_dns: name server text too long\n")));
    EXPECT_EQ(qtest::read_file(resolv_), before);
    EXPECT_EQ(net->set_dns_ex(const_cast<char*>(longest_ok.c_str()), const_cast<char*>("10.0.0.2")), 0);
    EXPECT_EQ(qtest::read_file(resolv_).size(), 127u);
    EXPECT_EQ(net->set_dns(nullptr), -1);
    EXPECT_EQ(net->set_dns_ex(const_cast<char*>("10.0.0.1"), nullptr), -1);
    EXPECT_EQ(qtest::read_file(resolv_).size(), 127u);

    // A resolver file that cannot be opened: -1 and no message.
    point(quillane::net::resolv_conf_path, dir_.file("no/such/dir"));
    testing::internal::CaptureStderr();
    EXPECT_EQ(net->set_dns(const_cast<char*>("10.0.0.1")), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

    // A write that reaches nothing is reported, with errno saying why.
    point(quillane::net::resolv_conf_path, "/dev/full");
    testing::internal::CaptureStderr();
    errno = 0;
    EXPECT_EQ(net->set_dns(const_cast<char*>("10.0.0.1")), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(net->set_dns_ex(const_cast<char*>("10.0.0.1"), const_cast<char*>("10.0.0.2")), -1);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                FullyMatches(net_error("Func_net_set_dns", "Func_net_set_dns fwrite\n") +
                             net_error("Func_net_set_dns_ex", "Func_net_set_dns_ex fwrite\n")));
}

TEST_F(NetFiles, ReadersAndWritersLeaveNoDescriptorOpen) {
    qtest::write_file(route_, kHeader + route("eth0", "00000000", "0101A8C0", "0003"));
    const int before = dup(0);
    close(before);
    char text[80];
    for (int i = 0; i < 1000; ++i) {
        in_addr_t addr;
        net->get_gateway(&addr);
        net->get_gateway_str(text);
        net->set_dns_ex(const_cast<char*>("10.0.0.1"), const_cast<char*>("10.0.0.2"));
        net->get_dns();
    }
    const int after = dup(0);
    close(after);
    EXPECT_EQ(after, before);
}

}  // namespace
