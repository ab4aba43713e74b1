// Pseudo-terminal endpoint of the common library (module "zv-qel-pub").
//
// The endpoint is the master side of a fresh pseudo-terminal in raw mode; its slave is published under
// a fixed path by a symbolic link (the mapping), owned by the client side's user and group with mode
// 0660, so a client opens the mapping path and talks to whoever reads the master.
#ifndef ZV_PUB_PTY_PTY_H
#define ZV_PUB_PTY_PTY_H

#include <stdint.h>
#include <sys/types.h>

// Owner and group given to every published slave (the system user and the radio group).
constexpr uid_t PUB_PTY_SLAVE_UID = 1000;
constexpr gid_t PUB_PTY_SLAVE_GID = 1001;
// Permission bits given to every published slave.
constexpr mode_t PUB_PTY_SLAVE_MODE = 0660;

// One endpoint, owned by its caller: zeroed, then m_pts_mapping_name_a filled in before pub_pty_open.
struct pub_pty_st {
    int32_t m_ptm_fd;               // master descriptor; -1 or 0 when closed
    char m_pts_name_a[40];          // slave device path, at most 39 characters
    char m_pts_mapping_name_a[28];  // path of the link that names the slave, at most 27 characters
    uint8_t m_is_nonblock_mode;     // non-zero: the master is put into non-blocking mode
};

// Opens (or re-opens: closes first) the endpoint and publishes its slave; 0, -101 or -118. Any failure
// leaves the record closed.
int pub_pty_open(pub_pty_st *pty);
// Removes the mapping, then closes the master and keeps the mapping name; 0, the removal's error (the
// master stays open), or -1 for a null record or a negative descriptor.
int pub_pty_close(pub_pty_st *pty);
// Removes the mapping link when it resolves; 0 (also when it does not), -101 or -118.
int pub_pty_delete_mapping(pub_pty_st *pty);

#endif  // ZV_PUB_PTY_PTY_H
