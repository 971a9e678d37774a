// SPDX-License-Identifier: MIT
// daemon.cpp: one daemon at a time, found by its pid file.
//
// A pid in a file proves nothing, because it may have been reused. So the executable of that process is
// compared with the daemon's own. Everything here except the crash report runs before the daemon has threads.
// Results that no caller could act on are deliberately not checked; the log reports what matters.
#include "common/daemon.h"

#include <execinfo.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

static constexpr unsigned pid_file_settling_seconds = 2;
static constexpr size_t exe_link_size = 17;  // "/proc/999999/exe" with its terminating zero
static constexpr int max_frames = 255;

struct CloseFile {
  void operator()(FILE* file) const noexcept { fclose(file); }
};
using FileOwner = std::unique_ptr<FILE, CloseFile>;

// The given logger, or a new one on standard error in the place of null.
static Logger* usable_logger(Logger* logger) {
  static Logger without_memory = {
      .level = LOG_LEVEL_DEBUG, .name = "stderr", .fp = nullptr, .write = log_write};
  if (!logger) logger = log_open("stderr");
  if (!logger) {
    without_memory.fp = stderr;
    logger = &without_memory;
  }
  return logger;
}

TextOwner read_symlink(const char* path, Logger* logger) {
  // When malloc fails, readlink gets a null buffer, which the kernel refuses. The call goes through a
  // volatile pointer, because after a direct call the compiler could drop the tests for null below.
  static ssize_t (*const volatile read_link)(const char*, char*, size_t) = readlink;

  logger = usable_logger(logger);
  size_t size = 16;
  TextOwner target(static_cast<char*>(malloc(size)));
  ssize_t length = read_link(path, target.get(), size);
  while (length > 0 && static_cast<size_t>(length) >= size) {
    if (!target) {
      fputs("insufficient memory: 1\n", stderr);
      return nullptr;
    }
    size *= 2;
    target.reset();
    target.reset(static_cast<char*>(malloc(size)));
    length = read_link(path, target.get(), size);
  }
  if (!target) {
    logger->write(logger, "insufficient memory: 2\n");
    return nullptr;
  }
  if (length < 0) {
    logger->write(logger, "cannot readlink\n");
    return nullptr;
  }
  target.get()[length] = '\0';
  return target;
}

int daemon_get_pid(const char* pidfile, Logger* logger) {
  logger = usable_logger(logger);
  const FileOwner file(fopen(pidfile, "r"));
  if (!file) {
    logger->write(logger, "could not open pid file: %s for reading.\n", pidfile);
    return 0;
  }
  sleep(pid_file_settling_seconds);

  long long pid;  // wide, so that a number beyond int is not taken for another pid
  // NOLINTNEXTLINE(cert-err34-c): a number out of range becomes the largest one, and ends in the abort below
  if (fscanf(file.get(), "%lld", &pid) != 1) return 0;
  const TextOwner own = read_symlink("/proc/self/exe", logger);
  char exe_link[exe_link_size];
  text_format(exe_link, sizeof exe_link, "/proc/%lld/exe", pid);
  const TextOwner other = read_symlink(exe_link, logger);
  if (own && other && strcmp(own.get(), other.get()) != 0) return 0;
  return static_cast<int>(pid);
}

int daemon_start(const char* pidfile, Logger* logger) {
  logger = usable_logger(logger);
  if (fork() > 0) exit(0);
  [[maybe_unused]] const int changed = chdir("/");
  setsid();
  umask(0);
  if (fork() > 0) exit(0);

  if (daemon_get_pid(pidfile, log_open("null")) > 0) {
    logger->write(logger, "already running\n");
    exit(1);
  }
  const pid_t pid = getpid();
  FILE* file = fopen(pidfile, "w");
  if (!file) {
    logger->write(logger, "unable to open pid file: %s for writing\n", pidfile);
    exit(1);
  }
  fprintf(file, "%d", pid);
  return fclose(file);
}

int daemon_stop(const char* pidfile, int sig, Logger* logger) {
  if (sig > 0) {
    const pid_t pid = daemon_get_pid(pidfile, logger);
    if (pid > 0) kill(pid, sig);
  }
  return unlink(pidfile);
}

void log_backtrace(Logger* logger) {
  logger = usable_logger(logger);
  void* frames[max_frames];
  const int count = backtrace(frames, max_frames);
  if (logger->fp) backtrace_symbols_fd(frames, count, fileno(logger->fp));
}
