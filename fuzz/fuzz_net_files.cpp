// Fuzzes the network module's file readers: the route table walk behind
// get_gateway / get_gateway_str and the resolver reader behind get_dns_str /
// get_dns, on arbitrary file contents. The first byte picks the file; the
// rest is its text. Output buffers are exactly sized heap blocks, so a byte
// written too many is reported.
#include <arpa/inet.h>

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_check.h"
#include "util_function.h"
#include "net/util_net_internal.h"

namespace {

void point(char* buffer) { std::snprintf(buffer, quillane::net::kPathBufSize, "%s", fuzz::scratch_path()); }

void route_table() {
    util_ops_net_fun_t* net = util_ops_pfun->net;
    in_addr_t gateway = 0x5A5A5A5A;
    const int found = net->get_gateway(&gateway);
    CHECK(found == 0 || found == -1);
    if (found == -1) CHECK(gateway == 0);
    fuzz::Block text(16);
    std::memset(text.get(), '#', 16);
    const int shown = net->get_gateway_str(text.get());
    CHECK(shown == ((found == 0 && gateway != 0) ? 0 : -1));
    if (shown == 0) {
        in_addr_t back = 0;
        CHECK(inet_pton(AF_INET, text.get(), &back) == 1);
        CHECK(back == gateway);
    } else {
        CHECK(text.get()[0] == '#');
    }
}

void resolver() {
    util_ops_net_fun_t* net = util_ops_pfun->net;
    fuzz::Block name(80);
    std::memset(name.get(), '#', 80);
    name.get()[79] = '\0';
    const int read = net->get_dns_str(name.get());
    CHECK(read == 0 || read == 1);
    if (read == 0 && name.get()[0] != '#') {
        // A NUL inside the file's token ends the text early, even at its start.
        const std::size_t len = std::strlen(name.get());
        CHECK(len < 80);
        for (std::size_t i = 0; i < len; ++i) CHECK(std::isspace(static_cast<unsigned char>(name.get()[i])) == 0);
    }
    const in_addr_t dns = net->get_dns();
    if (read == 1) CHECK(dns == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    fuzz::write_scratch(data + 1, size - 1);
    if ((data[0] & 1) == 0) {
        point(quillane::net::procNetRoute_path);
        route_table();
    } else {
        point(quillane::net::resolv_conf_path);
        resolver();
    }
    return 0;
}
