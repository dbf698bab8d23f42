// The network module's file readers against a plain model. The first byte picks the input: 0 a route
// table and 1 a resolver file as raw text, 2 a route table from 10-byte records (name length,
// destination, gateway, flags). Output buffers are exactly sized heap blocks: an overrun is reported.
#include <arpa/inet.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

#include "fuzz_check.h"
#include "net/util_net_internal.h"
#include "util_function.h"

namespace {

util_ops_net_fun_t* const net = util_ops_pfun->net;

// Lays the records out as the kernel prints them. Names are 'q's (no hex digit); one of 16 or
// more cannot be read, and such a line never counts. The header line never counts either.
std::string route_table_of(const std::uint8_t* data, std::size_t size, std::optional<in_addr_t>& gateway) {
    std::string text;
    for (std::size_t at = 0; at + 10 <= size; at += 10) {
        std::uint32_t dest_gate[2];
        std::memcpy(dest_gate, data + at + 1, 8);
        const std::size_t name_len = 1 + data[at] % 20;
        char line[96];
        std::snprintf(line, sizeof line, "%s\t%08X\t%08X\t%04X\t0\t0\t0\t00000000\t0\t0\t0\n",
                      std::string(name_len, 'q').c_str(), dest_gate[0], dest_gate[1], data[at + 9]);
        text += line;
        if (at > 0 && !gateway && name_len <= 15 && (data[at + 9] & 3) == 3) gateway = dest_gate[1];
    }
    return text;
}

// Any table: a failure zeroes the answer, and the text shows the gateway found unless it is 0.0.0.0.
void check_route_table(bool modelled, std::optional<in_addr_t> want) {
    in_addr_t gateway = 0x5A5A5A5A, back = 0;
    const int rc = net->get_gateway(&gateway);
    CHECK(rc == 0 || (rc == -1 && gateway == 0));
    if (modelled) CHECK(rc == (want ? 0 : -1) && gateway == want.value_or(0));
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
    const int kind = data[0] % 3;
    std::optional<in_addr_t> want;
    const std::string text = kind == 2 ? route_table_of(data + 1, size - 1, want)
                                       : std::string(reinterpret_cast<const char*>(data + 1), size - 1);
    fuzz::write_scratch(text.data(), text.size());
    char* path = kind == 1 ? quillane::net::resolv_conf_path : quillane::net::procNetRoute_path;
    std::snprintf(path, quillane::net::kPathBufSize, "%s", fuzz::scratch_path());
    if (kind == 1)
        check_resolver(text);
    else
        check_route_table(kind == 2, want);
    return 0;
}
