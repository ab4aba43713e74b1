// zv-sa-client: drives the daemon from the handset, by hand or from a test script. One verb per
// command of the command channel, a remote shell through the listener, and raw request lines; see
// usage() and docs/client.md.
#include <dirent.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "client-channel.h"
#include "client-shell.h"
#include "client-verbs.h"

namespace {

constexpr char kDefaultLink[] = "/dev/ttySA0";
constexpr char kCard[] = "/storage/real_sd";
constexpr char kCardLogRoot[] = "/storage/real_sd/logs";

void usage(FILE *out) {
    fprintf(
        out,
        "usage: zv-sa-client [OPTIONS] VERB [ARGS...]\n"
        "       zv-sa-client [OPTIONS] REQUEST...      (request lines, as 'SA+KERNEL_LOG?' or AT)\n"
        "       zv-sa-client [OPTIONS]                 (verb or request lines from standard input)\n"
        "\n"
        "verbs:\n"
        "  start NAME                    start an init service (the daemon polls up to 8 s)\n"
        "  stop NAME                     stop an init service (the daemon polls up to 10 s)\n"
        "  query NAME                    is a process of that name running?\n"
        "  autostart add|remove|status NAME\n"
        "                                the list of services started at every boot\n"
        "  kernel-log on|off|status      kernel log capture\n"
        "  dmesg-log on|off|status       dmesg capture\n"
        "  packets on|off                packet capture switch; off ends the daemon (needs --yes)\n"
        "  save-log                      copy every log to the card; names the folder it made\n"
        "  delete-log                    delete the captured logs and restart capture\n"
        "  system CMDLINE                run a shell command line on the daemon (up to five tries)\n"
        "  shell [COMMAND]               a remote shell through %s; exits with its status\n"
        "  kill                          end the daemon through %s\n"
        "  raw REQUEST...                send request lines as they are; print answers with \\r \\n shown\n"
        "\n"
        "options:\n"
        "  -l LINK      the command channel's link (default %s)\n"
        "  -t SECONDS   how long to wait for an answer (default: what the command needs)\n"
        "  -v           show requests, answers and waits on stderr\n"
        "  --json       one JSON object per request on stdout (verb, request, answer, ok, value,\n"
        "               elapsed_ms, exit_code, message)\n"
        "  -y, --yes    confirm a request that ends the daemon (packets off)\n"
        "  -s [COMMAND] the same as shell;  -k  the same as kill\n"
        "\n"
        "exit status:\n"
        "  0    OK\n"
        "  1    the daemon answered ERROR\n"
        "  2    usage error, or the channel could not be used\n"
        "  3    query: not running; autostart status: not in the list\n"
        "  124  the answer did not come in time\n"
        "  shell: the remote command's own status (128+N when signal N ended it)\n",
        kListenerLink, kListenerLink, kDefaultLink);
}

struct options {
    std::string link = kDefaultLink;
    int timeout_ms = 0;  // 0: each command's own
    bool json = false;
    bool yes = false;
    zv_client_report report;
};

// The folders under the card's log root.
std::set<std::string> card_folders() {
    std::set<std::string> out;
    DIR *dir = opendir(kCardLogRoot);
    if (dir == nullptr) return out;
    while (struct dirent *e = readdir(dir)) {
        if (e->d_name[0] == '.') continue;
        std::string path = std::string(kCardLogRoot) + "/" + e->d_name;
        struct stat st;
        if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) out.insert(path);
    }
    closedir(dir);
    return out;
}

void print_json(const zv_verb_request &req, const std::string &request, const std::string &answer, bool ok,
                const std::string &value, long long elapsed_ms, int exit_code, const std::string &message) {
    printf(
        "{\"verb\":%s,\"request\":%s,\"answer\":%s,\"ok\":%s,\"value\":%s,\"elapsed_ms\":%lld,"
        "\"exit_code\":%d,\"message\":%s}\n",
        zv_json_string(req.verb).c_str(), zv_json_string(request).c_str(), zv_json_string(answer).c_str(),
        ok ? "true" : "false", value.empty() ? "null" : value.c_str(), elapsed_ms, exit_code,
        zv_json_string(message).c_str());
    fflush(stdout);
}

