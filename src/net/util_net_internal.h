// The network module's table, and the file paths it reads, for white-box tests
// that point them at stand-in files.
#pragma once

#include "util_net_function.h"


namespace quillane::net {

constexpr std::size_t kPathBufSize = 128;
extern char procNetRoute_path[kPathBufSize];
extern char resolv_conf_path[kPathBufSize];

// The second name server that set_dns writes after the caller's.
inline constexpr char kFallbackNameServer[] = "8.8.8.8";

}  // namespace quillane::net
