// The verbs of zv-sa-client; see client-verbs.h.
#include "client-verbs.h"

#include <ctype.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

namespace {

// The daemon reads a service name of at most 39 characters between double quotes.
constexpr size_t kServiceNameMax = 39;

std::string join(const std::vector<std::string> &words, size_t from) {
    std::string out;
    for (size_t i = from; i < words.size(); ++i) {
        if (i > from) out += ' ';
        out += words[i];
    }
    return out;
}

bool fail(std::string *error, const std::string &text) {
    *error = text;
    return false;
}

constexpr const char *kVerbs[] = {"start",     "stop",    "query",    "autostart",  "kernel-log",
                                  "dmesg-log", "packets", "save-log", "delete-log", "system",
                                  "shell",     "kill",    "raw"};

bool is_verb(const std::string &word) {
    for (const char *v : kVerbs) {
        if (word == v) return true;
    }
    return false;
}

// Lower case, dashes left out: how a mistyped verb is compared with the verbs.
std::string folded(const std::string &word) {
    std::string out;
    for (char c : word) {
        if (c != '-') out += static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
    return out;
}

// Edits (insert, delete, replace) between a and b; both are short, so the plain table will do.
size_t edit_distance(const std::string &a, const std::string &b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            size_t up = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diagonal = up;
        }
    }
    return row[b.size()];
}

// The verb a mistyped word most likely meant: one it begins (two letters at least), else the fewest
// edits; the first in the list on a tie.
const char *nearest_verb(const std::string &word) {
    std::string w = folded(word.substr(0, 64));
    const char *best = kVerbs[0];
    size_t best_distance = SIZE_MAX;
    for (const char *v : kVerbs) {
        std::string f = folded(v);
        size_t d = w.size() >= 2 && f.compare(0, w.size(), w) == 0 ? 0 : edit_distance(w, f);
        if (d < best_distance) {
            best = v;
            best_distance = d;
        }
    }
    return best;
}

// What is wrong with a first word that is neither a verb nor a request line.
std::string not_a_verb(const std::string &word) {
    std::string shown = zv_visible(word.substr(0, 64));
    std::string upper = word;
    for (char &c : upper) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    if (zv_is_request_line(upper)) {
        return "'" + shown +
               "' is not a request line: the daemon takes SA in capitals, and AT or at (raw sends a line as "
               "it is)";
    }
    return "unknown verb '" + shown + "' (did you mean " + nearest_verb(word) + "?)";
}

bool check_length(const zv_verb_request &req, std::string *error) {
    if (req.request.size() <= kClientRequestMax) return true;
    return fail(error, "the request is " + std::to_string(req.request.size()) +
                           " bytes with its \\r; the daemon reads at most " +
                           std::to_string(kClientRequestMax));
}

bool service_name(const std::vector<std::string> &words, size_t at, std::string *name, std::string *error) {
    if (words.size() != at + 1) return fail(error, words[0] + " takes one service name");
    const std::string &n = words[at];
    if (n.empty()) return fail(error, "the service name is empty");
    if (n.size() > kServiceNameMax) {
        return fail(error,
                    "the service name is longer than " + std::to_string(kServiceNameMax) + " characters");
    }
    if (n.find_first_of("\"\r\n") != std::string::npos) {
        return fail(error, "a service name cannot hold a double quote or a line break");
    }
    *name = n;
    return true;
}

bool parse_switch(const std::vector<std::string> &words, const char *command, const char *label, bool can_ask,
                  zv_verb_request *req, std::string *error) {
    const std::string &verb = words[0];
    std::string usage = verb + (can_ask ? " takes on, off or status" : " takes on or off");
    if (words.size() != 2) return fail(error, usage);
    req->subject = label;
    if (words[1] == "on" || words[1] == "off") {
        req->on = words[1] == "on";
        req->request = std::string("SA+") + command + "=" + (req->on ? "1" : "0") + "\r";
        req->meaning = zv_answer_meaning::switch_set;
    } else if (can_ask && words[1] == "status") {
        req->request = std::string("SA+") + command + "?\r";
        req->meaning = zv_answer_meaning::switch_ask;
    } else {
        return fail(error, usage);
    }
    return true;
}

