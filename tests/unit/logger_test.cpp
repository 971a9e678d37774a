// SPDX-License-Identifier: MIT
// logger_test.cpp: opening, rotating and writing logs, and the macros of the call sites.
#include "common/logger.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <thread>

#include "common/text.h"
#include "tests/unit/capture.h"
#include "tests/unit/fakes.h"

using testing::KilledBySignal;

namespace {

// The product never frees a logger; the tests do, so that leak checkers stay meaningful.
struct CloseLogger {
  void operator()(Logger* logger) const {
    if (logger->fp && logger->fp != stdout && logger->fp != stderr) fclose(logger->fp);
    free(logger);
  }
};
using LoggerOwner = std::unique_ptr<Logger, CloseLogger>;

class LogOpen : public FakedTest {
 protected:
  static LoggerOwner open(const std::string& name) { return LoggerOwner(log_open(name.c_str())); }

  /** A path of exactly `length` bytes in the directory. */
  std::string path_of_length(size_t length) const {
    const std::string path = directory.path("");
    return path + std::string(length - path.size(), 'l');
  }

  /** From now on, each file is opened as `path` if that is set, and recorded as "PATH MODE". */
  void record_opened(const char* path = nullptr) {
    fakes.fopen = [this, path](const char* wanted, const char* mode) {
      opened.push_back(std::string(wanted) + " " + mode);
      return __real_fopen(path ? path : wanted, mode);
    };
  }

  TemporaryDirectory directory;
  std::vector<std::string> opened;
};
using LogOpenDeathTest = LogOpen;
using LogWrite = FakedTest;
using CallSite = FakedTest;

class TimeZone {
 public:
  explicit TimeZone(const char* name) { set(name); }
  ~TimeZone() {
    unsetenv("TZ");
    tzset();
  }
  TimeZone(const TimeZone&) = delete;
  TimeZone& operator=(const TimeZone&) = delete;

  static void set(const char* name) {
    setenv("TZ", name, 1);
    tzset();
  }
};

/** Whether another thread could write to the stream. */
bool is_free_for_others(FILE* stream) {
  bool is_free = false;
  std::thread([&] {
    is_free = ftrylockfile(stream) == 0;
    if (is_free) funlockfile(stream);
  }).join();
  return is_free;
}

int writes_counted;
void count_write(Logger*, const char*, ...) {
  ++writes_counted;
}

}  // namespace

TEST_F(LogOpen, a_logger_has_level_5_its_name_and_the_write_operation) {
  const char* name = "null";
  const LoggerOwner logger(log_open(name));
  EXPECT_EQ(logger->level, 5);
  EXPECT_EQ(logger->name, name) << "the caller's pointer, not a copy";
  EXPECT_EQ(logger->write, log_write);
}

TEST_F(LogOpen, stdout_and_stderr_are_the_standard_streams) {
  const struct {
    const char* name;
    FILE* stream;
    int fd;
  } cases[] = {{"stdout", stdout, STDOUT_FILENO}, {"stderr", stderr, STDERR_FILENO}};
  for (const auto& [name, stream, fd] : cases) {
    const LoggerOwner logger = open(name);
    EXPECT_EQ(logger->fp, stream);
    CapturedDescriptor output(fd);
    logger->write(logger.get(), "to a standard stream\n");
    EXPECT_EQ(log_lines(output.taken()), (Lines{"to a standard stream"})) << name;
  }
}

TEST_F(LogOpen, null_discards_its_lines) {
  record_opened("/dev/null");
  const LoggerOwner logger = open("null");
  EXPECT_EQ(opened, (std::vector<std::string>{"/dev/null ae"}));
  ASSERT_NE(logger->fp, nullptr);
  logger->write(logger.get(), "gone\n");
}

TEST_F(LogOpen, any_other_name_is_a_path_even_if_only_its_case_differs) {
  record_opened("/dev/null");
  for (const char* name : {"stdout2", "null2", "stdou", "stderr ", "nul", "STDOUT", "Stderr", "NULL"}) {
    opened.clear();
    open(name);
    EXPECT_EQ(opened, (std::vector<std::string>{name + std::string(" we")}));
  }
}

TEST_F(LogOpen, a_new_path_starts_an_empty_log_without_a_backup) {
  const std::string path = directory.path("log");
  const LoggerOwner logger = open(path);
  ASSERT_NE(logger->fp, nullptr);
  EXPECT_EQ(contents_of(path), "");
  EXPECT_FALSE(exists(path + ".old"));
  logger->write(logger.get(), "first\n");
  EXPECT_EQ(log_lines(contents_of(path)), (Lines{"first"}));
}