// A failure of the client itself: stderr for people, a JSON object for scripts.
int client_failure(const options &opt, const zv_verb_request &req, int exit_code, const std::string &why,
                   const std::string &answer = "", long long elapsed_ms = 0) {
    if (opt.json) {
        print_json(req, req.request, answer, false, "", elapsed_ms, exit_code, why);
    } else {
        fprintf(stderr, "zv-sa-client: %s\n", why.c_str());
    }
    return exit_code;
}

int run_command(const options &opt, zv_command_channel *channel, const zv_verb_request &req) {
    bool ends_daemon = req.meaning == zv_answer_meaning::switch_set && req.verb == "packets" && !req.on;
    if (ends_daemon && !opt.yes) {
        return client_failure(
            opt, req, kExitUsage,
            "packets off ends the daemon itself: it sends SIGKILL to its own process group, "
            "and init then restarts it. Add --yes to do that.");
    }
    zv_verb_context ctx;
    std::set<std::string> before;
    if (req.meaning == zv_answer_meaning::saved) {
        ctx.card_present = access(kCard, F_OK) == 0;
        before = card_folders();
    }
    int timeout_ms = opt.timeout_ms > 0 ? opt.timeout_ms : req.timeout_ms;
    long long start = zv_client_now_ms();
    zv_channel_lock lock(channel->link());
    if (!lock.acquire(start + std::max(timeout_ms, 600000), opt.report)) {
        return client_failure(opt, req, kExitTimeout, "another client held " + channel->link() + " too long");
    }
    long long sent = zv_client_now_ms();
    std::string answer, why;
    zv_read_end end = channel->request(req.request, &answer, sent + timeout_ms, req.verb.c_str(),
                                       !ends_daemon, &lock, opt.report, &why);
    lock.release();
    long long elapsed = zv_client_now_ms() - sent;
    zv_client_say(opt.report, "<- %s (%lld ms)", zv_visible(answer).c_str(), elapsed);

    if (ends_daemon && end == zv_read_end::closed && answer.empty()) {
        std::string line = "packet capture: off; the daemon ended itself (init restarts it)";
        if (opt.json) {
            print_json(req, req.request, answer, true, "0", elapsed, kExitOk, line);
        } else {
            printf("%s\n", line.c_str());
        }
        return kExitOk;
    }
    ctx.answered = end == zv_read_end::answered;
    ctx.closed = end == zv_read_end::closed;
    if (ctx.answered && req.meaning == zv_answer_meaning::saved) {
        std::set<std::string> after = card_folders();
        for (const std::string &f : after) {
            if (before.count(f) == 0 && f > ctx.saved_folder) ctx.saved_folder = f;
        }
    }
    zv_verb_request shown = req;
    shown.timeout_ms = timeout_ms;
    zv_verb_outcome out = zv_verb_interpret(shown, answer, ctx);
    if (opt.json) {
        print_json(req, req.request, answer, out.ok, out.value_json, elapsed, out.exit_code,
                   ctx.answered || why.empty() ? out.line : why);
        return out.exit_code;
    }
    if (req.meaning == zv_answer_meaning::raw) {
        printf("%s\n", out.line.c_str());
        fflush(stdout);
        if (!ctx.answered)
            fprintf(stderr, "zv-sa-client: %s\n", why.empty() ? "no answer in time" : why.c_str());
        return out.exit_code;
    }
    if (!ctx.answered) {
        fprintf(stderr, "zv-sa-client: %s\n", why.empty() ? out.line.c_str() : why.c_str());
    } else {
        printf("%s\n", out.line.c_str());
        fflush(stdout);
    }
    return out.exit_code;
}

int run_shell(const options &opt, const zv_verb_request &req, bool from_prompt) {
    if (req.interactive && opt.json)
        return client_failure(opt, req, kExitUsage, "--json needs a shell COMMAND");
    zv_shell_options so;
    so.capture = opt.json;
    // A command typed at the prompt does not take the prompt's own input.
    so.relay_stdin = req.interactive || !from_prompt;
    if (opt.timeout_ms > 0) so.deadline_ms = zv_client_now_ms() + opt.timeout_ms;
    long long start = zv_client_now_ms();
    fflush(stdout);
    zv_shell_result r = zv_shell_run(req.request, so, opt.report);
    long long elapsed = zv_client_now_ms() - start;
    if (opt.json) {
        print_json(req, req.request, r.output, r.status_known,
                   r.status_known ? std::to_string(r.status) : std::string(), elapsed, r.exit_code,
                   r.status_known ? "the shell ended with status " + std::to_string(r.status) : r.why);
    } else if (!r.status_known) {
        fprintf(stderr, "zv-sa-client: %s\n", r.why.c_str());
    }
    return r.exit_code;
}

