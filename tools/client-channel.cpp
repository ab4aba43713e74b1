// The client's side of a channel to the daemon; see client-channel.h.
#include "client-channel.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "client-verbs.h"
#include "client.h"

namespace {

// Where the lock files live: writable for root and the shell user on a handset.
constexpr char kLockDir[] = "/data/local/tmp";
constexpr useconds_t kRetryPauseUs = 20000;
// A pty that closes this soon after a request was written was closing already.
constexpr long long kResendWindowMs = 1000;

void clear_progress(const zv_client_report &report, bool shown) {
    if (report.progress && shown) fputs("\r\033[K", stderr);
}

bool same_inode(const struct stat &a, const struct stat &b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_ctim.tv_sec == b.st_ctim.tv_sec &&
           a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

// Opens link once; *instance identifies the pty opened. Why both parts: the daemon makes the link anew
// (unlink, symlink) for every pty it publishes and removes it before it closes that pty, so a link that
// is the same inode before and after the open both led to the slave opened and names one instance; a
// file system may hand a freed inode number out again, but not with the same change time. The slave's
// device number repeats with its name, its change time (set when the daemon made it and chowned it)
// does not; it guards the rare link on a file system that reuses numbers within one clock tick.
int open_instance(const std::string &link, std::string *instance) {
    struct stat before, after, slave;
    if (lstat(link.c_str(), &before) != 0) return -1;
    int fd = zv_client_open(link.c_str());
    if (fd < 0) return -1;
    if (lstat(link.c_str(), &after) != 0 || !same_inode(before, after) || fstat(fd, &slave) != 0) {
        // The daemon replaced the link while it was being opened: try again.
        close(fd);
        errno = EAGAIN;
        return -1;
    }
    char text[160];
    snprintf(text, sizeof(text), "pty %llu ctime %lld.%09ld link %llu:%llu ctime %lld.%09ld",
             static_cast<unsigned long long>(slave.st_rdev), static_cast<long long>(slave.st_ctim.tv_sec),
             static_cast<long>(slave.st_ctim.tv_nsec), static_cast<unsigned long long>(after.st_dev),
             static_cast<unsigned long long>(after.st_ino), static_cast<long long>(after.st_ctim.tv_sec),
             static_cast<long>(after.st_ctim.tv_nsec));
    *instance = text;
    return fd;
}

}  // namespace

void zv_client_say(const zv_client_report &report, const char *fmt, ...) {
    if (!report.verbose) return;
    va_list ap;
    va_start(ap, fmt);
    fputs("zv-sa-client: ", stderr);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    va_end(ap);
}

long long zv_client_now_ms() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int zv_client_open_link(const std::string &link, long long deadline_ms, const zv_client_report &report,
                        std::string *why, std::string *instance) {
    long long until = zv_client_now_ms() + kClientOpenRetryMs;
    if (deadline_ms >= 0 && until > deadline_ms) until = deadline_ms;
    bool said = false;
    while (true) {
        std::string id;
        int fd = open_instance(link, &id);
        if (fd >= 0) {
            if (instance != nullptr) *instance = id;
            return fd;
        }
        int err = errno;
        // The link is missing or names a pty that is going away while the daemon makes a fresh one.
        if (zv_client_now_ms() >= until) {
            *why = "cannot open " + link + ": " + strerror(err);
            return -1;
        }
        if (!said)
            zv_client_say(report, "%s: %s; waiting for the daemon to publish it", link.c_str(),
                          strerror(err));
        said = true;
        usleep(kRetryPauseUs);
    }
}

std::string zv_channel_lock_path(const std::string &path) {
    size_t slash = path.rfind('/');
    std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    return std::string(kLockDir) + "/zv-sa-client." + base + ".lock";
}

bool zv_channel_lock::acquire(long long deadline_ms, const zv_client_report &report) {
    if (fd_ >= 0) return true;
    std::string path = zv_channel_lock_path(channel_);
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0666);
    if (fd < 0) {
        zv_client_say(report, "no lock file %s (%s): going on without serialising clients", path.c_str(),
                      strerror(errno));
        return true;
    }
    // Clients of other users (the shell user, root) share the one file.
    fchmod(fd, 0666);
    long long start = zv_client_now_ms();
    bool waited = false;
    bool shown = false;
    long long shown_s = 0;
    while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
            zv_client_say(report, "cannot lock %s (%s): going on unlocked", path.c_str(), strerror(errno));
            close(fd);
            return true;
        }
        if (!waited) zv_client_say(report, "waiting for another client of %s", channel_.c_str());
        waited = true;
        long long now = zv_client_now_ms();
        if (now >= deadline_ms) {
            clear_progress(report, shown);
            close(fd);
            return false;
        }
        if (report.progress && (now - start) / 1000 > shown_s) {
            shown_s = (now - start) / 1000;
            fprintf(stderr, "\rzv-sa-client: waiting for another client: %lld s", shown_s);
            shown = true;
        }
        usleep(kRetryPauseUs);
    }
    clear_progress(report, shown);
    if (waited) {
        zv_client_say(report, "waited %lld ms for another client of %s", zv_client_now_ms() - start,
                      channel_.c_str());
    }
    fd_ = fd;
    return true;
}

std::string zv_channel_lock::pending() const {
    if (fd_ < 0) return "";
    char buf[256];
    ssize_t n = pread(fd_, buf, sizeof(buf) - 1, 0);
    if (n <= 0) return "";
    std::string text(buf, static_cast<size_t>(n));
    size_t eol = text.find('\n');
    return eol == std::string::npos ? "" : text.substr(0, eol);
}