TEST_F(LogOpen, an_existing_log_is_renamed_and_replaces_an_older_backup) {
  directory.file("log.old", "of the run before\n");
  const std::string path = directory.file("log", "of the last run\n");
  const LoggerOwner logger = open(path);
  EXPECT_EQ(contents_of(path), "");
  EXPECT_EQ(contents_of(path + ".old"), "of the last run\n");
  EXPECT_FALSE(exists(path + ".old.old"));
}

TEST_F(LogOpen, a_log_that_cannot_be_renamed_is_appended_to) {
  const std::string path = directory.file("log", "of the last run\n");
  ASSERT_EQ(mkdir((path + ".old").c_str(), 0700), 0);  // a file cannot be renamed to a directory
  const LoggerOwner logger = open(path);
  logger->write(logger.get(), "next\n");

  const std::string contents = contents_of(path);
  ASSERT_EQ(contents.substr(0, 16), "of the last run\n");
  EXPECT_EQ(log_lines(contents.substr(16)),
            (Lines{"Cannot move old log file from " + path + " to " + path + ".old", "next"}));
  EXPECT_EQ(logger->level, 5);
  EXPECT_EQ(logger->write, log_write);
}

TEST_F(LogOpen, a_log_that_can_be_neither_renamed_nor_opened_gives_a_silent_logger) {
  const std::string path = directory.file("log", "of the last run\n");
  ASSERT_EQ(mkdir((path + ".old").c_str(), 0700), 0);
  record_opened("/missing/directory/log");
  CapturedDescriptor output(STDERR_FILENO);
  const LoggerOwner logger = open(path);
  EXPECT_EQ(output.taken(), "");
  EXPECT_EQ(opened, (std::vector<std::string>{path + " ae"}));
  EXPECT_EQ(logger->fp, nullptr);
  EXPECT_EQ(logger->level, 5);
  EXPECT_EQ(logger->write, log_write);
}

TEST_F(LogOpen, a_directory_gives_a_silent_logger_and_is_not_renamed) {
  const std::string path = directory.path("log");
  ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
  const LoggerOwner logger = open(path);
  ASSERT_NE(logger, nullptr);
  EXPECT_EQ(logger->fp, nullptr);
  EXPECT_EQ(logger->level, 5);
  EXPECT_EQ(logger->write, log_write);
  EXPECT_FALSE(exists(path + ".old"));
  CapturedDescriptor output(STDERR_FILENO);
  logger->write(logger.get(), "dropped\n");
  EXPECT_EQ(output.taken(), "");
}

TEST_F(LogOpen, a_device_is_not_renamed_and_is_opened_for_writing) {
  const std::string path = directory.path("log");
  ASSERT_EQ(symlink("/dev/null", path.c_str()), 0);
  record_opened();
  const LoggerOwner logger = open(path);
  EXPECT_NE(logger->fp, nullptr);
  EXPECT_EQ(opened, (std::vector<std::string>{path + " we"}));
  EXPECT_TRUE(exists(path));
  EXPECT_FALSE(exists(path + ".old"));
}

TEST_F(LogOpen, a_link_to_a_regular_file_is_renamed_and_the_file_stays) {
  const std::string file = directory.file("elsewhere", "of the last run\n");
  const std::string path = directory.path("log");
  ASSERT_EQ(symlink(file.c_str(), path.c_str()), 0);
  const LoggerOwner logger = open(path);
  EXPECT_EQ(contents_of(path), "");
  EXPECT_EQ(contents_of(path + ".old"), "of the last run\n");
  EXPECT_EQ(contents_of(file), "of the last run\n");
}

TEST_F(LogOpen, a_log_is_opened_to_be_closed_on_exec_and_for_appending_only_if_it_cannot_be_renamed) {
  record_opened();
  const std::string path = directory.path("log");
  open(path);
  open(path);
  ASSERT_EQ(unlink((path + ".old").c_str()), 0);
  ASSERT_EQ(mkdir((path + ".old").c_str(), 0700), 0);
  open(path);
  EXPECT_EQ(opened, (std::vector<std::string>{path + " we", path + " we", path + " ae"}));
}

TEST_F(LogOpen, a_log_file_can_be_truncated_while_it_is_open) {
  const std::string path = directory.path("log");
  const LoggerOwner logger = open(path);
  const int flags = fcntl(fileno(logger->fp), F_GETFL);
  EXPECT_TRUE(flags & O_APPEND);
  EXPECT_EQ(flags & O_ACCMODE, O_WRONLY);
  logger->write(logger.get(), "before\n");
  ASSERT_EQ(truncate(path.c_str(), 0), 0);
  logger->write(logger.get(), "after\n");
  EXPECT_EQ(log_lines(contents_of(path)), (Lines{"after"})) << "no hole before the line";
}

