// What the handset's shell (mksh, /system/bin/sh) writes on a remote shell's pty. The listener gives the
// shell the pty master as its standard streams and no controlling terminal, so an interactive shell warns
// twice before its first prompt, and its line editor echoes each line it reads, ended by "\r\n", before the
// command's own output (whose "\n" the pty leaves as it is). The prompt is mksh's own for root.
#ifndef ZV_TESTSUPPORT_HANDSET_SHELL_H
#define ZV_TESTSUPPORT_HANDSET_SHELL_H

#include <chrono>
#include <string>

#include "harness.h"

namespace zvtest {

constexpr char kShellWarnings[] =
    "W: /system/bin/sh: can't find controlling tty: No such device or address\n"
    "W: /system/bin/sh: won't have full job control\n";
constexpr char kShellPrompt[] = "# ";

// What the interactive shell writes for one line it reads: the echoed line, then the command's output.
inline std::string shell_echo(const std::string &line) {
    return line + "\r\n";
}

// The shell's complaint about a command it cannot find (its status is 127).
inline std::string shell_not_found(const std::string &command) {
    return "E: /system/bin/sh: " + command + ": inaccessible or not found\n";
}

// Reads a remote shell's pty until the shell's next prompt ends what it wrote (it then waits for a line).
inline std::string read_to_prompt(int fd, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    const std::string prompt = kShellPrompt;
    return read_until(
        fd,
        [&prompt](const std::string &s) {
            return s.size() >= prompt.size() &&
                   s.compare(s.size() - prompt.size(), prompt.size(), prompt) == 0;
        },
        timeout);
}

}  // namespace zvtest

#endif  // ZV_TESTSUPPORT_HANDSET_SHELL_H
