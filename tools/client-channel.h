// The client's side of a channel to the daemon, for one invocation of zv-sa-client: an advisory lock
// that keeps two clients from interleaving their requests, an open that rides out the moment in which
// the daemon re-creates its link after the last client left, and a wait for the answer that tells a
// timeout from a closed channel and shows on a terminal how long it has been waiting.
//
// An answer owed to a client that is gone. The daemon runs one request at a time and answers on the pty
// it read the request from, whoever reads that pty by then. So before a client sends a request it notes
// in the lock file which pty instance it sends it on, and clears the note once the answer came or the
// pty closed. A note left behind (the client gave up, or was killed) tells the next client that an
// answer is still to come on that very pty. A pty's name is not its identity: once the daemon has
// answered into a pty that nobody holds, its next read fails and it publishes a fresh pty, and the
// kernel hands the freed number back. The note therefore names the instance (see zv_client_open_link):
// the link that published it and the slave's own inode times, which a fresh pty never shares. While the
// link still names that instance, the daemon has not read past the owed answer, so it is either waiting
// on the pty or still to come; once the link names another instance, that pty and its answer are gone,
// and the note is dropped without waiting.
#ifndef ZV_TOOLS_CLIENT_CHANNEL_H
#define ZV_TOOLS_CLIENT_CHANNEL_H

#include <string>

// How long a client keeps trying to reach a link that the daemon is re-creating after the client before
// (opening it, and sending a request again that a closing pty swallowed). For both of the daemon's ptys.
constexpr long long kClientOpenRetryMs = 5000;

// How the client reports what it does: -v lines and the elapsed-time line on a terminal.
struct zv_client_report {
    bool verbose = false;   // -v: requests, answers, waits and re-opens on stderr
    bool progress = false;  // stderr is a terminal: show elapsed time of waits longer than a second
};

void zv_client_say(const zv_client_report &report, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));

long long zv_client_now_ms();

// Opens the pty slave that the daemon publishes under link, as zv_client_open does, trying again for up
// to kClientOpenRetryMs (never past deadline_ms; -1 for none) while the link is missing or names a pty
// that is going away. *instance (when given) receives a text that identifies the very pty instance
// opened: the link's device, inode and change time, read before and after the open and equal, and the
// slave's device number and change time. The fd, or -1 with *why.
int zv_client_open_link(const std::string &link, long long deadline_ms, const zv_client_report &report,
                        std::string *why, std::string *instance = nullptr);

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
    // The pty instance (zv_client_open_link's text) on which the daemon owes an answer to a client that
    // sent a request and is gone ("" for none), kept in the lock file for the next client. Only while
    // the lock is held.
    std::string pending() const;
    void set_pending(const std::string &instance);

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
    // daemon closes the channel unanswered too). When lock names the pty instance this channel opened
    // as owing an answer to a client that is gone, that late answer is read and dropped first, so that it
    // is never taken for this request's; a note that names another instance is dropped at once. The
    // request is noted there in turn from before it is sent until its answer came or the pty closed.
    // *why says what failed.
    zv_read_end request(const std::string &request, std::string *answer, long long deadline_ms,
                        const char *label, bool may_resend, zv_channel_lock *lock,
                        const zv_client_report &report, std::string *why);
    const std::string &link() const { return link_; }

   private:
    bool open_fd(long long deadline_ms, const zv_client_report &report, std::string *why);
    // Reads and drops an answer owed to a client that is gone; false when the deadline passed first.
    bool drop_late_answer(zv_channel_lock *lock, long long deadline_ms, const zv_client_report &report,
                          std::string *why);
    void close_fd();

    std::string link_;
    int fd_ = -1;
    std::string instance_;  // which pty instance fd_ is (zv_client_open_link)
};

#endif  // ZV_TOOLS_CLIENT_CHANNEL_H
