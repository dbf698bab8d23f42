// Shared by the tests: temporary directories, whole files, machine-wide paths
// and a guard that puts the global debug record back as it was.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <utility>

#include "util_function.h"

namespace qtest {

class TempDir {
public:
    TempDir() {
        path_ = (std::filesystem::temp_directory_path() / "quillane_test_XXXXXX").string();
        if (mkdtemp(path_.data()) == nullptr) ADD_FAILURE() << "mkdtemp failed";
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::string file(const std::string& name) const { return path_ + "/" + name; }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

inline std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

inline void write_file(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

// The whole text matches an ECMAScript regular expression.
MATCHER_P(FullyMatches, pattern, "") { return std::regex_match(std::string(arg), std::regex(std::string(pattern))); }

// A literal text as a regular expression that matches only itself.
inline std::string regex_escape(const std::string& text) {
    static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
    return std::regex_replace(text, special, R"(\$&)");
}

// One console diagnostic of `source` (the file name without .cpp) from `fn`, line number left open.
inline std::string console_error(const std::string& source, const std::string& fn, const std::string& pattern) {
    return "DBG_ERR:" + source + "\\.cpp " + fn + "\\[\\d{4}\\] " + pattern;
}
inline std::string net_error(const std::string& fn, const std::string& text) {
    return console_error("util_net_function", fn, regex_escape(text));
}

// What `call` printed on the standard error stream.
template <class F>
std::string console(F call) {
    ::testing::internal::CaptureStderr();
    call();
    return ::testing::internal::GetCapturedStderr();
}

inline bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// A machine-wide path a test may create: removed before the test (a stale one
// from an interrupted run) and after it, however it ends. held() is false when
// a stale file could not be removed (that needs root).
class MachineWideFile {
public:
    explicit MachineWideFile(std::string path) : path_(std::move(path)) { remove(); }
    ~MachineWideFile() { remove(); }
    MachineWideFile(const MachineWideFile&) = delete;
    MachineWideFile& operator=(const MachineWideFile&) = delete;

    bool held() const { return !exists(path_); }
    const std::string& path() const { return path_; }
    void remove() const { std::remove(path_.c_str()); }

private:
    std::string path_;
};

// While it exists, building a parameter list traces every parameter and class.
inline constexpr const char* kParameterMarker = "/dev/util_parameter_base";

inline util_dbgout_attr_fun_t* attr() { return util_ops_pfun->dbgout->pstDebugAttr; }
inline util_dbgout_t* dbg() { return attr()->get(); }

template <typename... Args>
int trace(const char* fmt, Args... args) {
    return util_ops_pfun->dbgout->traceout(dbg(), fmt, args...);
}

// Every test that touches the global debug record starts from the defaults
// and leaves them behind, with the log stream closed.
class DebugRecordTest : public ::testing::Test {
protected:
    void SetUp() override {
        attr()->fclose_dbglog_fp();
        saved_ = *dbg();
    }
    void TearDown() override {
        attr()->fclose_dbglog_fp();
        *dbg() = saved_;
    }
    // Routes the log file into this test's directory.
    std::string use_log(const std::string& name, UTIL_U32 enable = UTIL_DBGOUT_DBGLOG_ENABLE,
                        UTIL_U64 max_size = 0x100000) {
        std::string path = dir_.file(name);
        attr()->set_dbglog_attr(enable, path.c_str(), max_size);
        return path;
    }

    TempDir dir_;

private:
    util_dbgout_t saved_{};
};

}  // namespace qtest