// One verb with its words; words[0] is the verb.
bool parse_verb(const std::vector<std::string> &words, zv_verb_request *req, std::string *error) {
    const std::string &verb = words[0];
    req->verb = verb;
    std::string name;
    if (verb == "start" || verb == "stop" || verb == "query") {
        if (!service_name(words, 1, &name, error)) return false;
        req->subject = name;
        const char *command = verb == "start"  ? "START_SERVICE"
                              : verb == "stop" ? "STOP_SERVICE"
                                               : "QUERY_SERVICE";
        req->request = std::string("SA+") + command + "=\"" + name + "\"\r";
        req->meaning = verb == "start"  ? zv_answer_meaning::started
                       : verb == "stop" ? zv_answer_meaning::stopped
                                        : zv_answer_meaning::query;
    } else if (verb == "autostart") {
        if (words.size() < 2 || (words[1] != "add" && words[1] != "remove" && words[1] != "status")) {
            return fail(error, "autostart takes add, remove or status, then a service name");
        }
        std::vector<std::string> rest(words.begin() + 1, words.end());
        if (!service_name(rest, 1, &name, error)) return false;
        req->subject = name;
        const char *value = words[1] == "add" ? "1" : words[1] == "remove" ? "0" : "2";
        req->on = words[1] == "add";
        req->request = "SA+AUTO_START_SERVICE=\"" + name + "\"," + value + "\r";
        req->meaning =
            words[1] == "status" ? zv_answer_meaning::autostart_ask : zv_answer_meaning::autostart_set;
    } else if (verb == "kernel-log") {
        if (!parse_switch(words, "KERNEL_LOG", "kernel log", true, req, error)) return false;
    } else if (verb == "dmesg-log") {
        if (!parse_switch(words, "DMESG_LOG", "dmesg log", true, req, error)) return false;
    } else if (verb == "packets") {
        if (!parse_switch(words, "DATA_PACKETS_LOG", "packet capture", false, req, error)) return false;
    } else if (verb == "save-log" || verb == "delete-log") {
        if (words.size() != 1) return fail(error, verb + " takes no arguments");
        req->request = verb == "save-log" ? "SA+SAVE_LOG\r" : "SA+DELETE_LOG\r";
        req->meaning = verb == "save-log" ? zv_answer_meaning::saved : zv_answer_meaning::deleted;
    } else if (verb == "system") {
        std::string line = join(words, 1);
        if (line.empty()) return fail(error, "system takes a command line");
        if (line.find_first_of("\"\r") != std::string::npos) {
            return fail(error,
                        "a system command line cannot hold a double quote or a carriage return "
                        "(use shell for such a line)");
        }
        req->request = "SA+SYSTEM=\"" + line + "\"\r";
        req->subject = line;
        req->meaning = zv_answer_meaning::system;
    } else if (verb == "shell") {
        req->target = zv_verb_target::shell;
        req->interactive = words.size() == 1;
        req->request = "shell:" + join(words, 1);
        req->subject = join(words, 1);
        if (req->request.size() > kClientListenerRequestMax) {
            return fail(error, "the shell command is " + std::to_string(req->subject.size()) +
                                   " bytes; the listener reads \"shell:\" and the command in one read of " +
                                   std::to_string(kClientListenerRequestMax) + " bytes, so at most " +
                                   std::to_string(kClientListenerRequestMax - 6));
        }
        return true;
    } else if (verb == "kill") {
        if (words.size() != 1) return fail(error, "kill takes no arguments");
        req->target = zv_verb_target::kill;
        req->request = "host:kill";
        return true;
    } else {
        return fail(error, not_a_verb(verb));
    }
    req->timeout_ms = zv_request_timeout_ms(req->request);
    return check_length(*req, error);
}

bool raw_request(const std::string &line, std::vector<zv_verb_request> *out, std::string *error) {
    zv_verb_request req;
    req.verb = "raw";
    req.request = line + "\r";
    req.timeout_ms = zv_request_timeout_ms(req.request);
    if (!check_length(req, error)) return false;
    out->push_back(req);
    return true;
}

bool ends_with(const std::string &s, const char *tail) {
    size_t n = strlen(tail);
    return s.size() >= n && s.compare(s.size() - n, n, tail) == 0;
}

std::string error_code(const std::string &answer) {
    size_t pos = answer.rfind("ERROR: ");
    if (pos == std::string::npos) return "";
    size_t end = answer.find('\r', pos);
    return answer.substr(pos + 7, end == std::string::npos ? std::string::npos : end - pos - 7);
}

}  // namespace

