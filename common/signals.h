// SPDX-License-Identifier: MIT
// signals: what the daemon needs of its signals, and what its children get back.
#pragma once

/**
 * Remembers the signal mask and how SIGCHLD, SIGPIPE, SIGSEGV, SIGALRM and SIGABRT stand. Sets SIGCHLD to its
 * default, so that children can be waited for although the daemon was started with SIGCHLD ignored
 * (sigaction(2), waitpid(2)); sets SIGTERM to its default and unblocks it, so that it ends the daemon and its
 * actors; and unblocks SIGSEGV, so that a crash is reported although it was blocked. Main thread, once,
 * before the bus library (which ignores SIGPIPE), the crash report and any thread.
 */
void signals_take_over();

/**
 * Gives back what signals_take_over remembered; SIGTERM stays at its default, unblocked. Between fork and
 * exec: it makes nothing but async-signal-safe calls.
 */
void signals_give_back();