TEST_F(LogOpen, a_regular_file_with_a_path_of_59_bytes_is_renamed) {
  const std::string path = path_of_length(59);
  fclose(fopen(path.c_str(), "w"));
  const LoggerOwner logger = open(path);
  EXPECT_TRUE(exists(path + ".old"));
  EXPECT_NE(logger->fp, nullptr);
}

TEST_F(LogOpenDeathTest, a_regular_file_with_a_path_of_60_bytes_aborts) {
  const std::string path = path_of_length(60);
  fclose(fopen(path.c_str(), "w"));
  EXPECT_EXIT(log_open(path.c_str()), KilledBySignal(SIGABRT), "^$");
}

TEST_F(LogOpen, a_new_path_may_be_longer_than_59_bytes) {
  const std::string path = path_of_length(100);
  const LoggerOwner logger = open(path);
  EXPECT_NE(logger->fp, nullptr);
}

TEST_F(LogOpen, without_memory_standard_error_gets_a_message_and_null_is_returned) {
  CapturedDescriptor output(STDERR_FILENO);
  MemoryBook memory;
  memory.fail_malloc(1);
  EXPECT_EQ(log_open("null"), nullptr);
  EXPECT_EQ(output.taken(), "insufficient memory\n");
}

TEST_F(LogWrite, each_message_follows_its_local_time) {
  const struct {
    const char* zone;
    time_t time;
    std::string prefix;
  } cases[] = {{"EST5:30", 1073038986, "2004-01-02 04:53:06:"},  // UTC minus five and a half hours
               {"UTC0", 1078293845, "2004-03-03 06:04:05:"},
               {"UTC0", 1103674272, "2004-12-22 00:11:12:"},
               {"UTC0", 0, "1970-01-01 00:00:00:"},
               {"UTC0", 253402300800, "10000-01-01 00:00:00:"},
               {"UTC0", 67767976233532799, "2147483647-12-31 23:59:59:"}};  // the year is the largest int
  for (const auto& row : cases) {
    const TimeZone zone(row.zone);
    fakes.time = [&] { return row.time; };
    CapturedLog log;
    std::thread([&] { log.logger()->write(log.logger(), "the message\n"); }).join();  // its first line
    EXPECT_EQ(log.text(), row.prefix + "the message\n");
  }
}

TEST_F(LogWrite, each_thread_formats_the_time_of_a_second_once) {
  const TimeZone zone("UTC0");
  CapturedLog log;
  fakes.time = [] { return time_t{1103674272}; };
  log.logger()->write(log.logger(), "first\n");
  TimeZone::set("EST5");  // from now on the same second has another local time
  log.logger()->write(log.logger(), "same second\n");
  std::thread([&] { log.logger()->write(log.logger(), "another thread\n"); }).join();
  fakes.time = [] { return time_t{1103674273}; };
  log.logger()->write(log.logger(), "next second\n");
  fakes.time = [] { return time_t{1103674272}; };
  log.logger()->write(log.logger(), "clock set back\n");
  EXPECT_EQ(log.text(),
            "2004-12-22 00:11:12:first\n"
            "2004-12-22 00:11:12:same second\n"
            "2004-12-21 19:11:12:another thread\n"
            "2004-12-21 19:11:13:next second\n"
            "2004-12-21 19:11:12:clock set back\n");
}

TEST_F(LogWrite, arguments_are_formatted) {
  CapturedLog log;
  log.logger()->write(log.logger(), "%s %d%% %c\n", "a", -5, 'z');
  EXPECT_EQ(log.lines(), (Lines{"a -5% z"}));
}

TEST_F(LogWrite, no_newline_is_added) {
  CapturedLog log;
  log.logger()->write(log.logger(), "no newline");
  EXPECT_EQ(log.lines(), (Lines{"no newline (no newline)"}));
}

TEST_F(LogWrite, a_null_logger_and_a_null_stream_write_nothing) {
  Logger silent = {.level = 5, .name = "silent", .fp = nullptr, .write = log_write};
  log_write(nullptr, "dropped\n");
  log_write(&silent, "dropped\n");
}

TEST_F(LogWrite, each_line_is_on_disk_at_once) {
  const TemporaryDirectory directory;
  const std::string path = directory.path("log");
  const LoggerOwner logger(log_open(path.c_str()));
  logger->write(logger.get(), "one\n");
  EXPECT_EQ(log_lines(contents_of(path)), (Lines{"one"}));
  logger->write(logger.get(), "two\n");
  EXPECT_EQ(log_lines(contents_of(path)), (Lines{"one", "two"}));
}

