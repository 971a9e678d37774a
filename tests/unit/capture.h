// SPDX-License-Identifier: MIT
// capture: captures the log, a descriptor and files for a test.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "common/logger.h"

using Lines = std::vector<std::string>;

/**
 * The lines of a log in the form that tests expect: without the time prefix, and with '#' for the line number
 * after a source file. A line without a valid prefix, or a last line without a newline, is marked, so that it
 * equals no expected line.
 */
Lines log_lines(const std::string& text);

/** A regular expression for exactly these log `lines`, for example as the output of a death test. */
std::string log_pattern(const Lines& lines);

/** A regular expression for exactly `text`. */
std::string text_pattern(const std::string& text);

/** The daemon's logger while this lives. It writes to memory through the product's log_write. */
class CapturedLog {
 public:
  CapturedLog();
  ~CapturedLog();
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  Logger* logger() { return &logger_; }
  std::string text() const;
  Lines lines() const { return log_lines(text()); }
  /** Empties the log. */
  void forget();
  /** Waits until the log has the line `line`. At the deadline, prints the log and returns false. */
  bool wait_for(const std::string& line);

 private:
  static ssize_t append(void* self, const char* bytes, size_t count);

  Logger logger_;
  Logger* previous_;
  mutable std::mutex mutex_;  // guards text_
  std::condition_variable grown_;
  std::string text_;
};

/** What is written to the file descriptor `fd` (1 or 2) from construction until taken(). */
class CapturedDescriptor {
 public:
  explicit CapturedDescriptor(int fd);
  ~CapturedDescriptor();
  CapturedDescriptor(const CapturedDescriptor&) = delete;
  CapturedDescriptor& operator=(const CapturedDescriptor&) = delete;

  /** Restores the descriptor and returns what was written to it. */
  std::string taken();

 private:
  int fd_;
  int saved_;
  FILE* file_;
};

/** A temporary directory, removed with its contents. */
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  std::string path(const std::string& name) const { return path_ + "/" + name; }
  /** Creates or replaces a file and returns its path. */
  std::string file(const std::string& name, const std::string& contents) const;

 private:
  std::string path_;
};

std::string contents_of(const std::string& path);
bool exists(const std::string& path);
