// The remote shell listener on "/dev/ttysa1" (main thread).
#ifndef ZV_SA_SA_LISTENER_H
#define ZV_SA_SA_LISTENER_H

// What a listener request asks for.
enum sa_listener_request_kind {
    SA_LISTENER_KILL,     // exactly "host:kill": end the daemon
    SA_LISTENER_SHELL,    // "shell:" with or without a command text
    SA_LISTENER_UNKNOWN,  // anything else: a connection is offered, then closed
};

// Classifies a request (NUL-terminated); for a shell, *command is the text after "shell:", or nullptr
// when there is none (an interactive shell).
sa_listener_request_kind sa_listener_request(const char *request, const char **command);

// Serves "shell:" and "host:kill" requests until the listener's pty fails with anything but EIO.
void sa_listener_loop(void);
// Opens a connection pty, writes its slave name to fd and waits for the peer's acknowledgement; the
// connection's master, or -1.
int open_ptm_connection(int fd);
// Starts a shell on fd for a "shell:" request (fd then belongs to the shell's waiter); fd or -1 (fd
// closed).
int handle_service(int fd, const char *service);

#endif  // ZV_SA_SA_LISTENER_H
