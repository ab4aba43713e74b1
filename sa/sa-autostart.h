// The auto-start list: up to ten init services that the daemon starts every time it starts, kept as the
// 400-byte image of the slot table in /data/zv-qel-sa/auto-start.lst, and the "+AUTO_START_SERVICE"
// command that changes it.
#ifndef ZV_SA_SA_AUTOSTART_H
#define ZV_SA_SA_AUTOSTART_H

#include <stddef.h>

#include "sa-args.h"
#include "sa-handle.h"

// Slots of the auto-start list.
#define SA_AUTO_START_SLOTS 10
#define SA_AUTO_START_DIR "/data/zv-qel-sa"
#define SA_AUTO_START_FILE_NAME "/auto-start.lst"

// The list: a slot whose first byte is NUL is free. Only the command thread changes it after start-up.
extern char auto_start_service_list[SA_AUTO_START_SLOTS][SA_SERVICE_NAME_SIZE];
// The list file's path once the list was read; just the directory when the directory is missing.
extern char auto_start_service_list_path[256];

// Creates the list directory (0770) and loads the list file into the zeroed table. 0 when the file was
// read (even partly), -104 when the directory is missing, -118 when the file can't be opened.
long auto_start_service_list_read(void);
// Asks init to start every listed service once, in slot order; failures are traced and skipped.
// 0, or -118 when any start failed.
long auto_start_service_list_run(void);
// Adds (mode 1) or removes (mode 0) name and rewrites the list file whole. 0 when written, -117 when
// no slot is free (nothing changed), -118 when the file can't be opened (the table keeps the change).
long auto_start_service_list_update(const char *name, int mode);

// "+AUTO_START_SERVICE=\"NAME\",MODE": mode 1 adds, 0 removes, 2 answers whether NAME is listed.
long handle_sa_auto_start_service_set(int fd, sa_msg_st *req, sa_msg_st *rsp, const char *param);

#endif  // ZV_SA_SA_AUTOSTART_H
