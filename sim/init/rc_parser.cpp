// rc_parser: tokenizer and section reader for the handset's init configuration. A logical line is
// read into tokens first (quotes, escapes, continuations and comments resolved), then interpreted by
// the section it sits in: a `service` line opens a service whose options follow; `on` opens a section
// whose commands are skipped; anything unusable becomes a warning and never stops the reading, as on
// the handset, where one bad line must not keep the other services from booting.
#include "init/rc_parser.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace {

// One logical line: its tokens and the physical line it starts on.
struct rc_line {
    std::vector<std::string> m_tokens;
    int m_line;
    bool m_unterminated;  // a double quote was still open at the end of the line
};

enum rc_section { RC_NONE, RC_SERVICE, RC_ON, RC_SKIP };

struct rc_id_name {
    const char *m_name;
    unsigned m_id;
};

constexpr rc_id_name k_rc_ids[] = {
    {"root", 0}, {"system", 1000}, {"radio", 1001}, {"log", 1007}, {"shell", 2000},
};

// Largest rc file read; a bigger one is a mistake, not a configuration.
constexpr size_t k_rc_file_max = 1024 * 1024;

}  // namespace

static void rc_warn(rc_config *cfg, const char *file, int line, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));

static void rc_warn(rc_config *cfg, const char *file, int line, const char *fmt, ...) {
    char text[320];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof(text), fmt, ap);
    va_end(ap);
    char full[400];
    snprintf(full, sizeof(full), "%s:%d: %s", file, line, text);
    cfg->m_warnings.emplace_back(full);
}

// Resolves the escape whose backslash was just read; appends the character it stands for to tok, or
// nothing for a continuation (backslash and line end), which counts the line.
static void rc_escape(std::string_view text, size_t *pos, int *lineno, std::string *tok, bool *in_tok) {
    if (*pos >= text.size()) return;
    char c = text[(*pos)++];
    if (c == '\n') {
        ++*lineno;
        return;
    }
    *in_tok = true;
    switch (c) {
        case 'n':
            tok->push_back('\n');
            break;
        case 'r':
            tok->push_back('\r');
            break;
        case 't':
            tok->push_back('\t');
            break;
        default:
            tok->push_back(c);
            break;
    }
}

// Reads the next logical line that holds tokens (or an open quote) from text at *pos into out; false
// when the text is used up.
static bool rc_next_line(std::string_view text, size_t *pos, int *lineno, rc_line *out) {
    out->m_tokens.clear();
    out->m_unterminated = false;
    out->m_line = *lineno;
    std::string tok;
    bool in_tok = false;
    bool in_quote = false;
    auto finish_token = [&]() {
        if (in_tok) out->m_tokens.push_back(tok);
        tok.clear();
        in_tok = false;
    };
    while (*pos < text.size()) {
        char c = text[(*pos)++];
        if (c == '\n') {
            ++*lineno;
            if (in_quote) {
                out->m_unterminated = true;
                return true;
            }
            finish_token();
            if (!out->m_tokens.empty()) return true;
            out->m_line = *lineno;
            continue;
        }
        if (c == '\\') {
            rc_escape(text, pos, lineno, &tok, &in_tok);
            continue;
        }
        if (in_quote) {
            if (c == '"') {
                in_quote = false;
            } else {
                tok.push_back(c);
            }
            continue;
        }
        if (c == ' ' || c == '\t' || c == '\r') {
            finish_token();
        } else if (c == '#' && !in_tok) {
            while (*pos < text.size() && text[*pos] != '\n') ++*pos;
        } else if (c == '"') {
            in_tok = true;
            in_quote = true;
        } else {
            in_tok = true;
            tok.push_back(c);
        }
    }
    if (in_quote) {
        out->m_unterminated = true;
        return true;
    }
    finish_token();
    return !out->m_tokens.empty();
}

bool rc_parse_id(std::string_view text, unsigned *id) {
    for (const rc_id_name &entry : k_rc_ids) {
        if (text == entry.m_name) {
            *id = entry.m_id;
            return true;
        }
    }
    if (text.empty() || text.size() > 10) return false;
    unsigned long long value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + static_cast<unsigned>(c - '0');
    }
    // (uid_t)-1 means "leave unchanged" to setuid and friends: not an id.
    if (value >= 0xFFFFFFFFull) return false;
    *id = static_cast<unsigned>(value);
    return true;
}

