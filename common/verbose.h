// SPDX-License-Identifier: MIT
// verbose: the flag that --verbose sets.
#pragma once

/**
 * 1 after --verbose or -v, else 0. The option parser writes it before any thread exists; plugins read it. The
 * logger ignores it: it is for reports of many lines.
 */
inline int verbose = 0;
