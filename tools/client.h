// Client side of the daemon's two ptys, shared by the client tool and the end-to-end tests: open a
// published slave the way a host tool does, send a request, read to the final answer.
#ifndef ZV_TOOLS_CLIENT_H
#define ZV_TOOLS_CLIENT_H

#include <stddef.h>

#include <string>

// Opens a pty slave (through its link): read-write, no controlling tty, raw mode. The fd or -1.
int zv_client_open(const char *path);
// Writes all of len bytes; false on failure.
bool zv_client_write_all(int fd, const char *data, size_t len);
// True when text ends with a final answer of the command channel: "\r\nOK\r\n" or "\r\nERROR: N\r\n".
bool zv_client_is_final_answer(const std::string &text);
// Appends what arrives on fd to out until stop(out) holds, the peer closes, or timeout_ms pass.
// Returns false when the deadline passed or the peer closed first.
bool zv_client_read_until(int fd, std::string *out, bool (*stop)(const std::string &), int timeout_ms);
// Sends request and reads until its final answer; false on timeout or a closed channel.
bool zv_client_request(int fd, const std::string &request, std::string *answer, int timeout_ms);

#endif  // ZV_TOOLS_CLIENT_H
