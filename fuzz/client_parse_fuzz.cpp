// Fuzzes the client tool's parsers: a line typed at its prompt (verb or request line), the answers it
// interprets, and the daemon's trace text from which it reads a remote shell's pid and exit status.
// Whatever the input, a request it sends fits one read of the daemon (or the listener) and ends with its
// carriage return, a line without "raw" goes out only when it is a request line, a name or command line
// never carries a quote that would end its parameter early, and its JSON strings hold no raw control
// byte and nothing above 0x7F.
#include <stdint.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "client-shell.h"
#include "client-verbs.h"

static void check_json(const std::string &json) {
    if (json.size() < 2 || json.front() != '"' || json.back() != '"') abort();
    for (unsigned char c : json) {
        if (c < 0x20 || c >= 0x80) abort();
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    // The first line is typed at the prompt; the rest is an answer and a trace text.
    size_t eol = text.find('\n');
    std::string line = text.substr(0, eol);
    std::string rest = eol == std::string::npos ? "" : text.substr(eol + 1);

    std::vector<zv_verb_request> requests;
    std::string error;
    if (zv_verb_parse_line(line, &requests, &error)) {
        for (const zv_verb_request &req : requests) {
            if (req.target == zv_verb_target::command) {
                if (req.request.size() > kClientRequestMax || req.request.empty() ||
                    req.request.back() != '\r')
                    abort();
                if (req.meaning != zv_answer_meaning::raw) {
                    // Quotes only around the parameter: exactly two, or none.
                    size_t quotes = 0;
                    for (char c : req.request) quotes += c == '"';
                    if (quotes != 0 && quotes != 2) abort();
                }
                if (req.timeout_ms <= 0) abort();
                // Without "raw", a line goes out as typed only when it is a request line.
                bool said_raw = line.compare(line.find_first_not_of(" \t"), 3, "raw") == 0;
                if (req.meaning == zv_answer_meaning::raw && !said_raw && !zv_is_request_line(line)) abort();
            }
            // The listener reads a shell request in one read.
            if (req.target == zv_verb_target::shell && req.request.size() > kClientListenerRequestMax)
                abort();
            zv_verb_context ctx;
            ctx.answered = true;
            ctx.saved_folder = rest.substr(0, 64);
            zv_verb_outcome out = zv_verb_interpret(req, rest, ctx);
            if (out.exit_code != kExitOk && out.exit_code != kExitError && out.exit_code != kExitNegative)
                abort();
            if (!out.value_json.empty() && out.value_json != "0" && out.value_json != "1")
                check_json(out.value_json);
            ctx.answered = false;
            if (zv_verb_interpret(req, rest, ctx).exit_code != kExitTimeout) abort();
        }
    } else if (error.empty()) {
        abort();
    }
    zv_answer_item_value(rest);
    check_json(zv_json_string(text));

    int pid = 0;
    if (zv_trace_shell_pid(rest, line, &pid) && pid <= 0) abort();
    int status = -1;
    if (zv_trace_shell_status(rest, pid, &status) && status < 0) abort();
    return 0;
}
