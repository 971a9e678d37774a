// SPDX-License-Identifier: MIT
// logger: the one way to write to the daemon's log.
#pragma once

#include <cstdio>

inline constexpr int LOG_LEVEL_ERROR = 1;
inline constexpr int LOG_LEVEL_DEBUG = 5;

/** An output stream with its write operation. Constant after log_open; never closed, never freed. */
struct Logger {
  int level;         // call sites with a higher level write nothing; always LOG_LEVEL_DEBUG
  const char* name;  // the caller's constant text, not a copy
  FILE* fp;          // null when the file could not be opened; the logger is then silent
  void (*write)(Logger* logger, const char* format, ...) __attribute__((format(printf, 2, 3)));
};

/** The daemon's logger. Null until main has parsed the command line, then set once and never changed. */
extern Logger* plogger;

/**
 * Opens a logger of level LOG_LEVEL_DEBUG on `name`: "stdout", "stderr", "null" (/dev/null), or the path of a
 * file. An existing regular file is first renamed: ".old" is appended to its path, and an older backup is
 * replaced. If the rename fails, the log continues after the old contents, and its first new line reports the
 * failure. Otherwise the file starts empty. Files are written with O_APPEND (open(2)), so that they can be
 * truncated while the daemon runs.
 *
 * Returns the logger, which exists until the process ends; it is silent if the file could not be opened.
 * Writes to standard error and returns null when memory is short. An existing regular file whose path is
 * longer than 59 bytes ends the process: the backup's name does not fit. `name` must outlive the logger. Any
 * thread.
 */
Logger* log_open(const char* name);

/**
 * Writes the local time as "YYYY-MM-DD hh:mm:ss:" and one message, formatted as by printf(3), and flushes the
 * stream. The message contains its newline. Called only through Logger::write.
 *
 * Any thread. A line reaches the stream in one piece: the function holds the stream's lock from the first
 * byte to the flush. Does nothing for a null or silent logger. Write errors are not reported.
 */
void log_write(Logger* logger, const char* format, ...) __attribute__((format(printf, 2, 3)));

// For call sites: the file, line and function of the caller, then the message with its literal format.
#define LOG_AT(threshold, word, format, ...)                                         \
  do {                                                                               \
    if (plogger && plogger->level >= (threshold))                                    \
      plogger->write(plogger, "%s:%i:%s: " word ": " format, __FILE__, __LINE__,     \
                     static_cast<const char*>(__func__) __VA_OPT__(, ) __VA_ARGS__); \
  } while (false)
#define log_debug(format, ...) LOG_AT(LOG_LEVEL_DEBUG, "DEBUG", format __VA_OPT__(, ) __VA_ARGS__)
#define log_error(format, ...) LOG_AT(LOG_LEVEL_ERROR, "ERROR", format __VA_OPT__(, ) __VA_ARGS__)
