// The optional export library of the simulated handset: export_tcpdump(path) writes a tcpdump program
// to path, here a copy of the simulator's fake tcpdump from the build tree (bound into every handset at
// the same path). 0 on success, -1 on failure.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#ifndef ZV_FAKE_TCPDUMP_SRC
#error "ZV_FAKE_TCPDUMP_SRC must name the program to export"
#endif

extern "C" __attribute__((visibility("default"))) int export_tcpdump(const char *path) {
    if (path == nullptr) return -1;
    int in = open(ZV_FAKE_TCPDUMP_SRC, O_RDONLY | O_CLOEXEC);
    if (in < 0) return -1;
    int out = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0755);
    if (out < 0) {
        close(in);
        return -1;
    }
    char buf[65536];
    ssize_t n;
    int ret = 0;
    while ((n = read(in, buf, sizeof(buf))) > 0) {
        if (write(out, buf, static_cast<size_t>(n)) != n) {
            ret = -1;
            break;
        }
    }
    if (n < 0) ret = -1;
    close(in);
    if (fchmod(out, 0755) != 0) ret = -1;
    close(out);
    return ret;
}
