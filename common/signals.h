// SPDX-License-Identifier: MIT
// signals: what the daemon needs of its signals, and what its children get back.
#pragma once

/**
 * Remembers how SIGCHLD, SIGPIPE, SIGSEGV and SIGALRM stand and sets SIGCHLD to its default, so that children
 * can be waited for although the daemon was started with SIGCHLD ignored (sigaction(2), waitpid(2)). Main
 * thread, once, before the bus library (which ignores SIGPIPE), the crash report and any thread.
 */
void signals_take_over();

/**
 * Gives these signals back as they stood at signals_take_over. Between fork and exec: it makes nothing
 * but async-signal-safe calls. The signal mask needs no such care: no thread of the daemon changes it.
 */
void signals_give_back();