bool rc_service_name_is_valid(std::string_view name) {
    if (name.empty() || name.size() > RC_SERVICE_NAME_MAX) return false;
    for (char c : name) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
                  c == '-';
        if (!ok) return false;
    }
    return true;
}

// Opens a service from its `service` line; RC_SERVICE when it was added, RC_SKIP when the line is
// unusable (its options are then skipped with it).
static rc_section rc_begin_service(const rc_line &line, const char *file, rc_config *cfg) {
    const std::vector<std::string> &t = line.m_tokens;
    if (t.size() < 3) {
        rc_warn(cfg, file, line.m_line, "service needs a name and a program, skipped");
        return RC_SKIP;
    }
    if (!rc_service_name_is_valid(t[1])) {
        rc_warn(cfg, file, line.m_line, "invalid service name '%s', skipped", t[1].c_str());
        return RC_SKIP;
    }
    for (const rc_service &other : cfg->m_services) {
        if (other.m_name == t[1]) {
            rc_warn(cfg, file, line.m_line, "service '%s' already defined at %s:%d, skipped", t[1].c_str(),
                    other.m_file.c_str(), other.m_line);
            return RC_SKIP;
        }
    }
    if (t[2].empty() || t[2][0] != '/') {
        rc_warn(cfg, file, line.m_line, "program '%s' of service '%s' is not an absolute path, skipped",
                t[2].c_str(), t[1].c_str());
        return RC_SKIP;
    }
    rc_service svc;
    svc.m_name = t[1];
    svc.m_args.assign(t.begin() + 2, t.end());
    svc.m_class = "default";
    svc.m_uid = 0;
    svc.m_gid = 0;
    svc.m_disabled = false;
    svc.m_oneshot = false;
    svc.m_file = file;
    svc.m_line = line.m_line;
    cfg->m_services.push_back(std::move(svc));
    return RC_SERVICE;
}

// Applies the option on line to svc; a wrong option or argument leaves svc unchanged and warns.
static void rc_apply_option(const rc_line &line, const char *file, rc_service *svc, rc_config *cfg) {
    const std::vector<std::string> &t = line.m_tokens;
    const std::string &opt = t[0];
    size_t nargs = t.size() - 1;
    if (opt == "disabled" || opt == "oneshot") {
        if (nargs != 0) {
            rc_warn(cfg, file, line.m_line, "option '%s' takes no arguments, skipped", opt.c_str());
            return;
        }
        if (opt == "disabled") {
            svc->m_disabled = true;
        } else {
            svc->m_oneshot = true;
        }
        return;
    }
    if (opt == "class") {
        if (nargs != 1) {
            rc_warn(cfg, file, line.m_line, "option 'class' needs one name, skipped");
            return;
        }
        svc->m_class = t[1];
        return;
    }
    if (opt == "user") {
        unsigned id = 0;
        if (nargs != 1) {
            rc_warn(cfg, file, line.m_line, "option 'user' needs one user, skipped");
        } else if (!rc_parse_id(t[1], &id)) {
            rc_warn(cfg, file, line.m_line, "unknown user '%s', skipped", t[1].c_str());
        } else {
            svc->m_uid = id;
        }
        return;
    }
    if (opt == "group") {
        if (nargs < 1 || nargs - 1 > RC_SUPP_GROUPS_MAX) {
            rc_warn(cfg, file, line.m_line, "option 'group' needs 1 to %zu groups, skipped",
                    RC_SUPP_GROUPS_MAX + 1);
            return;
        }
        std::vector<gid_t> ids;
        for (size_t i = 1; i < t.size(); ++i) {
            unsigned id = 0;
            if (!rc_parse_id(t[i], &id)) {
                rc_warn(cfg, file, line.m_line, "unknown group '%s', skipped", t[i].c_str());
                return;
            }
            ids.push_back(id);
        }
        svc->m_gid = ids[0];
        svc->m_supp_gids.assign(ids.begin() + 1, ids.end());
        return;
    }
    rc_warn(cfg, file, line.m_line, "unknown option '%s' of service '%s', skipped", opt.c_str(),
            svc->m_name.c_str());
}