int run_kill(const options &opt, const zv_verb_request &req) {
    std::string why;
    if (!zv_listener_kill(kListenerLink, opt.report, &why)) return client_failure(opt, req, kExitUsage, why);
    std::string line = "kill: the daemon was told to exit";
    if (opt.json) {
        print_json(req, req.request, "", true, "", 0, kExitOk, line);
    } else {
        printf("%s\n", line.c_str());
    }
    return kExitOk;
}

int run(const options &opt, zv_command_channel *channel, const zv_verb_request &req, bool from_prompt) {
    switch (req.target) {
        case zv_verb_target::shell:
            return run_shell(opt, req, from_prompt);
        case zv_verb_target::kill:
            return run_kill(opt, req);
        case zv_verb_target::command:
            break;
    }
    return run_command(opt, channel, req);
}

int usage_error(const std::string &why) {
    fprintf(stderr, "zv-sa-client: %s\n", why.c_str());
    fprintf(stderr, "zv-sa-client: see zv-sa-client --help\n");
    return kExitUsage;
}

}  // namespace

int main(int argc, char **argv) {
    options opt;
    opt.report.progress = isatty(2) != 0;
    bool shell = false;
    bool kill_daemon = false;
    static const struct option kLong[] = {{"json", no_argument, nullptr, 'j'},
                                          {"yes", no_argument, nullptr, 'y'},
                                          {"help", no_argument, nullptr, 'h'},
                                          {nullptr, 0, nullptr, 0}};
    int c;
    while ((c = getopt_long(argc, argv, "+l:t:vyskh", kLong, nullptr)) != -1) {
        switch (c) {
            case 'l':
                opt.link = optarg;
                break;
            case 't': {
                char *end = nullptr;
                double s = strtod(optarg, &end);
                if (end == optarg || *end != '\0' || !(s > 0) || s > 86400) {
                    return usage_error(std::string("-t takes a number of seconds, not '") + optarg + "'");
                }
                opt.timeout_ms = static_cast<int>(s * 1000 + 0.5);
                if (opt.timeout_ms == 0) opt.timeout_ms = 1;
                break;
            }
            case 'v':
                opt.report.verbose = true;
                break;
            case 'j':
                opt.json = true;
                break;
            case 'y':
                opt.yes = true;
                break;
            case 's':
                shell = true;
                break;
            case 'k':
                kill_daemon = true;
                break;
            case 'h':
                usage(stdout);
                return kExitOk;
            default:
                usage(stderr);
                return kExitUsage;
        }
    }
    std::vector<std::string> words(argv + optind, argv + argc);
    if (shell) words.insert(words.begin(), "shell");
    if (kill_daemon) {
        if (!words.empty()) return usage_error("-k takes no arguments");
        words = {"kill"};
    }

    zv_command_channel channel(opt.link);
    if (!words.empty()) {
        std::vector<zv_verb_request> requests;
        std::string error;
        if (!zv_verb_parse(words, &requests, &error)) return usage_error(error);
        int worst = kExitOk;
        for (const zv_verb_request &req : requests)
            worst = zv_exit_combine(worst, run(opt, &channel, req, false));
        return worst;
    }

    // Verb or request lines from standard input, with a prompt on a terminal.
    bool tty = isatty(0) != 0;
    int worst = kExitOk;
    char *line = nullptr;
    size_t cap = 0;
    while (true) {
        if (tty) {
            printf("zv-sa> ");
            fflush(stdout);
        }
        ssize_t n = getline(&line, &cap, stdin);
        if (n < 0) break;
        while (n > 0 && (line[n - 1] == '\n' || line[n - 1] == '\r')) line[--n] = '\0';
        if (strspn(line, " \t") == static_cast<size_t>(n)) continue;
        std::vector<zv_verb_request> requests;
        std::string error;
        if (!zv_verb_parse_line(line, &requests, &error)) {
            fprintf(stderr, "zv-sa-client: %s\n", error.c_str());
            worst = zv_exit_combine(worst, kExitUsage);
            continue;
        }
        for (const zv_verb_request &req : requests)
            worst = zv_exit_combine(worst, run(opt, &channel, req, true));
    }
    free(line);
    return worst;
}
