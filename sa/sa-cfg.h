// The daemon's configuration file /system/etc/zv-qel-sa.cfg, read once at start-up into sa_cfg_st.
#ifndef ZV_SA_SA_CFG_H
#define ZV_SA_SA_CFG_H

#include <stdint.h>

#define SA_CFG_FILE "/system/etc/zv-qel-sa.cfg"

struct sa_cfg_record {
    char m_tty_cmd_a[28];  // "zv.tty.cmd": link path of the command channel's pty, at most 27 characters
    uint32_t m_log_size;   // "zv.log.size": parsed and traced only
};

// The configuration, zeroed and filled by sa_cfg_init; read-only afterwards.
extern sa_cfg_record sa_cfg_st;

// Zeroes sa_cfg_st and reads the configuration file into it. Returns 0 in every case (a missing file
// leaves the defaults).
long sa_cfg_init(void);
// Reads the configuration file into sa_cfg_st (already zeroed); 0 in every case.
long parse_sa_cfg(void);

#endif  // ZV_SA_SA_CFG_H
