// SPDX-License-Identifier: MIT
// options: the command line.
#pragma once

/**
 * Acts on the options one by one, from left to right, and returns after the last one: in the daemon's process
 * if --start was among them. --pid and --stop end the process at once with status 0. An unknown option, or an
 * argument that is not an option, ends it with the usage text and status 1. Main thread, before any other
 * thread exists.
 */
void ccs_parse_options(int argc, char* const* argv);

/** Writes the usage text to standard error. */
void ccs_print_usage();
