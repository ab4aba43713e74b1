// zv-sa-client: talks to the daemon from the handset.
//
//   zv-sa-client [-l LINK] [-t SECONDS] REQUEST...   send each request (a "\r" is added), print answers
//   zv-sa-client [-l LINK]                           read request lines from standard input
//   zv-sa-client -s [COMMAND]                        a shell through /dev/ttysa1 ("shell:COMMAND")
//   zv-sa-client -k                                  ask the listener to end the daemon ("host:kill")
//
// Answers are printed with their control characters made visible (\r, \n), one answer a line, so a
// person sees the exact bytes. Exit status: 0 when every answer was OK, 1 when one was ERROR, 2 when
// the channel could not be used.
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "client.h"

static constexpr char kDefaultLink[] = "/dev/ttySA0";
static constexpr char kListener[] = "/dev/ttysa1";

static void usage() {
    fprintf(stderr,
            "usage: zv-sa-client [-l LINK] [-t SECONDS] [REQUEST...]\n"
            "       zv-sa-client -s [COMMAND]\n"
            "       zv-sa-client -k\n"
            "  REQUEST   a request line without its \\r, e.g. 'SA+QUERY_SERVICE=\"zv-elog\"' or AT\n"
            "  -l LINK   the command channel's link (default %s)\n"
            "  -t SECS   how long to wait for each answer (default 30)\n"
            "  -s        run COMMAND (or an interactive shell) on a pty from %s\n"
            "  -k        end the daemon through %s\n",
            kDefaultLink, kListener, kListener);
}

static std::string visible(const std::string &s) {
    std::string out;
    for (unsigned char c : s) {
        if (c == '\r') {
            out += "\\r";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c < 0x20 || c > 0x7E) {
            char hex[8];
            snprintf(hex, sizeof(hex), "\\x%02X", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

// Sends one request; prints its answer. 0 for OK, 1 for ERROR, 2 when no answer came.
static int send_one(int fd, const std::string &line, int timeout_ms) {
    std::string answer;
    bool done = zv_client_request(fd, line + "\r", &answer, timeout_ms);
    printf("%s\n", visible(answer).c_str());
    fflush(stdout);
    if (!done) return 2;
    return answer.size() >= 6 && answer.compare(answer.size() - 6, 6, "\r\nOK\r\n") == 0 ? 0 : 1;
}

// Copies between the terminal and the shell's pty until the shell ends.
static int relay(int pty) {
    char buf[1024];
    bool stdin_open = true;
    while (true) {
        struct pollfd p[2] = {{pty, POLLIN, 0}, {0, static_cast<short>(stdin_open ? POLLIN : 0), 0}};
        if (poll(p, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return 2;
        }
        if (p[0].revents != 0) {
            ssize_t n = read(pty, buf, sizeof(buf));
            if (n <= 0) return 0;  // the shell ended and its pty closed
            if (!zv_client_write_all(1, buf, static_cast<size_t>(n))) return 2;
        }
        if (stdin_open && p[1].revents != 0) {
            ssize_t n = read(0, buf, sizeof(buf));
            if (n <= 0) {
                stdin_open = false;
                continue;
            }
            if (!zv_client_write_all(pty, buf, static_cast<size_t>(n))) return 0;
        }
    }
}

static int run_listener(const std::string &request, bool interactive_relay) {
    int fd = zv_client_open(kListener);
    if (fd < 0) {
        fprintf(stderr, "zv-sa-client: cannot open %s: %s\n", kListener, strerror(errno));
        return 2;
    }
    if (!zv_client_write_all(fd, request.data(), request.size())) return 2;
    if (!interactive_relay) {
        close(fd);
        return 0;
    }
    std::string name;
    zv_client_read_until(
        fd, &name, [](const std::string &s) { return !s.empty(); }, 10000);
    int pty = name.empty() ? -1 : zv_client_open(name.c_str());
    if (pty < 0) {
        fprintf(stderr, "zv-sa-client: no shell pty from %s\n", kListener);
        return 2;
    }
    zv_client_write_all(fd, "ok", 2);
    int ret = relay(pty);
    close(pty);
    close(fd);
    return ret;
}

int main(int argc, char **argv) {
    const char *link = kDefaultLink;
    int timeout_ms = 30000;
    bool shell = false;
    bool kill_daemon = false;
    int opt;
    while ((opt = getopt(argc, argv, "+l:t:skh")) != -1) {
        switch (opt) {
            case 'l':
                link = optarg;
                break;
            case 't':
                timeout_ms = atoi(optarg) * 1000;
                break;
            case 's':
                shell = true;
                break;
            case 'k':
                kill_daemon = true;
                break;
            default:
                usage();
                return opt == 'h' ? 0 : 2;
        }
    }
    if (kill_daemon) return run_listener("host:kill", false);
    if (shell) {
        std::string request = "shell:";
        for (int i = optind; i < argc; ++i) request += std::string(i > optind ? " " : "") + argv[i];
        return run_listener(request, true);
    }

    int fd = zv_client_open(link);
    if (fd < 0) {
        fprintf(stderr, "zv-sa-client: cannot open %s: %s\n", link, strerror(errno));
        return 2;
    }
    int worst = 0;
    if (optind < argc) {
        for (int i = optind; i < argc; ++i) {
            int r = send_one(fd, argv[i], timeout_ms);
            if (r > worst) worst = r;
        }
    } else {
        bool tty = isatty(0) != 0;
        char *line = nullptr;
        size_t cap = 0;
        while (true) {
            if (tty) {
                printf("zv-sa> ");
                fflush(stdout);
            }
            ssize_t n = getline(&line, &cap, stdin);
            if (n < 0) break;
            while (n > 0 && (line[n - 1] == '\n' || line[n - 1] == '\r')) line[--n] = '\0';
            if (n == 0) continue;
            int r = send_one(fd, line, timeout_ms);
            if (r > worst) worst = r;
        }
        free(line);
    }
    close(fd);
    return worst;
}
