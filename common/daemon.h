// SPDX-License-Identifier: MIT
// daemon: the pid file, daemonising, and the report of a crash.
#pragma once

#include "common/logger.h"
#include "common/text.h"

// Every function here writes its messages through `logger`, without a level test; a null logger stands for a
// fresh one on "stderr". Only the message of a link that outgrew the memory goes to standard error itself.

/**
 * The target of the symbolic link `path` (readlink(2)), however long it is.
 * Returns null after a message when the link cannot be read or memory is short. Any thread.
 */
TextOwner read_symlink(const char* path, Logger* logger);

/**
 * The pid of the running daemon that `pidfile` names, or 0 when the file is missing, holds no number, or
 * names a process that runs another executable. A process whose executable cannot be read, a dead one
 * included, counts as running until its pid file is removed.
 *
 * Takes 2 seconds whenever the file can be opened: a daemon that is just starting gets the time to write it.
 * A number of more than six characters ends the process (abort(3)); a minus counts, a plus and leading zeros
 * do not. Main thread, before other threads exist.
 */
int daemon_get_pid(const char* pidfile, Logger* logger);

/**
 * Makes the calling process a daemon: two forks and a session of its own (setsid(2)), "/" as directory, an
 * open umask, its pid in `pidfile`. The standard descriptors stay those of the shell.
 *
 * Returns in the daemon only, with the result of closing the pid file. The caller's process exits with 0 at
 * once, also when the daemon then finds one running already or cannot write its pid file: it says so and
 * exits with 1. A fork that fails leaves its process going on in the child's place. Main thread, before
 * other threads exist.
 */
int daemon_start(const char* pidfile, Logger* logger);

/**
 * Sends `sig`, when above 0, to the daemon that `pidfile` names, and removes the file in any case. With `sig`
 * 0 the file is only removed: nothing is read, nobody is waited for.
 * Returns the result of unlink(2). Main thread, or the handler of a crash (with `sig` 0).
 */
int daemon_stop(const char* pidfile, int sig, Logger* logger);

/**
 * Writes the calling thread's stack, at most 255 frames (backtrace(3)), to the descriptor behind the logger,
 * one line a frame and without the time. Nothing for a silent logger. Any thread, also in a signal handler.
 */
void log_backtrace(Logger* logger);
