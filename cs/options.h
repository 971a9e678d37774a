// SPDX-License-Identifier: MIT
// options: the command line.
#pragma once

/**
 * Acts on the options one by one, from left to right. Returns when none is left: in the daemon's process if
 * --start was among them. --pid and --stop end the process with 0 at once; an unknown option, or an argument
 * that is none, ends it with 1 and the usage text. Main thread, before any other exists.
 */
void ccs_parse_options(int argc, char* const* argv);

/** Writes the usage text to standard error. */
void ccs_print_usage();
