// The log archive: "+SAVE_LOG" copies every log and diagnostic dump of the handset into a dated folder on
// the removable card, "+DELETE_LOG" empties the log folder of the capture files and restarts the capture.
// This header holds their two handlers and the helpers they share with tests.
#ifndef ZV_SA_SA_ARCHIVE_H
#define ZV_SA_SA_ARCHIVE_H

#include "sa-handle.h"

// Root of the save folders on the removable card.
#define SA_SAVE_ROOT "/storage/real_sd/logs"

// Makes one directory level with mode 0777, up to five attempts 50 ms apart (an existing directory is a
// failure too); 0, -101 for a null path, else the last mkdir's result with errno kept from it.
long sa_mkdir(const char *log_path_ptr);

// Stops the capture, deletes the capture files of /data/local/log and starts the capture again when
// /data has room: 0 when restarted, -117 when the free-space guard refused, else start_log_service's result.
long sa_log_delete_log(void);

// Runs the seven delete lines for src_dir once each, statuses only traced; 0, or -101 for a null src_dir.
long util_delete_ex(const char *src_dir);

// "+SAVE_LOG": copies every log to a new dated folder on the card; ERROR only when no folder can be made.
long handle_sa_save_log_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param);
// "+DELETE_LOG": deletes the capture files and restarts the capture.
long handle_sa_delete_log_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param);

#endif  // ZV_SA_SA_ARCHIVE_H