bool zv_verb_parse(const std::vector<std::string> &words, std::vector<zv_verb_request> *out,
                   std::string *error) {
    if (words.empty()) return fail(error, "nothing to do");
    if (words[0] == "raw" || (!is_verb(words[0]) && zv_is_request_line(words[0]))) {
        size_t from = words[0] == "raw" ? 1 : 0;
        if (from == words.size()) return fail(error, "raw takes one or more request lines");
        for (size_t i = from; i < words.size(); ++i) {
            // Without "raw", every word must be a request line by itself.
            if (from == 0 && !zv_is_request_line(words[i])) return fail(error, not_a_verb(words[i]));
        }
        for (size_t i = from; i < words.size(); ++i) {
            if (!raw_request(words[i], out, error)) return false;
        }
        return true;
    }
    zv_verb_request req;
    if (!parse_verb(words, &req, error)) return false;
    out->push_back(req);
    return true;
}

bool zv_verb_parse_line(const std::string &line, std::vector<zv_verb_request> *out, std::string *error) {
    size_t begin = line.find_first_not_of(" \t");
    if (begin == std::string::npos) return fail(error, "empty line");
    size_t end = line.find_first_of(" \t", begin);
    std::string verb = line.substr(begin, end == std::string::npos ? std::string::npos : end - begin);
    std::string rest;
    if (end != std::string::npos) {
        size_t r = line.find_first_not_of(" \t", end);
        if (r != std::string::npos) rest = line.substr(r);
    }
    if (!is_verb(verb)) {
        // A request line goes as typed.
        if (zv_is_request_line(line)) return raw_request(line, out, error);
        return fail(error, not_a_verb(verb));
    }
    if (verb == "raw")
        return rest.empty() ? fail(error, "raw takes a request line") : raw_request(rest, out, error);
    std::vector<std::string> words{verb};
    if (verb == "system" || verb == "shell") {
        // The command line goes as typed, blanks and all.
        if (!rest.empty()) words.push_back(rest);
    } else {
        size_t p = 0;
        while (p < rest.size()) {
            size_t q = rest.find_first_of(" \t", p);
            if (q == std::string::npos) q = rest.size();
            if (q > p) words.push_back(rest.substr(p, q - p));
            p = q + 1;
        }
    }
    zv_verb_request req;
    if (!parse_verb(words, &req, error)) return false;
    out->push_back(req);
    return true;
}

bool zv_is_request_line(const std::string &text) {
    size_t p = text.find_first_not_of(" \t");
    if (p == std::string::npos) return false;
    if (text.compare(p, 2, "SA") == 0) {
        p = text.find_first_not_of(" \t", p + 2);
        return p != std::string::npos && text[p] == '+';
    }
    size_t end = text.find_last_not_of(" \t");
    std::string word = text.substr(p, end + 1 - p);
    return word == "AT" || word == "at";
}

int zv_request_timeout_ms(const std::string &request) {
    // The command name: after "SA" and blanks, up to "=", "?" or "\r".
    size_t pos = request.find("SA");
    if (pos == std::string::npos) pos = request.find("sa");
    if (pos == std::string::npos) return 10000;
    pos = request.find_first_not_of(' ', pos + 2);
    if (pos == std::string::npos) return 10000;
    size_t end = request.find_first_of("=?\r\"", pos);
    std::string name = request.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
    for (char &c : name) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    if (name == "+START_SERVICE") return 15000;  // the daemon polls up to 8 s
    if (name == "+STOP_SERVICE") return 20000;   // up to 10 s
    if (name == "+SAVE_LOG") return 600000;      // copies every log to the card
    if (name == "+DELETE_LOG") return 120000;    // stops and restarts the capture
    if (name == "+SYSTEM") return 120000;        // up to five runs, 500 ms apart
    if (name == "+DATA_PACKETS_LOG") return 30000;
    return 10000;
}

std::string zv_answer_item_value(const std::string &answer) {
    // "\r\nNAME: V\r\n\r\nOK\r\n"
    if (answer.compare(0, 2, "\r\n") != 0) return "";
    size_t colon = answer.find(": ", 2);
    size_t eol = answer.find("\r\n", 2);
    if (colon == std::string::npos || eol == std::string::npos || colon > eol) return "";
    std::string name = answer.substr(2, colon - 2);
    if (name == "ERROR") return "";
    return answer.substr(colon + 2, eol - colon - 2);
}