TEST_F(LogWrite, the_stream_is_unlocked_after_the_line) {
  CapturedLog log;
  log.logger()->write(log.logger(), "one\n");
  EXPECT_TRUE(is_free_for_others(log.logger()->fp));
}

TEST_F(LogWrite, the_stream_is_locked_before_the_time_is_read_so_that_times_never_go_back) {
  const TimeZone zone("UTC0");
  CapturedLog log;
  bool was_free = true;
  fakes.time = [&] {
    was_free = is_free_for_others(log.logger()->fp);
    return time_t{1078293845};
  };
  log.logger()->write(log.logger(), "one\n");
  EXPECT_FALSE(was_free);
  EXPECT_EQ(log.text(), "2004-03-03 06:04:05:one\n");
}

TEST_F(LogWrite, the_stream_is_locked_until_the_line_is_flushed) {
  CapturedLog log;
  Lines at_unlock;
  fakes.seen_funlockfile = [&](FILE* stream) {
    EXPECT_EQ(stream, log.logger()->fp);
    at_unlock = log.lines();
  };
  log.logger()->write(log.logger(), "one\n");
  EXPECT_EQ(at_unlock, (Lines{"one"}));
}

TEST_F(LogWrite, no_other_stream_is_flushed) {
  const TemporaryDirectory directory;
  const std::string path = directory.path("other");
  FILE* other = fopen(path.c_str(), "w");
  fputs("held back", other);
  CapturedLog log;
  log.logger()->write(log.logger(), "one\n");
  EXPECT_EQ(contents_of(path), "");
  fclose(other);
  EXPECT_EQ(contents_of(path), "held back");
}

TEST_F(CallSite, a_line_has_the_file_line_function_and_severity_of_its_call) {
  CapturedLog log;
  log_debug("{II} value %d of %s\n", 3, "it");
  log_error("without arguments\n");
  const int line = __LINE__ - 1;
  const std::string file = "tests/unit/logger_test.cpp:";
  const std::string text = log.text();
  const size_t second = text.find('\n') + 1;
  EXPECT_EQ(text.substr(20, second - 20),
            file + std::to_string(line - 1) + ":TestBody: DEBUG: {II} value 3 of it\n");
  EXPECT_EQ(text.substr(second + 20), file + std::to_string(line) + ":TestBody: ERROR: without arguments\n");
}

TEST_F(CallSite, without_the_daemons_logger_nothing_is_written) {
  ASSERT_EQ(plogger, nullptr) << "null until main sets it";
  CapturedDescriptor output(STDERR_FILENO);
  log_debug("dropped\n");
  log_error("dropped\n");
  EXPECT_EQ(output.taken(), "");
}

TEST_F(CallSite, debug_lines_need_level_5_and_error_lines_level_1) {
  const struct {
    int level;
    Lines written;
  } cases[] = {
      {-1, {}},
      {0, {}},
      {1, {"tests/unit/logger_test.cpp:#:TestBody: ERROR: error"}},
      {4, {"tests/unit/logger_test.cpp:#:TestBody: ERROR: error"}},
      {5,
       {"tests/unit/logger_test.cpp:#:TestBody: DEBUG: debug",
        "tests/unit/logger_test.cpp:#:TestBody: ERROR: error"}},
      {6,
       {"tests/unit/logger_test.cpp:#:TestBody: DEBUG: debug",
        "tests/unit/logger_test.cpp:#:TestBody: ERROR: error"}},
  };
  for (const auto& [level, written] : cases) {
    CapturedLog log;
    log.logger()->level = level;
    log_debug("debug\n");
    log_error("error\n");
    EXPECT_EQ(log.lines(), written) << "at level " << level;
  }
}

TEST_F(CallSite, lines_go_through_the_loggers_own_write_operation) {
  writes_counted = 0;
  Logger counting = {.level = 5, .name = "counting", .fp = nullptr, .write = count_write};
  plogger = &counting;
  log_debug("one\n");
  log_error("two\n");
  plogger = nullptr;
  EXPECT_EQ(writes_counted, 2);
}

TEST_F(CallSite, each_macro_is_one_statement_after_an_if) {
  CapturedLog log;
  if (log.text().empty())
    log_debug("then\n");
  else
    log_debug("else\n");
  EXPECT_EQ(log.lines(), (Lines{"tests/unit/logger_test.cpp:#:TestBody: DEBUG: then"}));
}
