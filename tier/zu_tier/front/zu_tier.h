#pragma once

#include "zu_tier/driver/params.h"

#include <cstdint>

/* The front end: from the command line to the exit status. */

/* Command names, indexed by zutr_cmd_t; null where the command line has no name for a command. */
extern const char *const s_command_name[ZUTR_CMD_MAXVALUE];

/* The command of that exact name, or ZUTR_CMD_UNKNOWN. */
zutr_cmd_t zutr_command_parse(const char *name);

/* Adds the "key=value" pairs of `str`, separated by ",", to `filter`; `str` is cut up in place and
 * must outlive the filter. Never returns when a pair holds nothing but "=" characters. */
void zutr_filter_parse(zutr_filter_t *filter, char *str);

/* Prints the usage text to standard output. */
void zutr_usage(int argc, char *const argv[]);

void zutr_params_init(zutr_params_t *params);

/* Releases the device, the output file and the super block; harmless when repeated. */
void zutr_params_fini(zutr_params_t *params);

/* Fills `params` from the command line and opens what it names: 0, 1 when only the usage text was
 * printed, or a negative errno. */
int32_t zutr_prepare_param(int argc, char *argv[], zutr_params_t *params);

/* One whole run of the tool; gives the exit status. */
int zutr_run(int argc, char *argv[]);
