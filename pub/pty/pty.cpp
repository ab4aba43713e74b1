// Pseudo-terminal endpoint: a fresh master on /dev/ptmx, its slave published under a fixed link.
//
// Opening runs in three steps: open the master, publish the slave (create_pts_mapping: replace any old
// link, point it at the slave, give the slave mode 0660 and owner 1000:1001 through the link), and put
// the line into raw mode (set_ptm_attr: no input processing, no output processing, no echo, no
// canonical lines, no signal characters). The line settings made on the master are those of the
// slave's line discipline, so a client reads exactly the bytes written to the master and the master
// reads the client's bytes at once, without its own answers echoed back.
//
// Every failure after the master was opened ends in pub_pty_close, so the record is left closed and no
// descriptor leaks, except when the link cannot be removed (pub_pty_close then keeps the master open).
// ptsname_r is used because two threads open endpoints at the same time during start-up.
#include "pty/pty.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include "log/log_client.h"
#include "util/util.h"

#define PUB_LOG_SRC "pty/pty"

// Output processing bits cleared on the line; ONLCR and the delay bits keep their values.
static constexpr tcflag_t kOflagOff = OPOST | OLCUC | OCRNL | ONOCR | ONLRET;
// Local bits cleared on the line; every other local flag keeps its value.
static constexpr tcflag_t kLflagOff = ISIG | ICANON | ECHO | ECHOE;
static_assert(kOflagOff == 0x3B, "output flags cleared on the command line");
static_assert(kLflagOff == 0x1B, "local flags cleared on the command line");

// Copies src into the fixed field dst, cut to sizeof - 1 characters, the rest zeroed.
template <size_t N>
static void copy_field(char (&dst)[N], const char *src) {
    memset(dst, 0, N);
    size_t len = strnlen(src, N - 1);
    memcpy(dst, src, len);
}

// The owner fills the mapping name; make sure it ends inside its field whatever was written there.
static void terminate_mapping_name(pub_pty_st *pty) {
    pty->m_pts_mapping_name_a[sizeof(pty->m_pts_mapping_name_a) - 1] = '\0';
}

static const char *exists_text(const char *path) {
    return access(path, F_OK) == 0 ? "exists" : "not exists";
}

// Publishes the slave of pty's master under its mapping name; 0, -101 or -118 (record then closed).
static int create_pts_mapping(pub_pty_st *pty) {
    PUB_LOG_FUNC();
    if (pty == nullptr || pty->m_ptm_fd < 0 || pty->m_pts_mapping_name_a[0] == '\0') {
        PUB_LOG_ERR(
            ERR_INVALID_PARAM, "[PTY]%d, %d, %d", pty == nullptr ? 1 : 0, pty ? pty->m_ptm_fd : -1,
            pty ? static_cast<int>(strnlen(pty->m_pts_mapping_name_a, sizeof(pty->m_pts_mapping_name_a)))
                : -1);
        if (pty != nullptr) pub_pty_close(pty);
        return ERR_INVALID_PARAM;
    }
    const char *mapping = pty->m_pts_mapping_name_a;
    int ret_val = ERR_NONE;

    // Large enough to see a slave name longer than the record's field.
    char pts_name[128];
    int err = ptsname_r(pty->m_ptm_fd, pts_name, sizeof(pts_name));
    const char *pts_name_ptr = err == 0 ? pts_name : nullptr;
    PUB_LOG_INFO("create_pts_mapping pts_name_ptr[%s]", pts_name_ptr ? pts_name_ptr : "(null)");
    if (pts_name_ptr == nullptr) {
        PUB_LOG_SYS_ERR("ptsname_r", err);
        ret_val = ERR_CALL_C_FUNCTION;
    } else {
        const int max_len = static_cast<int>(sizeof(pty->m_pts_name_a) - 1);
        const int len = static_cast<int>(strlen(pts_name_ptr));
        if (len > max_len) PUB_LOG_WARN("[PTY]%d > %d", len, max_len);
        copy_field(pty->m_pts_name_a, pts_name_ptr);

        // A link left by an earlier run.
        int rv = unlink(mapping);
        PUB_LOG_INFO("create_pts_mapping unlink(%s) ret_val[%d]", mapping, rv);
        if (rv == 0) PUB_LOG_INFO("create_pts_mapping \"%s\" %s", mapping, exists_text(mapping));

        if (symlink(pty->m_pts_name_a, mapping) != 0) {
            err = errno;
            PUB_LOG_SYS_ERR("symlink", err);
            PUB_LOG_ERR(ERR_CALL_C_FUNCTION, "[PTY]map %s -> %s failed", mapping, pty->m_pts_name_a);
            ret_val = ERR_CALL_C_FUNCTION;
        } else {
            // Both calls follow the link: they act on the slave device itself.
            int chmod_rv = chmod(mapping, PUB_PTY_SLAVE_MODE);
            if (chmod_rv != 0) PUB_LOG_SYS_ERR("chmod", errno);
            PUB_LOG_INFO("create_pts_mapping chmod(%s, %d) ret_val[%d]", mapping,
                         static_cast<int>(PUB_PTY_SLAVE_MODE), chmod_rv);
            if (chown(mapping, PUB_PTY_SLAVE_UID, PUB_PTY_SLAVE_GID) != 0) PUB_LOG_SYS_ERR("chown", errno);
            PUB_LOG_INFO("create_pts_mapping chown(%s, %d, %d) ret_val[%d]", mapping,
                         static_cast<int>(PUB_PTY_SLAVE_UID), static_cast<int>(PUB_PTY_SLAVE_GID), chmod_rv);
            if (chmod_rv != 0) ret_val = ERR_CALL_C_FUNCTION;
        }
    }
    if (ret_val != ERR_NONE) {
        PUB_LOG_ERR(ERR_CALL_C_FUNCTION, "create_pts_mapping m_pts_mapping_name_a[%s] ret_val[%d]", mapping,
                    ret_val);
        pub_pty_delete_mapping(pty);
        pub_pty_close(pty);
    }
    return ret_val;
}

