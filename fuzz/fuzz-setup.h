// Set-up shared by the fuzz targets that run daemon code: the structured log client runs (so record
// building is exercised with whatever the target feeds through the traces) in a ring of bounded size,
// and sa.log cannot be opened (a folder stands at its path), so millions of runs do not fill /data.
#ifndef ZV_FUZZ_FUZZ_SETUP_H
#define ZV_FUZZ_FUZZ_SETUP_H

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "log/log_client.h"

// Once per process: the log client in /data/local/log/fuzz with a 64 KiB ring, sa.log dropped.
inline void fuzz_setup_logs() {
    static bool done = false;
    if (done) return;
    done = true;
    mkdir("/data/local", 0771);
    mkdir("/data/local/log", 0771);
    unlink("/data/local/log/sa.log");
    mkdir("/data/local/log/sa.log", 0700);
    sfw_log_set_path("/data/local/log/fuzz");
    sfw_log_set_max_size(64u * 1024u);
    sfw_log_start(1, nullptr);
}

// A descriptor that takes any answer: /dev/null, opened once.
inline int fuzz_sink_fd() {
    static int fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    return fd;
}

#endif  // ZV_FUZZ_FUZZ_SETUP_H
