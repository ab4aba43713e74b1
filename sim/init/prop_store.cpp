// prop_store: request decoding, validation and the file-per-property area behind the property
// service. Kept apart from the service's socket handling so every rule on names, values and frames can
// be tested on plain buffers and a scratch folder.
#include "init/prop_store.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

// Name of the temporary file a value is written to before it replaces the property's file.
static const char k_prop_tmp_name[] = ".tmp";

// Reads the host-order uint32 at buf + off.
static uint32_t prop_read_u32(const unsigned char *buf, size_t off) {
    uint32_t v;
    memcpy(&v, buf + off, sizeof(v));
    return v;
}

prop_frame_status prop_frame_decode(const unsigned char *buf, size_t len, prop_request *req) {
    const size_t word = sizeof(uint32_t);
    if (len < word) return PROP_FRAME_INCOMPLETE;
    if (prop_read_u32(buf, 0) != PROP_MSG_SETPROP2) return PROP_FRAME_BAD;
    if (len < 2 * word) return PROP_FRAME_INCOMPLETE;
    uint32_t key_len = prop_read_u32(buf, word);
    if (key_len >= PROPERTY_KEY_MAX) return PROP_FRAME_BAD;
    size_t value_len_off = 2 * word + key_len;
    if (len < value_len_off + word) return PROP_FRAME_INCOMPLETE;
    uint32_t value_len = prop_read_u32(buf, value_len_off);
    if (value_len >= PROPERTY_VALUE_MAX) return PROP_FRAME_BAD;
    size_t value_off = value_len_off + word;
    if (len < value_off + value_len) return PROP_FRAME_INCOMPLETE;
    memcpy(req->m_key, buf + 2 * word, key_len);
    req->m_key[key_len] = '\0';
    req->m_key_len = key_len;
    memcpy(req->m_value, buf + value_off, value_len);
    req->m_value[value_len] = '\0';
    req->m_value_len = value_len;
    return PROP_FRAME_COMPLETE;
}

bool prop_name_is_legal(const char *name, size_t len) {
    if (len == 0 || len >= PROPERTY_KEY_MAX) return false;
    if (name[0] == '.' || name[len - 1] == '.') return false;
    for (size_t i = 0; i < len; ++i) {
        char c = name[i];
        if (c == '.') {
            if (i + 1 < len && name[i + 1] == '.') return false;
            continue;
        }
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
                  c == '-' || c == ':' || c == '@';
        if (!ok) return false;
    }
    return true;
}

bool prop_value_is_legal(const char *value, size_t len) {
    if (len >= PROPERTY_VALUE_MAX) return false;
    for (size_t i = 0; i < len; ++i) {
        if (value[i] == '\0' || value[i] == '\n' || value[i] == '\r') return false;
    }
    return true;
}

uint32_t prop_request_check(const char *dir, const prop_request *req) {
    if (!prop_name_is_legal(req->m_key, req->m_key_len)) return PROP_ANSWER_BAD_NAME;
    if (!prop_value_is_legal(req->m_value, req->m_value_len)) return PROP_ANSWER_BAD_VALUE;
    if (strncmp(req->m_key, "ro.", 3) == 0) {
        char path[256];
        int n = snprintf(path, sizeof(path), "%s/%s", dir, req->m_key);
        if (n < 0 || static_cast<size_t>(n) >= sizeof(path)) return PROP_ANSWER_STORE;
        struct stat st;
        if (stat(path, &st) == 0 && st.st_size > 0) return PROP_ANSWER_READ_ONLY;
    }
    return PROP_ANSWER_OK;
}

// Writes all of buf[0..len) to fd; 0 or an errno value.
static int prop_write_all(int fd, const char *buf, size_t len) {
    while (len > 0) {
        ssize_t n = write(fd, buf, len);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return errno;
        buf += n;
        len -= static_cast<size_t>(n);
    }
    return 0;
}

int prop_store_set(const char *dir, const char *key, const char *value, size_t len) {
    char tmp_path[256];
    char path[256];
    int n = snprintf(tmp_path, sizeof(tmp_path), "%s/%s", dir, k_prop_tmp_name);
    if (n < 0 || static_cast<size_t>(n) >= sizeof(tmp_path)) return ENAMETOOLONG;
    n = snprintf(path, sizeof(path), "%s/%s", dir, key);
    if (n < 0 || static_cast<size_t>(n) >= sizeof(path)) return ENAMETOOLONG;
    int fd = open(tmp_path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0) return errno;
    int err = prop_write_all(fd, value, len);
    if (close(fd) != 0 && err == 0) err = errno;
    if (err == 0 && rename(tmp_path, path) != 0) err = errno;
    if (err != 0) unlink(tmp_path);
    return err;
}

int prop_history_append(int fd, const prop_request *req) {
    char line[PROPERTY_KEY_MAX + PROPERTY_VALUE_MAX + 2];
    int n = snprintf(line, sizeof(line), "%s=%s\n", req->m_key, req->m_value);
    if (n < 0 || static_cast<size_t>(n) >= sizeof(line)) return EOVERFLOW;
    ssize_t w;
    do {
        w = write(fd, line, static_cast<size_t>(n));
    } while (w < 0 && errno == EINTR);
    if (w < 0) return errno;
    return w == n ? 0 : EIO;
}

// Reads the value file at path (at most PROPERTY_VALUE_MAX - 1 bytes) into out; 0 or an errno value.
static int prop_read_value(const char *path, std::string *out) {
    int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return errno;
    char buf[PROPERTY_VALUE_MAX];
    size_t len = 0;
    int err = 0;
    while (len < sizeof(buf) - 1) {
        ssize_t n = read(fd, buf + len, sizeof(buf) - 1 - len);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) err = errno;
        if (n <= 0) break;
        len += static_cast<size_t>(n);
    }
    close(fd);
    if (err == 0) out->assign(buf, len);
    return err;
}

int prop_store_list(const char *dir, std::vector<prop_entry> *out) {
    out->clear();
    DIR *d = opendir(dir);
    if (d == nullptr) return errno;
    int err = 0;
    for (;;) {
        errno = 0;
        struct dirent *entry = readdir(d);
        if (entry == nullptr) {
            err = errno;
            break;
        }
        size_t len = strlen(entry->d_name);
        if (!prop_name_is_legal(entry->d_name, len)) continue;
        char path[256];
        int n = snprintf(path, sizeof(path), "%s/%s", dir, entry->d_name);
        if (n < 0 || static_cast<size_t>(n) >= sizeof(path)) continue;
        struct stat st;
        if (lstat(path, &st) != 0 || !S_ISREG(st.st_mode)) continue;
        prop_entry item;
        item.m_key.assign(entry->d_name, len);
        // A property replaced between readdir and open is listed with the value read; one removed
        // meanwhile is left out.
        if (prop_read_value(path, &item.m_value) != 0) continue;
        out->push_back(std::move(item));
    }
    closedir(d);
    std::sort(out->begin(), out->end(),
              [](const prop_entry &a, const prop_entry &b) { return a.m_key < b.m_key; });
    return err;
}
