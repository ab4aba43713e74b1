// The free-space guard of the log capture: capture may (re)start only while /data keeps at least 5 per
// cent of its size free for ordinary users, and never needs more than 256,000 KB. Space reserved for
// the superuser counts as used: the capture children do not run as root.
//
// The figures are 32-bit KB values, as they always were; the products are formed in 64 bits, and the 5
// per cent is taken of a 32-bit product.
#define SA_TRACE_SRC "sa/sa-space"
#include <errno.h>
#include <string.h>
#include <sys/vfs.h>

#include "sa-capture.h"
#include "sa-trace.h"

static constexpr char kDataPartition[] = "/data";
static constexpr uint32_t kThresholdPercent = 5;

sa_data_space_st sa_data_space_from_blocks(uint64_t bsize, uint64_t blocks, uint64_t bavail) {
    sa_data_space_st space;
    space.m_total_kb = static_cast<uint32_t>((bsize * blocks) >> 10);
    space.m_used_kb = static_cast<uint32_t>(((blocks - bavail) * bsize) >> 10);
    space.m_available_kb = static_cast<uint32_t>((bavail * bsize) >> 10);
    return space;
}

uint32_t sa_log_space_threshold(uint32_t total_kb) {
    uint32_t threshold = total_kb * kThresholdPercent / 100;
    return threshold < SA_LOG_SPACE_CAP_KB ? threshold : SA_LOG_SPACE_CAP_KB;
}

bool sa_log_space_is_low(uint32_t total_kb, uint32_t available_kb) {
    return available_kb < sa_log_space_threshold(total_kb);
}

long sa_get_data_space_info(sa_data_space_st *space) {
    trace_func();
    memset(space, 0, sizeof(*space));
    struct statfs st;
    if (statfs(kDataPartition, &st) != 0) {
        int err = errno;
        trace_sys_err("statfs", err);
        return ERR_UNKNOWN;
    }
    *space = sa_data_space_from_blocks(static_cast<uint64_t>(st.f_bsize), static_cast<uint64_t>(st.f_blocks),
                                       static_cast<uint64_t>(st.f_bavail));
    return ERR_NONE;
}

long sa_is_can_start_log_service(void) {
    trace_func();
    sa_data_space_st space;
    long ret_val = sa_get_data_space_info(&space);
    trace_info("data space, total[%ldKB], used[%ldKB], available[%ldKB].",
               static_cast<long>(space.m_total_kb), static_cast<long>(space.m_used_kb),
               static_cast<long>(space.m_available_kb));
    if (ret_val != ERR_NONE) return ERR_UNKNOWN;

    if (sa_log_space_is_low(space.m_total_kb, space.m_available_kb)) {
        uint32_t threshold = sa_log_space_threshold(space.m_total_kb);
        trace_info("Low space, threshold:%ldKB, current available space of data is: %ldKB",
                   static_cast<long>(threshold), static_cast<long>(space.m_available_kb));
        ret_val = ERR_UNKNOWN;
    }
    trace_info("ret_val[%d]", static_cast<int>(ret_val));
    return ret_val;
}
