// The gateway and name-server readers and writers on stand-in route tables
// and resolver files: the module's path buffers point into a temporary
// directory, so every shape of file can be laid down without root.
#include <arpa/inet.h>

#include <cstring>
#include <string>
#include <tuple>

#include "../test_support.h"
#include "net/util_net_internal.h"

namespace {

using qtest::FullyMatches;
using qtest::net_error;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

constexpr char kHeader[] = "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";

std::string route(const std::string& ifname, const char* dest, const char* gateway, const char* flags) {
    return ifname + "\t" + dest + "\t" + gateway + "\t" + flags + "\t0\t0\t0\t00000000\t0\t0\t0\n";
}

char* text(const std::string& s) { return const_cast<char*>(s.c_str()); }

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
    std::string route_ = dir_.file("route"), resolv_ = dir_.file("resolv.conf");

private:
    char saved_route_[quillane::net::kPathBufSize];
    char saved_resolv_[quillane::net::kPathBufSize];
};

// The gateway is the first route that is up and goes through a gateway,
// whatever its destination; the kernel prints the address word in the
// machine's byte order (0101A8C0 is 192.168.1.1 on the little-endian hosts
// this suite runs on).
TEST_F(NetFiles, GatewayIsTheFirstUpGatewayRoute) {
    const std::string missing = net_error("Func_net_get_gateway", "error: " + route_ + ", INET (IPv4) not configured in this system\n");
    const struct {
        std::string table;  // after the header; "-": no file at all
        int rc;
        const char* shown;  // get_gateway_str, null when refused
    } rows[] = {
        {"-", -1, nullptr},
        {"", -1, nullptr},
        {route("eth0", "0001A8C0", "00000000", "0001") + route("eth0", "00000000", "00000000", "0001") +
             route(std::string(40, 'x'), "00000000", "0A0A0A0A", "0003") + route("eth0", "0000000A", "0101A8C0", "0003") +
             route("eth0", "00000000", "0202A8C0", "0003"),
         0, "192.168.1.1"},
        {route("eth0", "00000000", "0101A8C0", "0002") + route("eth0", "00000000", "FFFFFFFF", "0007"), 0, "255.255.255.255"},
        {route("eth0", "00000000", "00000000", "0003"), 0, nullptr},  // found, but 0.0.0.0 is no gateway to show
    };
    for (const auto& row : rows) {
        if (row.table == "-") std::remove(route_.c_str());
        else qtest::write_file(route_, kHeader + row.table);
        in_addr_t addr = 7;
        char shown[16] = "untouched";
        CaptureStderr();
        EXPECT_EQ(net->get_gateway(&addr), row.rc) << row.table;
        EXPECT_EQ(net->get_gateway_str(shown), row.shown ? 0 : -1);
        // clean_gateway is left to the namespace tests: this process runs in
        // the host's network, whose routes no test may touch.
        EXPECT_THAT(GetCapturedStderr(), FullyMatches(row.table != "-" ? "" : missing + missing));
        EXPECT_EQ(addr, row.shown ? inet_addr(row.shown) : 0u);
        EXPECT_STREQ(shown, row.shown ? row.shown : "untouched");
    }
    qtest::write_file(route_, "");  // not even a header
    EXPECT_EQ(net->get_gateway(nullptr) + net->get_gateway_str(nullptr), -2);
}

