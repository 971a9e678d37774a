// SPDX-License-Identifier: MIT
// capture.cpp: the captured log is a stdio stream to memory.
//
// Every captured line passes through the product's log_write, and threads may write while the test waits for
// a line.
#include "tests/unit/capture.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>

static constexpr std::chrono::seconds deadline(20);
static constexpr const char* prefix_shape = "0000-00-00 00:00:00:";

static bool is_digit(char character) {
  return character >= '0' && character <= '9';
}

static bool has_time_prefix(const std::string& line) {
  if (line.size() < strlen(prefix_shape)) return false;
  for (size_t i = 0; prefix_shape[i]; ++i) {
    if (prefix_shape[i] == '0' ? !is_digit(line[i]) : line[i] != prefix_shape[i]) return false;
  }
  return true;
}

// "file.cpp:12:function: ..." becomes "file.cpp:#:function: ..."; other texts stay unchanged.
static std::string without_line_number(const std::string& message) {
  const size_t colon = message.find(':');
  if (colon == std::string::npos) return message;
  size_t end = colon + 1;
  while (end < message.size() && is_digit(message[end])) ++end;
  if (end == colon + 1 || end == message.size() || message[end] != ':') return message;
  return message.substr(0, colon) + ":#" + message.substr(end);
}

Lines log_lines(const std::string& text) {
  Lines lines;
  for (size_t start = 0; start < text.size();) {
    const size_t newline = text.find('\n', start);
    std::string line = text.substr(start, newline - start);
    line =
        has_time_prefix(line) ? without_line_number(line.substr(strlen(prefix_shape))) : "(no time) " + line;
    if (newline == std::string::npos) line += " (no newline)";
    lines.push_back(line);
    start = newline == std::string::npos ? text.size() : newline + 1;
  }
  return lines;
}

static std::string escaped(const std::string& text) {
  std::string pattern;
  for (const char character : text) {
    if (strchr("\\^$.|?*+()[]{}", character)) pattern += '\\';
    pattern += character;
  }
  return pattern;
}

std::string text_pattern(const std::string& text) {
  return "^" + escaped(text) + "$";
}

std::string log_pattern(const Lines& lines) {
  std::string pattern = "^";
  for (const std::string& line : lines) {
    std::string body = escaped(line);
    const size_t number = body.find(":#:");
    if (number != std::string::npos) body.replace(number, 3, ":[0-9]+:");
    pattern += "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}:" + body + "\n";
  }
  return pattern + "$";
}

ssize_t CapturedLog::append(void* self, const char* bytes, size_t count) {
  auto* log = static_cast<CapturedLog*>(self);
  const std::lock_guard hold(log->mutex_);
  log->text_.append(bytes, count);
  log->grown_.notify_all();
  return static_cast<ssize_t>(count);
}

CapturedLog::CapturedLog()
    : logger_{.level = 5, .name = "captured", .fp = nullptr, .write = log_write}, previous_(plogger) {
  cookie_io_functions_t functions = {};
  functions.write = append;
  logger_.fp = fopencookie(this, "w", functions);
  plogger = &logger_;
}

CapturedLog::~CapturedLog() {
  plogger = previous_;
  fclose(logger_.fp);
}

std::string CapturedLog::text() const {
  const std::lock_guard hold(mutex_);
  return text_;
}

void CapturedLog::forget() {
  const std::lock_guard hold(mutex_);
  text_.clear();
}

bool CapturedLog::wait_for(const std::string& line) {
  const auto has_line = [&] {
    for (const std::string& written : log_lines(text_)) {
      if (written == line) return true;
    }
    return false;
  };
  std::unique_lock hold(mutex_);
  if (grown_.wait_for(hold, deadline, has_line)) return true;
  ADD_FAILURE() << "no line \"" << line << "\" in the log:\n" << text_;
  return false;
}

CapturedDescriptor::CapturedDescriptor(int fd) : fd_(fd), saved_(dup(fd)), file_(tmpfile()) {
  fflush(stdout);
  dup2(fileno(file_), fd_);
}

std::string CapturedDescriptor::taken() {
  fflush(stdout);
  if (saved_ >= 0) {
    dup2(saved_, fd_);
    close(saved_);
    saved_ = -1;
  }
  std::string text;
  char part[4096];
  rewind(file_);
  for (size_t count; (count = fread(part, 1, sizeof part, file_)) > 0;) text.append(part, count);
  return text;
}

CapturedDescriptor::~CapturedDescriptor() {
  taken();
  fclose(file_);
}

TemporaryDirectory::TemporaryDirectory() {
  char name[] = "/tmp/corvane-XXXXXX";
  path_ = mkdtemp(name);
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TemporaryDirectory::file(const std::string& name, const std::string& contents) const {
  FILE* file = fopen(path(name).c_str(), "w");
  fwrite(contents.data(), 1, contents.size(), file);
  fclose(file);
  return path(name);
}

std::string contents_of(const std::string& path) {
  std::string contents;
  FILE* file = fopen(path.c_str(), "r");
  if (!file) return "(cannot be opened)";
  char part[4096];
  for (size_t count; (count = fread(part, 1, sizeof part, file)) > 0;) contents.append(part, count);
  fclose(file);
  return contents;
}

bool exists(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0;
}
