// SPDX-License-Identifier: MIT
// logger_test.cpp: opening, rotating and writing logs, and the forms in which call sites write.
#include "common/logger.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <set>
#include <thread>

#include "common/text.h"
#include "tests/unit/capture.h"
#include "tests/unit/fakes.h"

using testing::KilledBySignal;

namespace {

// A logger is never freed by the product; the tests do it, so that leak checkers stay meaningful.
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

  TemporaryDirectory directory;
};
using LogOpenDeathTest = LogOpen;
using LogWrite = FakedTest;
using CallSite = FakedTest;

/** Whether another thread than the caller's could write to the stream. */
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

TEST_F(LogOpen, levels_are_1_for_errors_and_5_for_debugging) {
  EXPECT_EQ(LOG_LEVEL_ERROR, 1);
  EXPECT_EQ(LOG_LEVEL_DEBUG, 5);
}

TEST_F(LogOpen, stdout_is_standard_output) {
  const LoggerOwner logger = open("stdout");
  EXPECT_EQ(logger->fp, stdout);
  CapturedDescriptor output(STDOUT_FILENO);
  logger->write(logger.get(), "to standard output\n");
  EXPECT_EQ(log_lines(output.taken()), (Lines{"to standard output"}));
}

TEST_F(LogOpen, stderr_is_standard_error) {
  const LoggerOwner logger = open("stderr");
  EXPECT_EQ(logger->fp, stderr);
  CapturedDescriptor output(STDERR_FILENO);
  logger->write(logger.get(), "to standard error\n");
  EXPECT_EQ(log_lines(output.taken()), (Lines{"to standard error"}));
}

TEST_F(LogOpen, null_swallows_its_lines) {
  std::vector<std::string> opened;
  fakes.fopen = [&](const char* path, const char* mode) {
    opened.push_back(std::string(path) + " " + mode);
    return __real_fopen("/dev/null", mode);
  };
  const LoggerOwner logger = open("null");
  EXPECT_EQ(opened, (std::vector<std::string>{"/dev/null ae"}));
  ASSERT_NE(logger->fp, nullptr);
  logger->write(logger.get(), "gone\n");
}