// Only the start of the file counts: "nameserver", white space, one token of
// at most 79 characters (get_dns reads into 80 bytes); anything else leaves
// the caller's buffer as it was.
TEST_F(NetFiles, FirstNameServerIsReadOnlyFromTheStartOfTheFile) {
    const std::string fits(79, '7');
    const struct {
        std::string content;  // "-": no file
        int rc;
        std::string name;
        in_addr_t dns;
    } rows[] = {
        {"-", -1, "untouched", 0},
        {"", 1, "untouched", 0},
        {"# written by hand\nnameserver 10.1.2.3\n", 0, "untouched", INADDR_NONE},
        {"nameserver   10.1.2.3 \nnameserver 10.9.9.9\n", 0, "10.1.2.3", inet_addr("10.1.2.3")},
        {"nameserver resolver.example\n", 0, "resolver.example", INADDR_NONE},
        {"nameserver " + fits, 0, fits, INADDR_NONE},
        {"nameserver " + fits + "7\n", 0, "untouched", INADDR_NONE},
    };
    for (const auto& row : rows) {
        if (row.content == "-") std::remove(resolv_.c_str());
        else qtest::write_file(resolv_, row.content);
        char name[96];
        std::memset(name, '#', sizeof name);
        std::strcpy(name, "untouched");
        EXPECT_EQ(net->get_dns_str(name), row.rc) << row.content;
        EXPECT_EQ(std::string(name), row.name);
        EXPECT_EQ(name[80], '#');
        EXPECT_EQ(net->get_dns(), row.dns) << row.content;
    }
    EXPECT_EQ(net->get_dns_str(nullptr), -1);
}

TEST_F(NetFiles, ResolverRewriteIsTwoLinesOrNothing) {
    const std::string before = "search example\nnameserver 10.9.9.9\noptions ndots:2\n";
    // Both lines must fit 128 bytes, terminator included: 103 characters in
    // all for the two addresses. A text with a line end or another control
    // character would add lines of its own to a file every resolver reads:
    // refused as a write that wrote nothing. Bytes above 0x7F are no control.
    const std::string longest(128 - 1 - 24 - 8, 'a');
    const char *too_long = "Func_net_set_dns_ex: name server text too long\n", *fwrite = "Func_net_set_dns_ex fwrite\n";
    for (auto [first, second, message] : {std::tuple<std::string, const char*, const char*>{"10.0.0.1", "10.0.0.2", nullptr},
                                          {longest, "10.0.0.2", nullptr}, {longest + "a", "10.0.0.2", too_long},
                                          {"192.168.7.7", nullptr, nullptr}, {std::string(200, 'b'), nullptr, too_long},
                                          {"10.0.0.1\noptions ndots:15", "10.0.0.2", fwrite}, {"10.0.0.1", "10.0.0.2\r", fwrite},
                                          {"\x1b[2J10.0.0.1", nullptr, fwrite}, {"10.0.0.1", "10.0.0.\x7f", fwrite},
                                          {"10.0.0.1\x1f", nullptr, fwrite}, {"10.0.0.1", "caf\xc3\xa9", nullptr}}) {
        qtest::write_file(resolv_, before);
        CaptureStderr();
        const int rc = second ? net->set_dns_ex(text(first), text(second)) : net->set_dns(text(first));
        const std::string op = second ? "Func_net_set_dns_ex" : "Func_net_set_dns", err = GetCapturedStderr();
        EXPECT_EQ(rc, message ? -1 : 0) << first;
        const std::string want = message ? std::string(message).replace(0, 19, op) : "";  // the operation's own name
        EXPECT_THAT(err, FullyMatches(message ? net_error(op, want) : ""));
        EXPECT_EQ(qtest::read_file(resolv_), message ? before : "nameserver " + first + "\nnameserver " +
                                                           (second ? second : quillane::net::kFallbackNameServer) + "\n");
    }
    EXPECT_EQ(net->set_dns(nullptr) + net->set_dns_ex(text("10.0.0.1"), nullptr), -2);
    EXPECT_EQ(qtest::read_file(resolv_), "nameserver 10.0.0.1\nnameserver caf\xc3\xa9\n");

    // A resolver file that cannot be opened: -1 and no message.
    point(quillane::net::resolv_conf_path, dir_.file("no/such/dir"));
    CaptureStderr();
    EXPECT_EQ(net->set_dns(text("10.0.0.1")), -1);
    EXPECT_EQ(GetCapturedStderr(), "");
    // A write that reaches nothing is reported, with errno saying why.
    point(quillane::net::resolv_conf_path, "/dev/full");
    CaptureStderr();
    errno = 0;
    EXPECT_EQ(net->set_dns(text("10.0.0.1")), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_THAT(GetCapturedStderr(), FullyMatches(net_error("Func_net_set_dns", "Func_net_set_dns fwrite\n")));
}

}  // namespace
