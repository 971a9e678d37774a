// SPDX-License-Identifier: MIT
// logger.cpp: opening a log with one generation of backup, and writing whole lines to it.
//
// Every thread of the daemon writes through one logger. The logger has no mutex: stdio locks the stream for
// each call, and log_write holds that lock over its three calls, so that prefix, message and flush of one
// line stay together. Each line is flushed because the crash report writes to the stream's file descriptor.
// The prefix is the costliest part to format and stays the same for a whole second, so each thread keeps its
// last one.
//
// Files are opened with the mode "e", closed on exec. An actor may run as another user, and with the
// descriptor that user could write to the log, truncate it, or clear O_APPEND.
#include "common/logger.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "common/text.h"

Logger* plogger = nullptr;

static constexpr size_t backup_name_size = 64;

static FILE* open_appending(const char* path, const char* mode) {
  FILE* file = fopen(path, mode);
  if (file) {
    const int descriptor = fileno(file);
    // Cannot fail: the descriptor was just opened, and only clearing O_APPEND may be refused (fcntl(2)).
    fcntl(descriptor, F_SETFL, fcntl(descriptor, F_GETFL) | O_APPEND);
  }
  return file;
}

static bool is_regular_file(const char* path) {
  struct stat status;
  return stat(path, &status) == 0 && S_ISREG(status.st_mode);
}

static void open_log_file(Logger* logger) {
  const char* path = logger->name;
  if (is_regular_file(path)) {
    char backup[backup_name_size];
    text_format(backup, sizeof backup, "%s.old", path);
    if (rename(path, backup) != 0) {
      logger->fp = open_appending(path, "ae");
      logger->write(logger, "Cannot move old log file from %s to %s\n", path, backup);
      return;
    }
  }
  logger->fp = open_appending(path, "we");
}

Logger* log_open(const char* name) {
  auto* logger = static_cast<Logger*>(malloc(sizeof(Logger)));
  if (!logger) {
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, "insufficient memory\n", 20);
    return nullptr;
  }
  *logger = {.level = LOG_LEVEL_DEBUG, .name = name, .fp = nullptr, .write = log_write};
  if (strcmp(name, "stdout") == 0) {
    logger->fp = stdout;
  } else if (strcmp(name, "stderr") == 0) {
    logger->fp = stderr;
  } else if (strcmp(name, "null") == 0) {
    logger->fp = fopen("/dev/null", "ae");
  } else {
    open_log_file(logger);
  }
  return logger;
}

namespace {

struct Prefix {
  time_t second;
  size_t length;  // 0 before the thread's first line
  char text[80];  // fits the largest numbers of struct tm
};

}  // namespace

static thread_local Prefix last_prefix;

static void write_prefix(FILE* file, time_t now) {
  Prefix& prefix = last_prefix;
  if (prefix.length == 0 || prefix.second != now) {
    struct tm local;
    localtime_r(&now, &local);  // cannot fail: no year of the kernel's clock exceeds int
    const int length =
        snprintf(prefix.text, sizeof prefix.text, "%04d-%02d-%02d %02d:%02d:%02d:", local.tm_year + 1900,
                 local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    prefix.length = static_cast<size_t>(length);
    prefix.second = now;
  }
  fwrite_unlocked(prefix.text, 1, prefix.length, file);
}

void log_write(Logger* logger, const char* format, ...) {
  if (!logger || !logger->fp) return;
  flockfile(logger->fp);
  write_prefix(logger->fp, time(nullptr));  // under the lock, so that the times in a log never go back
  va_list arguments;
  va_start(arguments, format);
  vfprintf(logger->fp, format, arguments);
  va_end(arguments);
  fflush(logger->fp);
  funlockfile(logger->fp);
}
