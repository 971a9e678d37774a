// SPDX-License-Identifier: MIT
// daemon: the pid file, daemonising, and the backtrace of a crash.
#pragma once

#include "common/logger.h"
#include "common/text.h"

// Every function here writes its messages through `logger`, without a level test. In the place of a null
// logger it opens one on "stderr". One message goes directly to standard error: when memory runs out while
// read_symlink enlarges its buffer.

/**
 * The target of the symbolic link `path` (readlink(2)), of any length.
 * Writes a message and returns null when the link cannot be read or memory is short. Any thread.
 */
TextOwner read_symlink(const char* path, Logger* logger);

/**
 * The pid of the running daemon that `pidfile` names. Returns 0 when the file is missing, holds no number, or
 * names a process that runs another executable. A process whose executable cannot be read counts as running
 * until its pid file is removed, even if it is dead.
 *
 * Takes 2 seconds whenever the file can be opened, to give a starting daemon the time to write it. A number
 * of more than six characters ends the process (abort(3)). A minus sign counts as one; a plus sign and
 * leading zeros do not count. Main thread, before other threads exist.
 */
int daemon_get_pid(const char* pidfile, Logger* logger);

/**
 * Makes the calling process a daemon: two forks, a new session (setsid(2)), "/" as working directory, umask
 * 0, its pid in `pidfile`. It keeps the shell's standard descriptors.
 *
 * Returns only in the daemon, with the result of closing the pid file. The calling process exits with 0 at
 * once. The new process exits with 1, after a message, when a daemon is already running or the pid file
 * cannot be written. If a fork fails, the process itself continues in the child's place. Main thread, before
 * other threads exist.
 */
int daemon_start(const char* pidfile, Logger* logger);

/**
 * Sends `sig`, if it is above 0, to the daemon that `pidfile` names, and always removes the file. With `sig`
 * 0 it only removes the file: it does not read it, and does not wait. Returns the result of unlink(2). Main
 * thread; with `sig` 0 also the crash handler.
 */
int daemon_stop(const char* pidfile, int sig, Logger* logger);

/**
 * Writes the calling thread's stack, at most 255 frames (backtrace(3)), to the file descriptor of the logger:
 * one line for each frame, without the time. Does nothing for a silent logger. Any thread, also in a signal
 * handler.
 */
void log_backtrace(Logger* logger);
