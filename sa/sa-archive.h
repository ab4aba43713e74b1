// The log archive: "+SAVE_LOG" copies every log and diagnostic dump of the handset into a dated folder on
// the removable card, "+DELETE_LOG" empties the log folder of the capture files and restarts the capture.
// Their handlers are declared with the others in sa-handle.h; this header holds the helpers they share
// with tests.
#ifndef ZV_SA_SA_ARCHIVE_H
#define ZV_SA_SA_ARCHIVE_H

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

#endif  // ZV_SA_SA_ARCHIVE_H
