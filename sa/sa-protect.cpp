// Ballast files in /data/.protect/ exist only to be given up when /data runs short at start-up, so that
// the daemon (and the handset) can still write. At most one file, the alphabetically last, goes per start.
#define SA_TRACE_SRC "sa/sa-protect"
#include "sa-protect.h"

#include <dirent.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "sa-trace.h"

bool protect_data_is_low(uint64_t bsize, uint64_t bavail) {
    return bsize * bavail <= static_cast<uint64_t>(SA_PROTECT_LOW_SIZE) - 1;
}

void protect_data(void) {
    trace_func();
    struct statfs buffer;
    if (statfs(SA_PROTECT_PARTITION, &buffer) != 0) {
        int err = errno;
        trace_info("sa protect_data stat /data caught errno:%d err:%s\n", err, strerror(err));
        return;
    }
    trace_info("buffer.bavail:%ld buffer.f_bsize:%ld low_size:%d\n", static_cast<long>(buffer.f_bavail),
               static_cast<long>(buffer.f_bsize), SA_PROTECT_LOW_SIZE);
    if (!protect_data_is_low(static_cast<uint64_t>(buffer.f_bsize), static_cast<uint64_t>(buffer.f_bavail)))
        return;

    struct dirent **list = nullptr;
    int n = scandir(SA_PROTECT_DIR, &list, nullptr, alphasort);
    if (n < 0) {
        int err = errno;
        trace_info("scandir() %d-%s\n", err, strerror(err));
        return;
    }
    if (n == 0) {
        // No entry at all (not even "." and ".."): nothing can be given up.
        trace_info("!!!!!!error, no file can be delete.");
        free(list);
        return;
    }

    const char *last = list[n - 1]->d_name;
    if (last[0] == '.') {
        trace_info("!!!!!!error, no file can be delete.");
    } else {
        // "/data/.protect/" + name, cut to the 256-byte buffer.
        char path[256];
        size_t prefix_len = strlen(SA_PROTECT_DIR);
        size_t name_len = strnlen(last, sizeof(path) - prefix_len - 1);
        memcpy(path, SA_PROTECT_DIR, prefix_len);
        memcpy(path + prefix_len, last, name_len);
        path[prefix_len + name_len] = '\0';
        trace_info("scan line %s\n", path);
        if (unlink(path) != 0) {
            int err = errno;
            trace_info("sa protect_data rm %s caught errno:%d err:%s\n", path, err, strerror(err));
        }
    }
    free(list[n - 1]);
    for (int i = n - 2; i >= 0; --i) {
        trace_info("ignore %s\n", list[i]->d_name);
        free(list[i]);
    }
    free(list);
}
