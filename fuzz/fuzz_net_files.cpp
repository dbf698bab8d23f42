// The route-table and resolver readers on any file text; the first byte picks the file (odd: the resolver).
#include <arpa/inet.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "fuzz_check.h"
#include "net/util_net_internal.h"
#include "util_function.h"

namespace {

util_ops_net_fun_t* const net = util_ops_pfun->net;

// A failure zeroes the answer, and the text shows the gateway found unless it is 0.0.0.0.
void check_route_table() {
    in_addr_t gateway = 0x5A5A5A5A, back = 0;
    const int rc = net->get_gateway(&gateway);
    CHECK(rc == 0 || (rc == -1 && gateway == 0));
    fuzz::Block text(16);
    std::memset(text.get(), '#', 16);
    const bool shown = rc == 0 && gateway != 0;
    CHECK(net->get_gateway_str(text.get()) == (shown ? 0 : -1));
    CHECK(shown ? inet_pton(AF_INET, text.get(), &back) == 1 && back == gateway : text.get()[0] == '#');
}

// Only a file that starts with "nameserver", white space (or none) and one token of at most 79
// bytes names a server; the token's text ends at a NUL. The text ending first gives 1.
void check_resolver(const std::string& text) {
    const std::string key = "nameserver", space = " \t\n\v\f\r";
    const bool keyed = text.compare(0, key.size(), key) == 0;
    const auto start = keyed ? text.find_first_not_of(space, key.size()) : std::string::npos;
    const int rc = keyed ? start == std::string::npos : key.starts_with(text);
    const auto end = std::min(text.find_first_of(space, start), text.size());
    const bool named = keyed && rc == 0 && end - start <= 79;
    const std::string name = named ? text.substr(start, end - start).c_str() : "";
    std::string want(79, '#');
    fuzz::Block got(80);
    std::memcpy(got.get(), want.c_str(), 80);
    if (named) std::memcpy(want.data(), name.c_str(), name.size() + 1);
    CHECK(net->get_dns_str(got.get()) == rc);
    CHECK(std::memcmp(got.get(), want.c_str(), 80) == 0);
    CHECK(net->get_dns() == (rc != 0 ? 0 : inet_addr(name.c_str())));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const bool resolver = data[0] % 2 == 1;
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
    fuzz::write_scratch(text.data(), text.size());
    char* path = resolver ? quillane::net::resolv_conf_path : quillane::net::procNetRoute_path;
    std::snprintf(path, quillane::net::kPathBufSize, "%s", fuzz::scratch_path());
    if (resolver)
        check_resolver(text);
    else
        check_route_table();
    return 0;
}