std::string zv_visible(const std::string &text) {
    std::string out;
    for (unsigned char c : text) {
        if (c == '\r') {
            out += "\\r";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c < 0x20 || c > 0x7E) {
            char hex[8];
            snprintf(hex, sizeof(hex), "\\x%02X", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

std::string zv_json_string(const std::string &text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20 || c == 0x7F) {
                    char hex[8];
                    snprintf(hex, sizeof(hex), "\\u%04x", c);
                    out += hex;
                } else if (c >= 0x80) {
                    // Not every answer is UTF-8: a byte above 0x7F stands for the code point of the same
                    // number, so any byte string gives valid JSON.
                    char hex[8];
                    snprintf(hex, sizeof(hex), "\\u%04x", c);
                    out += hex;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out + "\"";
}

int zv_exit_combine(int a, int b) {
    auto rank = [](int code) {
        switch (code) {
            case kExitOk:
                return 0;
            case kExitNegative:
                return 1;
            case kExitError:
                return 2;
            case kExitTimeout:
                return 3;
            default:
                return 4;
        }
    };
    return rank(b) > rank(a) ? b : a;
}

zv_verb_outcome zv_verb_interpret(const zv_verb_request &req, const std::string &answer,
                                  const zv_verb_context &ctx) {
    zv_verb_outcome out;
    const std::string seconds = std::to_string((req.timeout_ms + 999) / 1000);
    if (!ctx.answered) {
        out.exit_code = ctx.closed ? kExitUsage : kExitTimeout;
        std::string what = ctx.closed ? "the daemon closed the channel before it answered"
                                      : "no answer within " + seconds + " s";
        out.line = req.meaning == zv_answer_meaning::raw ? zv_visible(answer) : req.verb + ": " + what;
        return out;
    }
    out.ok = ends_with(answer, "\r\nOK\r\n");
    std::string item = zv_answer_item_value(answer);
    if (!out.ok) {
        out.exit_code = kExitError;
        std::string code = error_code(answer);
        std::string why;
        switch (req.meaning) {
            case zv_answer_meaning::started:
                why = req.subject + ": not running after the daemon's 8 s";
                break;
            case zv_answer_meaning::stopped:
                why = req.subject + ": still running after the daemon's 10 s";
                break;
            case zv_answer_meaning::saved:
                why = ctx.card_present ? "save-log: the daemon could not make the save folder"
                                       : "save-log: no card (/storage/real_sd is absent); nothing saved";
                break;
            case zv_answer_meaning::system:
                why = "system: no run of the command line exited 0 (five tries)";
                break;
            default:
                why = req.verb + ": refused";
                break;
        }
        out.line =
            req.meaning == zv_answer_meaning::raw ? zv_visible(answer) : why + " (ERROR: " + code + ")";
        return out;
    }
    auto flag = [&](const char *yes, const char *no, bool negative_exit) {
        if (item == "1") {
            out.line = req.subject + ": " + yes;
            out.value_json = "1";
        } else if (item == "0") {
            out.line = req.subject + ": " + no;
            out.value_json = "0";
            if (negative_exit) out.exit_code = kExitNegative;
        } else {
            out.line = req.verb + ": unexpected answer " + zv_visible(answer);
            out.exit_code = kExitError;
            out.ok = false;
        }
    };
    switch (req.meaning) {
        case zv_answer_meaning::raw:
            out.line = zv_visible(answer);
            break;
        case zv_answer_meaning::started:
            out.line = req.subject + ": running";
            break;
        case zv_answer_meaning::stopped:
            out.line = req.subject + ": stopped";
            break;
        case zv_answer_meaning::query:
            flag("running", "not running", true);
            break;
        case zv_answer_meaning::autostart_set:
            out.line = req.subject + (req.on ? ": in the auto-start list" : ": not in the auto-start list");
            break;
        case zv_answer_meaning::autostart_ask:
            flag("in the auto-start list", "not in the auto-start list", true);
            break;
        case zv_answer_meaning::switch_set:
            out.line = req.subject + (req.on ? ": on" : ": off");
            out.value_json = req.on ? "1" : "0";
            break;
        case zv_answer_meaning::switch_ask:
            flag("on", "off", false);
            break;
        case zv_answer_meaning::saved:
            if (ctx.saved_folder.empty()) {
                out.line = "save-log: OK, but no new folder appeared under /storage/real_sd/logs";
            } else {
                out.line = "saved to " + ctx.saved_folder;
                out.value_json = zv_json_string(ctx.saved_folder);
            }
            break;
        case zv_answer_meaning::deleted:
            out.line = "captured logs deleted; capture restarted";
            break;
        case zv_answer_meaning::system:
            out.line = "system: the command line exited 0";
            break;
    }
    return out;
}
