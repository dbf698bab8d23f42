// The resolver file rewrite on stand-in files, through the module's path buffer: no root needed.
#include "../test_support.h"
#include "net/util_net_internal.h"

namespace {

char* text(const std::string& s) { return const_cast<char*>(s.c_str()); }

// Both lines fit 128 bytes with 103 characters of addresses; a control character would add lines of its
// own to a file every resolver reads. A file that cannot be opened fails silently.
TEST(NetFiles, ResolverRewriteIsTwoLinesOrNothing) {
    char* const path = quillane::net::resolv_conf_path;
    qtest::TempDir dir;
    const std::string saved = path, file = dir.file("resolv.conf"), missing = dir.file("no/such/dir");
    const std::string before = "search example\nnameserver 10.9.9.9\n", longest(103 - 8, 'a');
    const char *too = ": name server text too long\n", *fw = " fwrite\n";
    const struct {
        std::string first;
        const char *second, *failure;  // set_dns when second is null
        int why = 0;                   // errno after a failure
        const char* target = nullptr;  // the file when null
    } rows[] = {{"10.0.0.1", "10.0.0.2", nullptr},        {longest, "10.0.0.2", nullptr},
                {longest + "a", "10.0.0.2", too, EINVAL}, {std::string(200, 'b'), nullptr, too, EINVAL},
                {"192.168.7.7", nullptr, nullptr}, {"10.0.0.1\noptions ndots:15", "10.0.0.2", fw, EINVAL},
                {"10.0.0.1", "10.0.0.\x7f", fw, EINVAL},  {"10.0.0.1\x1f", nullptr, fw, EINVAL},
                {"10.0.0.1", "caf\xc3\xa9", nullptr},     {"10.0.0.1", nullptr, fw, ENOSPC, "/dev/full"},
                {"10.0.0.1", nullptr, "", ENOENT, missing.c_str()}};
    for (const auto& row : rows) {
        std::snprintf(path, quillane::net::kPathBufSize, "%s", row.target ? row.target : file.c_str());
        qtest::write_file(file, before);
        testing::internal::CaptureStderr();
        const int rc = row.second ? util_ops_pfun->net->set_dns_ex(text(row.first), text(row.second))
                                  : util_ops_pfun->net->set_dns(text(row.first));
        EXPECT_EQ(rc, row.failure ? -1 : 0) << row.first;
        EXPECT_EQ(row.failure ? errno : 0, row.why) << row.first;
        const std::string op = row.second ? "Func_net_set_dns_ex" : "Func_net_set_dns";
        const std::string said = row.failure && *row.failure ? qtest::net_error(op, op + row.failure) : "";
        EXPECT_THAT(testing::internal::GetCapturedStderr(), qtest::FullyMatches(said));
        const char* second = row.second ? row.second : quillane::net::kFallbackNameServer;
        EXPECT_EQ(qtest::read_file(file),
                  row.failure ? before : "nameserver " + row.first + "\nnameserver " + second + "\n");
    }
    char dns[80];  // the last row's file cannot be read either
    EXPECT_EQ(util_ops_pfun->net->get_dns_str(dns), -1);
    std::snprintf(path, quillane::net::kPathBufSize, "%s", saved.c_str());
}

}  // namespace
