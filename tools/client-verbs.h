// The verbs of zv-sa-client: how each one becomes a request line of the command channel, how long it
// may take, and what its answer means for a person (one short line), for a script (a JSON value) and
// for the exit status. Nothing here does I/O, so all of it is tested without a daemon.
#ifndef ZV_TOOLS_CLIENT_VERBS_H
#define ZV_TOOLS_CLIENT_VERBS_H

#include <string>
#include <vector>

// Exit statuses of the client.
enum : int {
    kExitOk = 0,
    kExitError = 1,      // the daemon answered ERROR
    kExitUsage = 2,      // usage error, or the channel could not be used
    kExitNegative = 3,   // "not running" / "not in the list"
    kExitTimeout = 124,  // no answer in time
};

// The longest request the daemon takes: one read of at most 199 bytes, its "\r" included.
constexpr size_t kClientRequestMax = 199;
// The longest request the listener takes: one read of at most 1023 bytes, "shell:" included.
constexpr size_t kClientListenerRequestMax = 1023;

// What a word list asks for.
enum class zv_verb_target {
    command,  // one request line on the command channel
    shell,    // a shell through the listener ("shell:" + command)
    kill,     // "host:kill" through the listener
};

// What the answer of a command-channel request means.
enum class zv_answer_meaning {
    raw,            // printed as it came, control characters made visible
    started,        // start NAME
    stopped,        // stop NAME
    query,          // query NAME: item 1 running, 0 not running
    autostart_set,  // autostart add|remove NAME
    autostart_ask,  // autostart status NAME: item 1 listed, 0 not listed
    switch_set,     // kernel-log / dmesg-log / packets on|off
    switch_ask,     // kernel-log / dmesg-log status
    saved,          // save-log
    deleted,        // delete-log
    system,         // system CMDLINE
};

struct zv_verb_request {
    std::string verb;  // "query", "raw", ...
    zv_verb_target target = zv_verb_target::command;
    std::string request;  // the bytes sent, "\r" included (for the listener: the request text)
    std::string subject;  // service name or switch label ("kernel log") for the human line
    bool on = false;      // for switch_set: the value asked for
    zv_answer_meaning meaning = zv_answer_meaning::raw;
    int timeout_ms = 0;        // how long the answer may take
    bool interactive = false;  // shell without a command
};

// A request line of the daemon, as the client recognises one without "raw": "SA" in capitals, blanks
// allowed, then "+" ("SA+KERNEL_LOG?"), or the probe "AT" or "at" alone; blanks around it allowed. The
// daemon itself looks for "SA" in capitals and answers only those two spellings of the probe.
bool zv_is_request_line(const std::string &text);

// Turns one invocation's words (after the options) into requests. Verbs are matched exactly and take
// their arguments from the rest of the words; "raw" sends each word after it as a request line of its
// own, and so does a first word that is a request line (then every word must be one). Anything else is
// a usage error that names the nearest verb. False with a message in *error for a usage error.
bool zv_verb_parse(const std::vector<std::string> &words, std::vector<zv_verb_request> *out,
                   std::string *error);
// One line typed at the prompt or read from standard input: a verb line, a request line (as typed), or
// a usage error as above. The command line of system and shell is taken as typed, blanks and all.
bool zv_verb_parse_line(const std::string &line, std::vector<zv_verb_request> *out, std::string *error);

// How long the daemon may take to answer request, from its command name: a start polls for up to 8 s,
// a stop for up to 10 s, a save copies every log, a system line runs up to five times.
int zv_request_timeout_ms(const std::string &request);

// What the client learned about a request: how it ended and, for save-log, the card.
struct zv_verb_context {
    bool answered = false;     // a final answer ("\r\nOK\r\n" or "\r\nERROR: N\r\n") came
    bool closed = false;       // the channel closed before one did
    std::string saved_folder;  // save-log: the newest folder that appeared under the card's log root
    bool card_present = true;  // save-log: the card's mount point exists
};

struct zv_verb_outcome {
    int exit_code = kExitOk;
    bool ok = false;         // the daemon answered OK
    std::string line;        // the human line (no newline); for raw, the visible answer
    std::string value_json;  // the JSON value of the answer, empty when it has none
};

zv_verb_outcome zv_verb_interpret(const zv_verb_request &req, const std::string &answer,
                                  const zv_verb_context &ctx);

// The answer's item value ("\r\nQUERY_SERVICE: 1\r\n..." gives "1"); empty when there is none.
std::string zv_answer_item_value(const std::string &answer);
// text with \r, \n and other control bytes shown as escapes.
std::string zv_visible(const std::string &text);
// text as a JSON string literal, quotes included.
std::string zv_json_string(const std::string &text);
// The status of several requests: the most telling one (usage/channel > timeout > ERROR > negative > OK).
int zv_exit_combine(int a, int b);

#endif  // ZV_TOOLS_CLIENT_VERBS_H