// One command of an `on` section: `mkdir PATH [MODE [OWNER [GROUP]]]` is kept, others are skipped.
static void rc_apply_on_command(const rc_line &line, const char *file, rc_config *cfg) {
    const std::vector<std::string> &t = line.m_tokens;
    if (t[0] != "mkdir") {
        rc_warn(cfg, file, line.m_line, "'%s' in an 'on' section skipped", t[0].c_str());
        return;
    }
    if (t.size() < 2 || t.size() > 5 || t[1].empty() || t[1][0] != '/') {
        rc_warn(cfg, file, line.m_line, "mkdir needs an absolute path and at most mode, owner and group");
        return;
    }
    rc_mkdir dir{t[1], 0755, 0, 0};
    if (t.size() > 2) {
        char *end = nullptr;
        unsigned long mode = strtoul(t[2].c_str(), &end, 8);
        if (t[2].empty() || *end != '\0' || mode > 07777) {
            rc_warn(cfg, file, line.m_line, "mkdir mode '%s' is not octal", t[2].c_str());
            return;
        }
        dir.m_mode = static_cast<mode_t>(mode);
    }
    unsigned id = 0;
    if (t.size() > 3) {
        if (!rc_parse_id(t[3], &id)) {
            rc_warn(cfg, file, line.m_line, "unknown owner '%s'", t[3].c_str());
            return;
        }
        dir.m_uid = id;
        dir.m_gid = id;
    }
    if (t.size() > 4) {
        if (!rc_parse_id(t[4], &id)) {
            rc_warn(cfg, file, line.m_line, "unknown group '%s'", t[4].c_str());
            return;
        }
        dir.m_gid = id;
    }
    cfg->m_mkdirs.push_back(dir);
}

void rc_parse_text(std::string_view text, const char *file, rc_config *cfg) {
    size_t pos = 0;
    int lineno = 1;
    rc_line line;
    rc_section section = RC_NONE;
    while (rc_next_line(text, &pos, &lineno, &line)) {
        std::string_view keyword = line.m_tokens.empty() ? std::string_view() : line.m_tokens[0];
        bool opens_section = keyword == "service" || keyword == "on";
        if (line.m_unterminated) {
            rc_warn(cfg, file, line.m_line, "unterminated quote, line skipped");
            if (opens_section) section = RC_SKIP;
            continue;
        }
        if (keyword == "service") {
            section = rc_begin_service(line, file, cfg);
        } else if (keyword == "on") {
            section = RC_ON;
        } else if (section == RC_ON) {
            rc_apply_on_command(line, file, cfg);
        } else if (keyword == "import") {
            rc_warn(cfg, file, line.m_line, "'import' skipped");
            section = RC_NONE;
        } else if (section == RC_SERVICE) {
            rc_apply_option(line, file, &cfg->m_services.back(), cfg);
        } else if (section == RC_NONE) {
            rc_warn(cfg, file, line.m_line, "'%s' outside a service, skipped", line.m_tokens[0].c_str());
        }
    }
}

static int rc_filter(const struct dirent *entry) {
    size_t len = strlen(entry->d_name);
    return entry->d_name[0] != '.' && len > 3 && strcmp(entry->d_name + len - 3, ".rc") == 0;
}

// Reads the whole file at path into out; 0 or an errno value.
static int rc_read_file(const char *path, std::string *out) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return errno;
    out->clear();
    char buf[4096];
    int err = 0;
    for (;;) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            err = errno;
            break;
        }
        if (n == 0) break;
        if (out->size() + static_cast<size_t>(n) > k_rc_file_max) {
            err = EFBIG;
            break;
        }
        out->append(buf, static_cast<size_t>(n));
    }
    close(fd);
    return err;
}

void rc_parse_dir(const char *dir, rc_config *cfg) {
    struct dirent **names = nullptr;
    int count = scandir(dir, &names, rc_filter, alphasort);
    if (count < 0) {
        int err = errno;
        rc_warn(cfg, dir, 0, "can't read the folder: %s", strerror(err));
        return;
    }
    for (int i = 0; i < count; ++i) {
        char path[512];
        int n = snprintf(path, sizeof(path), "%s/%s", dir, names[i]->d_name);
        if (n < 0 || static_cast<size_t>(n) >= sizeof(path)) {
            rc_warn(cfg, dir, 0, "path of '%s' too long, skipped", names[i]->d_name);
            continue;
        }
        std::string text;
        int err = rc_read_file(path, &text);
        if (err != 0) {
            rc_warn(cfg, path, 0, "can't read: %s", strerror(err));
        } else {
            rc_parse_text(text, path, cfg);
        }
    }
    for (int i = 0; i < count; ++i) free(names[i]);
    free(names);
}

bool rc_parse_file(const char *path, rc_config *cfg) {
    std::string text;
    if (rc_read_file(path, &text) != 0) return false;
    rc_parse_text(text, path, cfg);
    return true;
}
