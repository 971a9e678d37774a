// SPDX-License-Identifier: MIT
// logger: the one way into the daemon's log.
#pragma once

#include <cstdio>

inline constexpr int LOG_LEVEL_ERROR = 1;
inline constexpr int LOG_LEVEL_DEBUG = 5;

/** An output stream with its write operation. Constant after log_open; never closed, never freed. */
struct Logger {
  int level;         // which call sites write; always LOG_LEVEL_DEBUG
  const char* name;  // the caller's constant text, not a copy
  FILE* fp;          // null when the file could not be opened: the logger is then silent
  void (*write)(Logger* logger, const char* format, ...) __attribute__((format(printf, 2, 3)));
};

/** The daemon's logger: null until main has parsed the command line, then set once and for good. */
extern Logger* plogger;

/**
 * Opens a logger of level LOG_LEVEL_DEBUG on `name`: "stdout", "stderr", "null" (/dev/null), or the path of a
 * file. A regular file in the way is first renamed to the path with ".old" behind it, replacing an older
 * backup; if it cannot be renamed, the log goes on behind its old contents, with a line that says so.
 * Otherwise the file starts empty. Files are written with O_APPEND (open(2)), so that they can be truncated
 * under the running daemon.
 *
 * Returns the logger, which lives as long as the process; with a silent stream if the file could not be
 * opened. Returns null, after a note on standard error, when memory is short. A regular file whose path is
 * longer than 59 bytes ends the process: its backup's name does not fit. `name` must outlive the logger.
 * Any thread.
 */
Logger* log_open(const char* name);

/**
 * Writes one message, formatted as printf(3) does, behind the local time as "YYYY-MM-DD hh:mm:ss:", and
 * flushes the stream. The message brings its own newline. Called through Logger::write only.
 *
 * Any thread. A line reaches the stream in one piece: the stream's own lock is held from the first byte to
 * the flush. Does nothing for a null logger or a silent one; write errors are not reported.
 */
void log_write(Logger* logger, const char* format, ...) __attribute__((format(printf, 2, 3)));

// The call-site forms: a literal format behind the file, line and function of the caller.
#define LOG_AT(threshold, word, format, ...)                                         \
  do {                                                                               \
    if (plogger && plogger->level >= (threshold))                                    \
      plogger->write(plogger, "%s:%i:%s: " word ": " format, __FILE__, __LINE__,     \
                     static_cast<const char*>(__func__) __VA_OPT__(, ) __VA_ARGS__); \
  } while (false)
#define log_debug(format, ...) LOG_AT(LOG_LEVEL_DEBUG, "DEBUG", format __VA_OPT__(, ) __VA_ARGS__)
#define log_error(format, ...) LOG_AT(LOG_LEVEL_ERROR, "ERROR", format __VA_OPT__(, ) __VA_ARGS__)
