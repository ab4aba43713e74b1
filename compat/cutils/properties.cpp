// Host stand-in for the platform's property client. See properties.h for the wire format.
#include "cutils/properties.h"

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// Writes all of buf; false on any failure.
bool write_all(int fd, const void *buf, size_t len) {
    const char *p = static_cast<const char *>(buf);
    while (len > 0) {
        ssize_t n = send(fd, p, len, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

bool read_all(int fd, void *buf, size_t len) {
    char *p = static_cast<char *>(buf);
    while (len > 0) {
        ssize_t n = recv(fd, p, len, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

bool send_string(int fd, const char *s) {
    uint32_t len = static_cast<uint32_t>(strlen(s));
    return write_all(fd, &len, sizeof(len)) && write_all(fd, s, len);
}

// Copies at most PROPERTY_VALUE_MAX - 1 bytes of src into value; returns the length.
int copy_value(char *value, const char *src, size_t len) {
    if (len > PROPERTY_VALUE_MAX - 1) len = PROPERTY_VALUE_MAX - 1;
    memcpy(value, src, len);
    value[len] = '\0';
    return static_cast<int>(len);
}

}  // namespace

extern "C" int property_get(const char *key, char *value, const char *default_value) {
    if (value == nullptr) return 0;
    value[0] = '\0';
    char path[sizeof(PROP_AREA_DIR) + PROPERTY_KEY_MAX + 1];
    int len = 0;
    if (key != nullptr && key[0] != '\0' && strchr(key, '/') == nullptr &&
        snprintf(path, sizeof(path), "%s/%s", PROP_AREA_DIR, key) < static_cast<int>(sizeof(path))) {
        int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
        if (fd >= 0) {
            char buf[PROPERTY_VALUE_MAX];
            ssize_t n;
            do {
                n = read(fd, buf, sizeof(buf) - 1);
            } while (n < 0 && errno == EINTR);
            close(fd);
            if (n > 0) len = copy_value(value, buf, static_cast<size_t>(n));
        }
    }
    if (len == 0 && default_value != nullptr) len = copy_value(value, default_value, strlen(default_value));
    return len;
}

extern "C" int property_set(const char *key, const char *value) {
    if (key == nullptr || value == nullptr) return -1;
    if (strlen(key) >= PROPERTY_KEY_MAX || strlen(value) >= PROPERTY_VALUE_MAX) return -1;

    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, PROP_SERVICE_SOCKET, sizeof(addr.sun_path) - 1);
    int result = -1;
    if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) == 0) {
        uint32_t cmd = PROP_MSG_SETPROP2;
        uint32_t answer = 1;
        if (write_all(fd, &cmd, sizeof(cmd)) && send_string(fd, key) && send_string(fd, value) &&
            read_all(fd, &answer, sizeof(answer)) && answer == 0) {
            result = 0;
        }
    }
    close(fd);
    return result;
}
