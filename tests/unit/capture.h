// SPDX-License-Identifier: MIT
// capture: what a test sees of the log, of a descriptor, and of files of its own.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "common/logger.h"

using Lines = std::vector<std::string>;

/**
 * The lines of a log as tests write them down: each loses its time prefix, and the line number behind a
 * source file becomes '#'. A line without a proper prefix, or a last one without a newline, is marked as such
 * and so equals no expected line.
 */
Lines log_lines(const std::string& text);

/** A regular expression for exactly the log `lines`, written as above, e.g. as the output of a death test. */
std::string log_pattern(const Lines& lines);

/** A regular expression for exactly `text`. */
std::string text_pattern(const std::string& text);

/** The daemon's logger for as long as this lives, written to memory through the product's log_write. */
class CapturedLog {
 public:
  CapturedLog();
  ~CapturedLog();
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  Logger* logger() { return &logger_; }
  std::string text() const;
  Lines lines() const { return log_lines(text()); }
  /** Empties the log, to look at what comes next only. */
  void forget();
  /** Waits until a line is `line`; false, with the log in the test's output, when it does not come. */
  bool wait_for(const std::string& line);

 private:
  static ssize_t append(void* self, const char* bytes, size_t count);

  Logger logger_;
  Logger* previous_;
  mutable std::mutex mutex_;  // guards text_
  std::condition_variable grown_;
  std::string text_;
};

/** What is written to the file descriptor `fd` (of stdio's 1 or 2) from construction to taken(). */
class CapturedDescriptor {
 public:
  explicit CapturedDescriptor(int fd);
  ~CapturedDescriptor();
  CapturedDescriptor(const CapturedDescriptor&) = delete;
  CapturedDescriptor& operator=(const CapturedDescriptor&) = delete;

  /** Gives the descriptor back; returns what went to it. */
  std::string taken();

 private:
  int fd_;
  int saved_;
  FILE* file_;
};

/** A directory of the test's own, removed with everything in it. */
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  std::string path(const std::string& name) const { return path_ + "/" + name; }
  /** Makes or replaces a file; returns its path. */
  std::string file(const std::string& name, const std::string& contents) const;

 private:
  std::string path_;
};

std::string contents_of(const std::string& path);
bool exists(const std::string& path);
