// Client side of the daemon's ptys; see client.h.
#include "client.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

int zv_client_open(const char *path) {
    int fd = open(path, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return -1;
    struct termios tio;
    if (tcgetattr(fd, &tio) == 0) {
        cfmakeraw(&tio);
        tcsetattr(fd, TCSANOW, &tio);
    }
    return fd;
}

bool zv_client_write_all(int fd, const char *data, size_t len) {
    size_t done = 0;
    while (done < len) {
        ssize_t n = write(fd, data + done, len - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool zv_client_is_final_answer(const std::string &text) {
    static const std::string ok = "\r\nOK\r\n";
    static const std::string err = "\r\nERROR: ";
    if (text.size() >= ok.size() && text.compare(text.size() - ok.size(), ok.size(), ok) == 0) return true;
    size_t pos = text.rfind(err);
    if (pos == std::string::npos || text.size() < pos + err.size() + 3) return false;
    if (text.compare(text.size() - 2, 2, "\r\n") != 0) return false;
    for (size_t i = pos + err.size(); i < text.size() - 2; ++i) {
        if (text[i] < '0' || text[i] > '9') return false;
    }
    return true;
}

static long long now_ms() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

bool zv_client_read_until(int fd, std::string *out, bool (*stop)(const std::string &), int timeout_ms) {
    long long deadline = now_ms() + timeout_ms;
    while (stop == nullptr || !stop(*out)) {
        long long left = deadline - now_ms();
        if (left <= 0) return false;
        struct pollfd p = {fd, POLLIN, 0};
        int r = poll(&p, 1, static_cast<int>(left));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        char buf[512];
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        out->append(buf, static_cast<size_t>(n));
    }
    return true;
}

bool zv_client_request(int fd, const std::string &request, std::string *answer, int timeout_ms) {
    if (!zv_client_write_all(fd, request.data(), request.size())) return false;
    return zv_client_read_until(fd, answer, zv_client_is_final_answer, timeout_ms);
}
