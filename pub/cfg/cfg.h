// Configuration line reader and key/value splitter of the common library (module "zv-qel-pub").
//
// A configuration file holds one "key = value" setting a line. pub_cfg_get_line reads one chunk of at
// most size - 2 characters (a longer line comes back in pieces, each parsed as a line of its own);
// pub_cfg_get_param_and_value splits a line in place. Blanks are spaces only: a tab is an ordinary
// character and stays part of a key or value.
#ifndef ZV_PUB_CFG_CFG_H
#define ZV_PUB_CFG_CFG_H

#include <stdio.h>

// Reads the next chunk of stream into buf (zero-filled first, at most size - 2 characters);
// *len_out = its length, *eof_out = 1 once the stream had already hit end of file before this call.
// 0, or -101 for a null argument or a size below 2.
int pub_cfg_get_line(FILE *stream, char *buf, int size, int *len_out, int *eof_out);
// Splits line in place at its first "=": key without surrounding spaces, value without leading spaces
// and trailing spaces, CR and LF. 0 with both pointers into line; -104 for a comment or no "=";
// -101 for a null argument.
int pub_cfg_get_param_and_value(char *line, char **key_out, char **value_out);

#endif  // ZV_PUB_CFG_CFG_H
