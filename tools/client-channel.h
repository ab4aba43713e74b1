// The client's side of a channel to the daemon, for one invocation of zv-sa-client: an advisory lock
// that keeps two clients from interleaving their requests, an open that rides out the moment in which
// the daemon re-creates its link after the last client left, and a wait for the answer that tells a
// timeout from a closed channel and shows on a terminal how long it has been waiting.
#ifndef ZV_TOOLS_CLIENT_CHANNEL_H
#define ZV_TOOLS_CLIENT_CHANNEL_H

#include <string>

// How the client reports what it does: -v lines and the elapsed-time line on a terminal.
struct zv_client_report {
    bool verbose = false;   // -v: requests, answers, waits and re-opens on stderr
    bool progress = false;  // stderr is a terminal: show elapsed time of waits longer than a second
};

void zv_client_say(const zv_client_report &report, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));

long long zv_client_now_ms();

// The lock file that serialises the clients of the channel at path (one per channel).
std::string zv_channel_lock_path(const std::string &path);

// Holds the channel's advisory lock from acquire() to release() or destruction.
class zv_channel_lock {
   public:
    explicit zv_channel_lock(std::string channel) : channel_(std::move(channel)) {}
    ~zv_channel_lock() { release(); }
    zv_channel_lock(const zv_channel_lock &) = delete;
    zv_channel_lock &operator=(const zv_channel_lock &) = delete;
    // Waits for the lock until deadline_ms (zv_client_now_ms() time). Without a usable lock file the
    // client goes on unlocked (and -v says so); false only when the wait ran out.
    bool acquire(long long deadline_ms, const zv_client_report &report);
    void release();
    // The pty on which a client gave up waiting for an answer that the daemon still owes ("" for none),
    // kept in the lock file for the next client. Only while the lock is held.
    std::string pending() const;
    void set_pending(const std::string &pts);

   private:
    std::string channel_;
    int fd_ = -1;
};

enum class zv_read_end { answered, timeout, closed };

// Reads what arrives on fd into *out until done(*out), the deadline, or the peer closes.
zv_read_end zv_channel_read(int fd, std::string *out, bool (*done)(const std::string &),
                            long long deadline_ms, const char *label, const zv_client_report &report);

// A command-channel connection that is opened on first use and opened again when the daemon closed it.
class zv_command_channel {
   public:
    explicit zv_command_channel(std::string link) : link_(std::move(link)) {}
    ~zv_command_channel() { close_fd(); }
    zv_command_channel(const zv_command_channel &) = delete;
    zv_command_channel &operator=(const zv_command_channel &) = delete;

    // Sends request and waits for its final answer until deadline_ms. A request that the daemon never
    // read because it was closing the pty the client had just opened (the link still named the pty of the
    // client before) is sent again on the fresh pty, unless may_resend is false (a request that ends the
    // daemon closes the channel unanswered too). When lock names this channel's pty as owing an answer
    // to a client that gave up, that late answer is read and dropped first, so that it is never taken
    // for this request's; a request that times out is recorded there in turn. *why says what failed.
    zv_read_end request(const std::string &request, std::string *answer, long long deadline_ms,
                        const char *label, bool may_resend, zv_channel_lock *lock,
                        const zv_client_report &report, std::string *why);
    const std::string &link() const { return link_; }

   private:
    bool open_fd(long long deadline_ms, const zv_client_report &report, std::string *why);
    std::string pts_name() const;
    // Reads and drops an answer owed to a client that gave up; false when the deadline passed first.
    bool drop_late_answer(zv_channel_lock *lock, long long deadline_ms, const zv_client_report &report,
                          std::string *why);
    void close_fd();

    std::string link_;
    int fd_ = -1;
};

#endif  // ZV_TOOLS_CLIENT_CHANNEL_H
