// tcpdump for the simulated handset: records how it was called and starts the capture file the way the
// real program does with -C/-W (the first ring file is the -w name followed by "0"), then waits to be
// killed. It captures nothing.
//
// For tests, the argument vector is recorded in /data/local/tmp/tcpdump-args/<pid> as one line, the
// arguments joined by single blanks (the folder is created when missing).
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr char kArgsDir[] = "/data/local/tmp/tcpdump-args";

// pcap global header: magic, version 2.4, zone 0, accuracy 0, snap length, link type LINUX_SLL ("any").
struct pcap_header_st {
    uint32_t m_magic;
    uint16_t m_major;
    uint16_t m_minor;
    int32_t m_zone;
    uint32_t m_sigfigs;
    uint32_t m_snaplen;
    uint32_t m_linktype;
};

static void record_args(int argc, char **argv) {
    // Our umask is 077; the shared scratch folder keeps the mode the handset gives it.
    if (mkdir("/data/local/tmp", 0771) == 0) chmod("/data/local/tmp", 0771);
    mkdir(kArgsDir, 0700);
    char path[128];
    snprintf(path, sizeof(path), "%s/%d", kArgsDir, static_cast<int>(getpid()));
    FILE *fp = fopen(path, "we");
    if (fp == nullptr) return;
    for (int i = 0; i < argc; ++i) fprintf(fp, "%s%s", i == 0 ? "" : " ", argv[i]);
    fputc('\n', fp);
    fclose(fp);
}

int main(int argc, char **argv) {
    record_args(argc, argv);
    const char *file = nullptr;
    bool ring = false;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "-w") == 0 && i + 1 < argc)
            file = argv[++i];
        else if (strcmp(argv[i], "-C") == 0 || strcmp(argv[i], "-W") == 0)
            ring = true;
    }
    if (file != nullptr) {
        char path[512];
        snprintf(path, sizeof(path), "%s%s", file, ring ? "0" : "");
        int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0) {
            fprintf(stderr, "tcpdump: %s: %s\n", path, strerror(errno));
            return 1;
        }
        pcap_header_st header = {0xa1b2c3d4u, 2, 4, 0, 0, 262144, 113};
        if (write(fd, &header, sizeof(header)) != static_cast<ssize_t>(sizeof(header))) return 1;
        close(fd);
    }
    for (;;) pause();
}