TEST_F(LogOpen, names_are_compared_as_whole_words) {
  std::vector<std::string> opened;
  fakes.fopen = [&](const char* path, const char* mode) {
    opened.push_back(std::string(path) + " " + mode);
    return __real_fopen("/dev/null", mode);
  };
  for (const char* name : {"stdout2", "stderr2", "null2", "stdou", "stderr ", "nul"}) open(name);
  EXPECT_EQ(opened, (std::vector<std::string>{"stdout2 we", "stderr2 we", "null2 we", "stdou we",
                                              "stderr  we", "nul we"}));
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

TEST_F(LogOpen, an_existing_log_is_moved_to_old) {
  const std::string path = directory.file("log", "of the last run\n");
  const LoggerOwner logger = open(path);
  EXPECT_EQ(contents_of(path), "");
  EXPECT_EQ(contents_of(path + ".old"), "of the last run\n");
}

TEST_F(LogOpen, an_older_backup_is_replaced) {
  directory.file("log.old", "of the run before\n");
  const std::string path = directory.file("log", "of the last run\n");
  const LoggerOwner logger = open(path);
  EXPECT_EQ(contents_of(path + ".old"), "of the last run\n");
  EXPECT_FALSE(exists(path + ".old.old"));
}

TEST_F(LogOpen, a_log_that_cannot_be_moved_goes_on_behind_its_old_contents) {
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

TEST_F(LogOpen, a_log_that_can_neither_be_moved_nor_opened_gives_a_silent_logger) {
  const std::string path = directory.file("log", "of the last run\n");
  ASSERT_EQ(mkdir((path + ".old").c_str(), 0700), 0);
  std::vector<std::string> modes;
  fakes.fopen = [&](const char*, const char* mode) -> FILE* {
    modes.push_back(mode);
    return nullptr;
  };
  CapturedDescriptor output(STDERR_FILENO);
  const LoggerOwner logger = open(path);
  EXPECT_EQ(output.taken(), "");
  fakes.fopen = nullptr;
  EXPECT_EQ(modes, (std::vector<std::string>{"ae"}));
  EXPECT_EQ(logger->fp, nullptr);
  EXPECT_EQ(logger->level, 5);
  EXPECT_EQ(logger->write, log_write);
  EXPECT_EQ(contents_of(path), "of the last run\n");
}

TEST_F(LogOpen, a_directory_gives_a_silent_logger_and_stays) {
  const std::string path = directory.path("log");
  ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
  const LoggerOwner logger = open(path);
  ASSERT_NE(logger, nullptr);
  EXPECT_EQ(logger->fp, nullptr);
  EXPECT_FALSE(exists(path + ".old"));
  CapturedDescriptor output(STDERR_FILENO);
  logger->write(logger.get(), "dropped\n");
  EXPECT_EQ(output.taken(), "");
}

TEST_F(LogOpen, a_device_is_opened_and_not_moved) {
  const std::string path = directory.path("log");
  ASSERT_EQ(symlink("/dev/null", path.c_str()), 0);
  const LoggerOwner logger = open(path);
  EXPECT_NE(logger->fp, nullptr);
  EXPECT_TRUE(exists(path));
  EXPECT_FALSE(exists(path + ".old"));
}

TEST_F(LogOpen, a_link_to_a_regular_file_is_moved_and_the_file_kept) {
  const std::string file = directory.file("elsewhere", "of the last run\n");
  const std::string path = directory.path("log");
  ASSERT_EQ(symlink(file.c_str(), path.c_str()), 0);
  const LoggerOwner logger = open(path);
  EXPECT_EQ(contents_of(path), "");
  EXPECT_EQ(contents_of(path + ".old"), "of the last run\n");
  EXPECT_EQ(contents_of(file), "of the last run\n");
}

TEST_F(LogOpen, a_path_in_a_missing_directory_gives_a_silent_logger) {
  const LoggerOwner logger = open(directory.path("missing/log"));
  ASSERT_NE(logger, nullptr);
  EXPECT_EQ(logger->fp, nullptr);
  EXPECT_EQ(logger->level, 5);
  EXPECT_EQ(logger->write, log_write);
}

TEST_F(LogOpen, new_and_moved_logs_start_empty_and_immovable_ones_are_appended_to) {
  std::vector<std::string> modes;
  fakes.fopen = [&](const char* path, const char* mode) {
    modes.push_back(mode);
    return __real_fopen(path, mode);
  };
  const std::string path = directory.path("log");
  open(path);
  open(path);
  ASSERT_EQ(unlink((path + ".old").c_str()), 0);
  ASSERT_EQ(mkdir((path + ".old").c_str(), 0700), 0);
  open(path);
  EXPECT_EQ(modes, (std::vector<std::string>{"we", "we", "ae"}));
}

TEST_F(LogOpen, a_new_a_moved_an_immovable_and_a_null_log_are_closed_on_exec) {
  const auto is_closed_on_exec = [](const LoggerOwner& logger) {
    return (fcntl(fileno(logger->fp), F_GETFD) & FD_CLOEXEC) != 0;
  };
  const std::string path = directory.path("log");
  EXPECT_TRUE(is_closed_on_exec(open(path)));
  EXPECT_TRUE(is_closed_on_exec(open(path)));
  ASSERT_EQ(unlink((path + ".old").c_str()), 0);
  ASSERT_EQ(mkdir((path + ".old").c_str(), 0700), 0);
  EXPECT_TRUE(is_closed_on_exec(open(path)));
  EXPECT_TRUE(is_closed_on_exec(open("null")));
}

TEST_F(LogOpen, a_file_log_can_be_truncated_while_it_is_written) {
  const std::string path = directory.path("log");
  const LoggerOwner logger = open(path);
  const int flags = fcntl(fileno(logger->fp), F_GETFL);
  EXPECT_TRUE(flags & O_APPEND);
  EXPECT_EQ(flags & O_ACCMODE, O_WRONLY);
  logger->write(logger.get(), "before\n");
  ASSERT_EQ(truncate(path.c_str(), 0), 0);
  logger->write(logger.get(), "behind\n");
  EXPECT_EQ(log_lines(contents_of(path)), (Lines{"behind"})) << "no hole before the line";
}

TEST_F(LogOpen, a_regular_file_with_a_path_of_59_bytes_is_moved) {
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

TEST_F(LogOpen, without_memory_a_note_goes_to_standard_error_and_no_logger_comes_back) {
  CapturedDescriptor output(STDERR_FILENO);
  MemoryBook memory;
  memory.fail_malloc(1);
  EXPECT_EQ(log_open("null"), nullptr);
  EXPECT_EQ(output.taken(), "insufficient memory\n");
}

TEST_F(LogWrite, the_local_time_stands_in_20_characters_before_the_message) {
  setenv("TZ", "EST5:30", 1);  // five and a half hours behind UTC
  tzset();
  fakes.time = [] { return time_t{1073038986}; };  // 2004-01-02 10:23:06 UTC
  CapturedLog log;
  log.logger()->write(log.logger(), "the message\n");
  unsetenv("TZ");
  tzset();
  EXPECT_EQ(log.text(), "2004-01-02 04:53:06:the message\n");
}

TEST_F(LogWrite, hours_minutes_seconds_months_and_days_have_two_digits) {
  setenv("TZ", "UTC", 1);
  tzset();
  CapturedLog log;
  fakes.time = [] { return time_t{1078293845}; };  // one digit each but the year
  log.logger()->write(log.logger(), "\n");
  fakes.time = [] { return time_t{1103674272}; };  // two digits each
  log.logger()->write(log.logger(), "\n");
  unsetenv("TZ");
  tzset();
  EXPECT_EQ(log.text(), "2004-03-03 06:04:05:\n2004-12-22 00:11:12:\n");
}

TEST_F(LogWrite, a_year_beyond_9999_is_written_whole) {
  setenv("TZ", "UTC", 1);
  tzset();
  CapturedLog log;
  fakes.time = [] { return time_t{253402300800}; };
  log.logger()->write(log.logger(), "the message\n");
  fakes.time = [] { return time_t{67767976233532799}; };  // the last second whose year fits an int
  log.logger()->write(log.logger(), "the last\n");
  unsetenv("TZ");
  tzset();
  EXPECT_EQ(log.text(), "10000-01-01 00:00:00:the message\n2147483647-12-31 23:59:59:the last\n");
}

TEST_F(LogWrite, a_second_is_put_into_words_once_by_each_thread) {
  setenv("TZ", "UTC", 1);
  tzset();
  CapturedLog log;
  fakes.time = [] { return time_t{1103674272}; };
  log.logger()->write(log.logger(), "first\n");
  setenv("TZ", "EST5", 1);  // from now on the same second has another name
  tzset();
  log.logger()->write(log.logger(), "same second\n");
  std::thread([&] { log.logger()->write(log.logger(), "another thread\n"); }).join();
  fakes.time = [] { return time_t{1103674273}; };
  log.logger()->write(log.logger(), "next second\n");
  fakes.time = [] { return time_t{1103674272}; };
  log.logger()->write(log.logger(), "clock set back\n");
  unsetenv("TZ");
  tzset();
  EXPECT_EQ(log.text(),
            "2004-12-22 00:11:12:first\n"
            "2004-12-22 00:11:12:same second\n"
            "2004-12-21 19:11:12:another thread\n"
            "2004-12-21 19:11:13:next second\n"
            "2004-12-21 19:11:12:clock set back\n");
}

TEST_F(LogWrite, the_first_second_of_all_is_like_any_other) {
  setenv("TZ", "UTC", 1);
  tzset();
  CapturedLog log;
  fakes.time = [] { return time_t{0}; };
  std::thread([&] { log.logger()->write(log.logger(), "\n"); }).join();
  unsetenv("TZ");
  tzset();
  EXPECT_EQ(log.text(), "1970-01-01 00:00:00:\n");
}

TEST_F(LogWrite, the_clock_is_the_systems) {
  setenv("TZ", "UTC", 1);  // elsewhere an hour may come twice a year
  tzset();
  const time_t before = time(nullptr);
  CapturedLog log;
  log.logger()->write(log.logger(), "\n");
  struct tm broken_down = {};
  ASSERT_NE(strptime(log.text().c_str(), "%Y-%m-%d %H:%M:%S:", &broken_down), nullptr);
  broken_down.tm_isdst = -1;
  const time_t written = mktime(&broken_down);
  EXPECT_GE(written, before);
  EXPECT_LE(written, time(nullptr));
  unsetenv("TZ");
  tzset();
}

TEST_F(LogWrite, arguments_are_formatted) {
  CapturedLog log;
  log.logger()->write(log.logger(), "%s %d%% %c\n", "a", -5, 'z');
  EXPECT_EQ(log.lines(), (Lines{"a -5% z"}));
}

TEST_F(LogWrite, the_message_brings_its_own_newline) {
  CapturedLog log;
  log.logger()->write(log.logger(), "no newline");
  EXPECT_EQ(log.lines(), (Lines{"no newline (no newline)"}));
}

TEST_F(LogWrite, a_null_logger_is_written_to_without_harm) {
  log_write(nullptr, "nobody hears it\n");
}

TEST_F(LogWrite, a_null_stream_is_written_to_without_harm) {
  Logger silent = {.level = 5, .name = "silent", .fp = nullptr, .write = log_write};
  log_write(&silent, "nobody hears it\n");
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

TEST_F(LogWrite, the_stream_is_free_for_other_threads_afterwards) {
  CapturedLog log;
  log.logger()->write(log.logger(), "one\n");
  EXPECT_TRUE(is_free_for_others(log.logger()->fp));
}

TEST_F(LogWrite, the_time_is_taken_while_the_stream_is_held_and_so_never_goes_back) {
  setenv("TZ", "UTC", 1);
  tzset();
  CapturedLog log;
  bool was_free = true;
  fakes.time = [&] {
    was_free = is_free_for_others(log.logger()->fp);
    return time_t{1078293845};
  };
  log.logger()->write(log.logger(), "one\n");
  unsetenv("TZ");
  tzset();
  EXPECT_FALSE(was_free);
  EXPECT_EQ(log.text(), "2004-03-03 06:04:05:one\n");
}

TEST_F(LogWrite, the_stream_is_held_until_the_line_has_left_it) {
  CapturedLog log;
  Lines at_release;
  fakes.seen_funlockfile = [&](FILE* stream) {
    EXPECT_EQ(stream, log.logger()->fp);
    at_release = log.lines();
  };
  log.logger()->write(log.logger(), "one\n");
  EXPECT_EQ(at_release, (Lines{"one"}));
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

TEST_F(LogWrite, a_message_of_100_kilobytes_is_written_whole) {
  const TemporaryDirectory directory;
  const std::string path = directory.path("log");
  const LoggerOwner logger(log_open(path.c_str()));
  const std::string message(100 * 1024, 'm');
  logger->write(logger.get(), "%s\n", message.c_str());
  EXPECT_EQ(log_lines(contents_of(path)), (Lines{message}));
}

TEST_F(LogWrite, lines_of_8_threads_are_whole_whatever_their_length) {
  const TemporaryDirectory directory;
  const std::string path = directory.path("log");
  const LoggerOwner logger(log_open(path.c_str()));
  constexpr int thread_count = 8;
  constexpr int lines_of_each = 200;
  const auto line_of = [](int thread, int number) {
    // Every tenth is longer than the stream's buffer, so that it leaves in several pieces.
    const auto length = static_cast<size_t>(number % 10 == 0 ? 10000 : number);
    std::string line = std::to_string(thread);
    line += ' ';
    line += std::to_string(number);
    line += std::string(length, static_cast<char>('a' + thread));
    return line;
  };
  std::vector<std::thread> threads;
  std::multiset<std::string> expected;
  for (int thread = 0; thread < thread_count; ++thread) {
    for (int number = 0; number < lines_of_each; ++number) expected.insert(line_of(thread, number));
    threads.emplace_back([&, thread] {
      for (int number = 0; number < lines_of_each; ++number)
        logger->write(logger.get(), "%s\n", line_of(thread, number).c_str());
    });
  }
  for (std::thread& thread : threads) thread.join();

  const Lines lines = log_lines(contents_of(path));
  EXPECT_EQ(lines.size(), expected.size());
  EXPECT_TRUE(std::multiset<std::string>(lines.begin(), lines.end()) == expected) << "some line is torn";
}

TEST_F(CallSite, a_debug_line_has_file_line_function_and_level_word) {
  CapturedLog log;
  log_debug("{II} value %d of %s\n", 3, "it");
  const int line = __LINE__ - 1;
  EXPECT_EQ(log.text().substr(20),
            "tests/unit/logger_test.cpp:" + std::to_string(line) + ":TestBody: DEBUG: {II} value 3 of it\n");
}

TEST_F(CallSite, an_error_line_has_file_line_function_and_level_word) {
  CapturedLog log;
  log_error("without arguments\n");
  const int line = __LINE__ - 1;
  EXPECT_EQ(log.text().substr(20),
            "tests/unit/logger_test.cpp:" + std::to_string(line) + ":TestBody: ERROR: without arguments\n");
}

TEST_F(CallSite, without_the_daemons_logger_nothing_is_written) {
  ASSERT_EQ(plogger, nullptr) << "null until main sets it";
  CapturedDescriptor output(STDERR_FILENO);
  log_debug("unheard\n");
  log_error("unheard\n");
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

TEST_F(CallSite, the_forms_are_statements_that_stand_behind_an_if) {
  CapturedLog log;
  if (log.text().empty())
    log_debug("then\n");
  else
    log_debug("else\n");
  EXPECT_EQ(log.lines(), (Lines{"tests/unit/logger_test.cpp:#:TestBody: DEBUG: then"}));
}
