// SPDX-License-Identifier: MIT
// verbose: the flag that --verbose sets.
#pragma once

/**
 * 1 after --verbose or -v, else 0. The option parser writes it before any thread exists; plugins read it. It
 * adds long reports to the log; the logger itself does not read it.
 */
inline int verbose = 0;
