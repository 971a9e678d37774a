// SPDX-License-Identifier: MIT
// verbose: the flag that --verbose sets.
#pragma once

/**
 * 1 after --verbose or -v, else 0. Written by the option parser before any thread exists, read by plugins.
 * The logger does not look at it: it is for what takes many lines.
 */
inline int verbose = 0;
