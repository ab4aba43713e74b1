// Request arguments that several commands share: the double-quoted service name of the service and
// auto-start commands, and the decimal value of the log switches. Pure parsing: no trace, no state.
#ifndef ZV_SA_SA_ARGS_H
#define ZV_SA_SA_ARGS_H

// A service name buffer: at most 39 characters and a NUL. Longer names are refused, never cut (a cut
// name could match another service).
#define SA_SERVICE_NAME_SIZE 40

// Parses a double-quoted, non-empty service name of at most 39 characters at the start of param into
// name (SA_SERVICE_NAME_SIZE bytes, zeroed first and left empty on failure). 0 with *rest (if not
// null) just past the closing quote, or -1 when param does not start with such a name.
long sa_service_name_parse(const char *param, char *name, const char **rest);

// Reads a switch argument as a decimal int ("%d": leading blanks, a sign, digits; whatever follows is
// left); 1 with *value set, or 0 when there is no number or it does not fit an int (*value unchanged).
int sa_parse_switch_value(const char *param, int *value);

#endif  // ZV_SA_SA_ARGS_H