void zv_channel_lock::set_pending(const std::string &instance) {
    if (fd_ < 0 || pending() == instance) return;
    std::string text = instance.empty() ? "" : instance + "\n";
    if (ftruncate(fd_, 0) != 0) return;
    if (!text.empty()) {
        ssize_t n = pwrite(fd_, text.data(), text.size(), 0);
        (void)n;
    }
}

void zv_channel_lock::release() {
    if (fd_ < 0) return;
    flock(fd_, LOCK_UN);
    close(fd_);
    fd_ = -1;
}

zv_read_end zv_channel_read(int fd, std::string *out, bool (*done)(const std::string &),
                            long long deadline_ms, const char *label, const zv_client_report &report) {
    long long start = zv_client_now_ms();
    bool shown = false;
    zv_read_end end = zv_read_end::answered;
    while (done == nullptr || !done(*out)) {
        long long now = zv_client_now_ms();
        if (now >= deadline_ms) {
            end = zv_read_end::timeout;
            break;
        }
        if (report.progress && now - start >= 1000) {
            fprintf(stderr, "\rzv-sa-client: %s: waiting %lld s", label, (now - start) / 1000);
            shown = true;
        }
        // Wake at least once a second to show the elapsed time.
        long long slice = deadline_ms - now;
        if (report.progress && slice > 1000) slice = 1000 - (now - start) % 1000;
        struct pollfd p = {fd, POLLIN, 0};
        int r = poll(&p, 1, static_cast<int>(slice));
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) {
            end = zv_read_end::closed;
            break;
        }
        if (r == 0) continue;
        char buf[1024];
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (n <= 0) {
            end = zv_read_end::closed;
            break;
        }
        out->append(buf, static_cast<size_t>(n));
    }
    clear_progress(report, shown);
    return end;
}

bool zv_command_channel::open_fd(long long deadline_ms, const zv_client_report &report, std::string *why) {
    fd_ = zv_client_open_link(link_, deadline_ms, report, why, &instance_);
    return fd_ >= 0;
}

bool zv_command_channel::drop_late_answer(zv_channel_lock *lock, long long deadline_ms,
                                          const zv_client_report &report, std::string *why) {
    while (lock != nullptr && fd_ >= 0) {
        std::string owed = lock->pending();
        if (owed.empty()) break;
        if (owed != instance_) {
            // The daemon has published another pty since: the owed answer went with the old one.
            zv_client_say(report,
                          "an earlier request's answer went with a pty that is gone; not waiting for it");
            lock->set_pending("");
            break;
        }
        zv_client_say(report, "waiting for the answer to an earlier request whose client gave up");
        std::string late;
        zv_read_end end =
            zv_channel_read(fd_, &late, zv_client_is_final_answer, deadline_ms, "earlier request", report);
        if (end == zv_read_end::timeout) {
            // The note stays: the answer is still owed on this pty while the daemon keeps it.
            *why = "the daemon is still busy with an earlier request whose client gave up";
            return false;
        }
        if (end == zv_read_end::answered)
            zv_client_say(report, "dropped its answer %s", zv_visible(late).c_str());
        lock->set_pending("");
        if (end == zv_read_end::closed) {
            close_fd();
            if (!open_fd(deadline_ms, report, why)) return false;
        }
    }
    return true;
}

void zv_command_channel::close_fd() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
}

zv_read_end zv_command_channel::request(const std::string &request, std::string *answer,
                                        long long deadline_ms, const char *label, bool may_resend,
                                        zv_channel_lock *lock, const zv_client_report &report,
                                        std::string *why) {
    long long resend_until = zv_client_now_ms() + kClientOpenRetryMs;
    while (true) {
        if (fd_ < 0 && !open_fd(deadline_ms, report, why)) return zv_read_end::closed;
        if (!drop_late_answer(lock, deadline_ms, report, why)) return zv_read_end::timeout;
        answer->clear();
        zv_client_say(report, "-> %s", zv_visible(request).c_str());
        long long sent_at = zv_client_now_ms();
        // Noted before it is sent: a client killed while it waits leaves the note behind. (Killed between
        // the note and the write, it leaves a note for a request never sent; then the closed pty makes
        // the daemon publish another one at once, unless the next client opens it within that moment.)
        if (lock != nullptr) lock->set_pending(instance_);
        bool sent = zv_client_write_all(fd_, request.data(), request.size());
        zv_read_end end =
            sent ? zv_channel_read(fd_, answer, zv_client_is_final_answer, deadline_ms, label, report)
                 : zv_read_end::closed;
        // An answer that did not come in time will still come, to whoever reads this pty next: the note
        // stays. Answered, or the pty closed, nothing more is owed on it.
        if (end != zv_read_end::timeout && lock != nullptr) lock->set_pending("");
        if (end != zv_read_end::closed || !answer->empty()) return end;
        // Nothing came back and the pty went away at once: the daemon was closing the pty of the client
        // before and never read this request. Send it again on the pty it publishes now. (A daemon that
        // ended while it ran the request closes the channel too, but not within moments of the write.)
        close_fd();
        long long now = zv_client_now_ms();
        if (!may_resend || now - sent_at > kResendWindowMs || now >= resend_until || now >= deadline_ms) {
            *why = "the daemon closed " + link_ + " without an answer";
            return zv_read_end::closed;
        }
        zv_client_say(report, "%s closed before the request was read; sending it again", link_.c_str());
        usleep(kRetryPauseUs);
    }
}
