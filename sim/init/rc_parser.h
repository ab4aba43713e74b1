// rc_parser: reads the service definitions of the handset's init configuration (/system/etc/init/*.rc)
// into plain records. Only the part of init's language that the simulator needs is understood:
// `service NAME PATH ARGS...` with the options `user`, `group`, `class`, `disabled` and `oneshot`.
// Of `on` sections only the `mkdir PATH [MODE [OWNER [GROUP]]]` command is kept (run once at boot,
// before any service, whatever the trigger); their other commands, `import` and unknown options are
// skipped; every skip and every malformed line leaves
// a "FILE:LINE: text" warning for init to print, so a typo in a test's rc file is visible, not silent.
//
// Tokens follow init's rules: blanks separate them, double quotes group blanks into one token, a
// backslash escapes the next character (\n, \r, \t give control characters), a backslash at the end of
// a line continues it, and '#' at the start of a token comments out the rest of the line.
#ifndef ZV_SIM_INIT_RC_PARSER_H
#define ZV_SIM_INIT_RC_PARSER_H

#include <stddef.h>
#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

// Longest service name: "init.svc." plus the name must stay below the property key limit.
constexpr size_t RC_SERVICE_NAME_MAX = 22;
// Most supplementary groups one service may list after its primary group.
constexpr size_t RC_SUPP_GROUPS_MAX = 12;

struct rc_service {
    std::string m_name;
    std::vector<std::string> m_args;  // m_args[0] is the program's absolute path
    std::string m_class;              // "default" unless a class option names another
    uid_t m_uid;                      // 0 unless a user option names another
    gid_t m_gid;                      // 0 unless a group option names another
    std::vector<gid_t> m_supp_gids;   // the group option's further names, in order
    bool m_disabled;                  // not started at boot, only by ctl.start / ctl.restart
    bool m_oneshot;                   // never restarted after it exits
    std::string m_file;               // where it was defined, for messages
    int m_line;
};

// A folder the handset's boot script makes before any service starts.
struct rc_mkdir {
    std::string m_path;
    mode_t m_mode;  // 0755 unless given
    uid_t m_uid;    // 0 unless given
    gid_t m_gid;    // 0 unless given
};

struct rc_config {
    std::vector<rc_service> m_services;   // in definition order, names unique
    std::vector<rc_mkdir> m_mkdirs;       // from `on` sections, in reading order
    std::vector<std::string> m_warnings;  // "FILE:LINE: text", in reading order
};

// Parses one rc text (file names it in warnings) and appends its services and warnings to cfg.
void rc_parse_text(std::string_view text, const char *file, rc_config *cfg);

// Parses every "*.rc" file of dir in name order into cfg; a file that can't be read is a warning.
void rc_parse_dir(const char *dir, rc_config *cfg);
// Parses one rc file into cfg; false (and nothing added) when it can't be read.
bool rc_parse_file(const char *path, rc_config *cfg);

// Resolves a user or group: root, system, radio, log, shell or a decimal id; false when it is neither.
bool rc_parse_id(std::string_view text, unsigned *id);

// True when name can be a service name: 1 to RC_SERVICE_NAME_MAX letters, digits, '_' or '-'.
bool rc_service_name_is_valid(std::string_view name);

#endif  // ZV_SIM_INIT_RC_PARSER_H