// Puts the line of master fd into raw mode and unlocks its slave; 0 or -118.
static int set_ptm_attr(int fd) {
    PUB_LOG_FUNC();
    termios attr;
    const char *call = "tcgetattr";
    int rv = tcgetattr(fd, &attr);
    int err = errno;
    PUB_LOG_INFO("set_ptm_attr tcgetattr(%d) ret_val[%d]", fd, rv);
    if (rv == 0) {
        attr.c_iflag = 0;
        attr.c_oflag &= ~kOflagOff;
        attr.c_lflag &= ~kLflagOff;
        call = "tcsetattr";
        rv = tcsetattr(fd, TCSANOW, &attr);
        err = errno;
        PUB_LOG_INFO("set_ptm_attr tcsetattr(%d) ret_val[%d]", fd, rv);
    }
    if (rv == 0) {
        call = "grantpt";
        rv = grantpt(fd);
        err = errno;
        PUB_LOG_INFO("set_ptm_attr grantpt(%d) ret_val[%d]", fd, rv);
    }
    if (rv == 0) {
        call = "unlockpt";
        rv = unlockpt(fd);
        err = errno;
        PUB_LOG_INFO("set_ptm_attr unlockpt(%d) ret_val[%d]", fd, rv);
    }
    if (rv != 0) {
        PUB_LOG_SYS_ERR(call, err);
        PUB_LOG_ERR(ERR_CALL_C_FUNCTION, "set_ptm_attr fd[%d] ret_val[%d]", fd,
                    static_cast<int>(ERR_CALL_C_FUNCTION));
        return ERR_CALL_C_FUNCTION;
    }
    return ERR_NONE;
}

int pub_pty_open(pub_pty_st *pty) {
    PUB_LOG_FUNC();
    if (pty == nullptr) {
        PUB_LOG_ERR(ERR_INVALID_PARAM, "pty[%p]", static_cast<void *>(pty));
        return ERR_INVALID_PARAM;
    }
    terminate_mapping_name(pty);
    // Descriptor 0 counts as closed: a zeroed record was never opened.
    if (pty->m_ptm_fd > 0) pub_pty_close(pty);

    pty->m_ptm_fd = open("/dev/ptmx", O_RDWR | O_CLOEXEC);
    int err = errno;
    PUB_LOG_INFO("pub_pty_open m_ptm_fd[%d]", pty->m_ptm_fd);
    if (pty->m_ptm_fd < 0) {
        PUB_LOG_SYS_ERR("open", err);
        pub_pty_close(pty);
        return ERR_CALL_C_FUNCTION;
    }

    int ret_val = create_pts_mapping(pty);
    if (ret_val != ERR_NONE) return ret_val;  // already closed

    ret_val = set_ptm_attr(pty->m_ptm_fd);
    if (ret_val != ERR_NONE) {
        pub_pty_close(pty);
        return ret_val;
    }

    if (pty->m_is_nonblock_mode != 0) {
        ret_val = pub_util_set_fd_mode(pty->m_ptm_fd, pty->m_is_nonblock_mode);
        if (ret_val != ERR_NONE) {
            pub_pty_close(pty);
            return ret_val;
        }
    }

    PUB_LOG_INFO("pub_pty_open \"%s\" %s", pty->m_pts_mapping_name_a, exists_text(pty->m_pts_mapping_name_a));
    PUB_LOG_INFO("pub_pty_open m_ptm_fd[%d]; m_pts_name_a[%s] m_pts_mapping_name_a[%s]", pty->m_ptm_fd,
                 pty->m_pts_name_a, pty->m_pts_mapping_name_a);
    return ERR_NONE;
}

int pub_pty_close(pub_pty_st *pty) {
    PUB_LOG_FUNC();
    if (pty == nullptr || pty->m_ptm_fd < 0) {
        PUB_LOG_ERR(ERR_INVALID_PARAM, "%d, %d", pty == nullptr ? 1 : 0, pty ? pty->m_ptm_fd : -1);
        return -1;
    }
    int ret_val = pub_pty_delete_mapping(pty);
    PUB_LOG_INFO("pub_pty_close pub_pty_delete_mapping ret_val[%d]", ret_val);
    if (ret_val != ERR_NONE) return ret_val;

    memset(pty->m_pts_name_a, 0, sizeof(pty->m_pts_name_a));
    close(pty->m_ptm_fd);
    pty->m_ptm_fd = -1;
    return ERR_NONE;
}

int pub_pty_delete_mapping(pub_pty_st *pty) {
    PUB_LOG_FUNC();
    if (pty == nullptr) {
        PUB_LOG_ERR(ERR_INVALID_PARAM, "[PTY]%d", 1);
        return ERR_INVALID_PARAM;
    }
    terminate_mapping_name(pty);
    const char *mapping = pty->m_pts_mapping_name_a;
    // A missing link, or a dangling one whose slave is gone, is left alone.
    if (access(mapping, F_OK) != 0) {
        PUB_LOG_WARN("pub_pty_delete_mapping \"%s\" does not exist", mapping);
        return ERR_NONE;
    }
    int rv = unlink(mapping);
    int err = errno;
    PUB_LOG_INFO("pub_pty_delete_mapping unlink(%s) ret_val[%d]", mapping, rv);
    if (rv != 0) {
        PUB_LOG_SYS_ERR("unlink", err);
        return ERR_CALL_C_FUNCTION;
    }
    return ERR_NONE;
}
