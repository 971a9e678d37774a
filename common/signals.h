// SPDX-License-Identifier: MIT
// signals: the signals that the daemon needs, and those that its children get back.
#pragma once

/**
 * Remembers the signal mask and the dispositions of SIGCHLD, SIGPIPE, SIGSEGV, SIGALRM and SIGABRT. Sets
 * SIGCHLD to its default: then children can be waited for, even if the daemon was started with SIGCHLD
 * ignored (sigaction(2), waitpid(2)). Sets SIGTERM to its default and unblocks it, so that it ends the daemon
 * and its actors. Unblocks SIGSEGV, so that a crash is reported. Main thread, once: before libdbus, which
 * ignores SIGPIPE, before the crash handler, and before any other thread.
 */
void signals_take_over();

/**
 * Restores what signals_take_over remembered; SIGTERM stays at its default and unblocked. Between fork and
 * exec: makes only async-signal-safe calls.
 */
void signals_give_back();
