// The auto-start list: up to ten init services that the daemon starts every time it starts, kept as the
// 400-byte image of the slot table in /data/zv-qel-sa/auto-start.lst, and the "+AUTO_START_SERVICE"
// command that changes it. Also the quoted service-name parse shared by every service command.
#ifndef ZV_SA_SA_AUTOSTART_H
#define ZV_SA_SA_AUTOSTART_H

#include <stddef.h>

// A service name buffer: at most 39 characters and a NUL. Longer names are refused, never cut (a cut
// name could match another service).
#define SA_SERVICE_NAME_SIZE 40
// Slots of the auto-start list.
#define SA_AUTO_START_SLOTS 10
#define SA_AUTO_START_DIR "/data/zv-qel-sa"
#define SA_AUTO_START_FILE_NAME "/auto-start.lst"

// The list: a slot whose first byte is NUL is free. Only the command thread changes it after start-up.
extern char auto_start_service_list[SA_AUTO_START_SLOTS][SA_SERVICE_NAME_SIZE];
// The list file's path once the list was read; just the directory when the directory is missing.
extern char auto_start_service_list_path[256];

// Parses a double-quoted, non-empty service name of at most 39 characters at the start of param into
// name (SA_SERVICE_NAME_SIZE bytes, zeroed first and left empty on failure). 0 with *rest (if not
// null) just past the closing quote, or -1 when param does not start with such a name.
long sa_service_name_parse(const char *param, char *name, const char **rest);

// Creates the list directory (0770) and loads the list file into the zeroed table. 0 when the file was
// read (even partly), -104 when the directory is missing, -118 when the file can't be opened.
long auto_start_service_list_read(void);
// Asks init to start every listed service once, in slot order; failures are traced and skipped.
// 0, or -118 when any start failed.
long auto_start_service_list_run(void);
// Adds (mode 1) or removes (mode 0) name and rewrites the list file whole. 0 when written, -117 when
// no slot is free (nothing changed), -118 when the file can't be opened (the table keeps the change).
long auto_start_service_list_update(const char *name, int mode);

#endif  // ZV_SA_SA_AUTOSTART_H
