// Common high utilities: shell and process helpers, thread affinity and
// local time. Slots of operations that are not provided yet hold null.
#include "util_common_high_function.h"

#include <sched.h>
#include <sys/time.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "util_common_high_internal.h"
#include "util_msg.h"

extern "C" __attribute__((visibility("default"))) UTIL_S32 Func_pox_system(const UTIL_CHAR* cmd_line) {
    // A caller that ignores SIGCHLD would make system() lose the child's
    // status; run the command with the default disposition instead.
    const UTIL_Void__FUNC__S32 previous = std::signal(SIGCHLD, SIG_DFL);
    const UTIL_S32 status = std::system(cmd_line);
    if (previous != SIG_ERR) {
        std::signal(SIGCHLD, previous);
    }
    return status;
}

UTIL_S32 Func_get_local_time(struct tm* ptm, UTIL_U32* ptvUsec) noexcept {
    if (ptm == nullptr || ptvUsec == nullptr) {
        UTIL_DBG_ERR("error; ptm or ptvUsec is NULL!!!\n");
        return -1;
    }
    struct timeval tv;
    if (gettimeofday(&tv, nullptr) != 0) {
        UTIL_DBG_ERR("error; gettimeofday failed\n");
        return -1;
    }
    tzset();
    const time_t seconds = tv.tv_sec;
    const struct tm* local = std::localtime(&seconds);
    if (local == nullptr) {
        UTIL_DBG_ERR("error; localtime failed\n");
        return -1;
    }
    *ptm = *local;
    *ptvUsec = static_cast<UTIL_U32>(tv.tv_usec);
    return 0;
}

UTIL_S32 Func_get_local_time_r(struct tm* ptm) noexcept {
    if (ptm == nullptr) {
        UTIL_DBG_ERR("error; ptm or ptvUsec is NULL!!!\n");
        return -1;
    }
    const time_t now = std::time(nullptr);
    localtime_r(&now, ptm);
    return 0;
}

namespace {

UTIL_S32 Func_setThreadCPU(pthread_t thread, UTIL_U32 cpu_num) noexcept {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (cpu_num < CPU_SETSIZE) {
        CPU_SET(cpu_num, &set);
    }
    int rc = pthread_setaffinity_np(thread, sizeof set, &set);
    if (rc != 0) {
        UTIL_DBG_ERR("pthread_setaffinity_np Error:%x\n", rc);
        return rc;
    }
    rc = pthread_getaffinity_np(thread, sizeof set, &set);
    if (rc != 0) {
        UTIL_DBG_ERR("pthread_getaffinity_np Error:%x\n", rc);
        return rc;
    }
    if (cpu_num >= CPU_SETSIZE || !CPU_ISSET(cpu_num, &set)) {
        UTIL_DBG_ERR("CPU_ISSET Error\n");
        return -1;
    }
    return 0;
}

}  // namespace

util_ops_common_high_fun_t util_ops_common_high_fun = {
    Func_pox_system,
    nullptr,  // readFileShellCmds_malloc
    nullptr,  // get_file_size
    nullptr,  // get_file_size2
    nullptr,  // is_file_empty
    nullptr,  // parsePathName
    nullptr,  // isTextExistStr
    nullptr,  // compare_str_to_file
    nullptr,  // readTextNum
    nullptr,  // readTextFirstLineStr
    nullptr,  // deleteFileList
    nullptr,  // update_line_conf_str
    nullptr,  // update_line_conf_int
    nullptr,  // update_line_conf
    nullptr,  // find_pid
    nullptr,  // kill_pid
    nullptr,  // popen_cmd
    nullptr,  // popen_cmd_result
    Func_setThreadCPU,
    Func_get_local_time,
    Func_get_local_time_r,
};
