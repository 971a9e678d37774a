// SPDX-License-Identifier: MIT
// daemon_test.cpp: reading links, the pid file, daemonising, stopping, and the report of a crash.
#include "common/daemon.h"

#include <dirent.h>
#include <spawn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tests/unit/capture.h"
#include "tests/unit/fakes.h"

using testing::ExitedWithCode;
using testing::KilledBySignal;
using Calls = std::vector<std::string>;

// Puts `depth` frames and its own on the stack. Not static, so that the stack can name it.
void frame_of_the_test(Logger* logger, int depth);

namespace {

class ReadSymlink : public FakedTest {
 protected:
  /** What read_symlink returns for a link to `target`. */
  std::string read(const std::string& target) {
    const std::string path = directory.path("link");
    unlink(path.c_str());
    EXPECT_EQ(symlink(target.c_str(), path.c_str()), 0);
    const TextOwner text = read_symlink(path.c_str(), log.logger());
    return text ? text.get() : "(null)";
  }

  TemporaryDirectory directory;
  CapturedLog log;
};

class DaemonControl : public FakedTest {
 protected:
  DaemonControl() {
    fakes.sleep = [this](unsigned seconds) {
      calls.push_back("sleep " + std::to_string(seconds));
      return 0U;
    };
    fakes.kill = [this](pid_t pid, int sig) {
      calls.push_back("kill " + std::to_string(pid) + " " + std::to_string(sig));
      return 0;
    };
  }

  /** The pid that daemon_get_pid makes of a pid file with these `contents`. */
  int pid_from(const std::string& contents) {
    return daemon_get_pid(directory.file("pid", contents).c_str(), log.logger());
  }

  /** Every link reads as `own` for the test's own process and as `other` for any other; "" cannot be read. */
  void fake_links(const std::string& own, const std::string& other) {
    fakes.readlink = [this, own, other](const char* path, char* buffer, size_t size) -> ssize_t {
      links.push_back(path);
      const std::string& target = strcmp(path, "/proc/self/exe") == 0 ? own : other;
      if (target.empty()) return -1;
      return static_cast<ssize_t>(target.copy(buffer, size));
    };
  }

  /** Makes daemon_start run in the test's own process, with its calls noted in their order. */
  void fake_daemonising(std::vector<pid_t> forks) {
    fakes.fork = [this, forks, next = size_t{0}]() mutable {
      calls.push_back("fork");
      return next < forks.size() ? forks[next++] : 0;
    };
    fakes.chdir = [this](const char* path) {
      calls.push_back(std::string("chdir ") + path);
      return 0;
    };
    fakes.setsid = [this] {
      calls.push_back("setsid");
      return 1;
    };
    fakes.umask = [this](mode_t mask) {
      calls.push_back("umask " + std::to_string(mask));
      return mode_t{022};
    };
    fakes.fopen = [this](const char* path, const char* mode) {
      if (path == pid_file) calls.push_back(std::string("fopen ") + mode);
      return __real_fopen(path, mode);
    };
  }

  /** In the child of a death test: prints the calls made so far when the process exits. */
  static void print_calls_at_exit(const Calls* made) {
    static const Calls* printed;
    printed = made;
    atexit([] {
      for (const std::string& call : *printed) fprintf(stderr, "%s\n", call.c_str());
    });
  }

  TemporaryDirectory directory;
  std::string pid_file = directory.path("pid");
  CapturedLog log;
  Calls calls;
  std::vector<std::string> links;
};
using DaemonGetPid = DaemonControl;
using DaemonGetPidDeathTest = DaemonControl;
using DaemonStart = DaemonControl;
using DaemonStartDeathTest = DaemonControl;
using DaemonStop = DaemonControl;
using LogBacktrace = FakedTest;

int open_descriptors() {
  int count = 0;
  DIR* directory = opendir("/proc/self/fd");
  while (readdir(directory)) ++count;
  closedir(directory);
  return count;
}

size_t count_of(const std::string& part, const std::string& text) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

}  // namespace

// The compiler must neither specialise the function for a depth, nor turn its last call into a jump.
static volatile int frames_to_go;

__attribute__((noinline)) void frame_of_the_test(Logger* logger, int depth) {
  frames_to_go = depth;
  if (frames_to_go > 0) {
    frame_of_the_test(logger, frames_to_go - 1);
  } else {
    log_backtrace(logger);
  }
  frames_to_go = 0;
}

// ---- read_symlink -------------------------------------------------------------------------------------

TEST_F(ReadSymlink, a_target_of_any_length_is_read_whole) {
  for (const size_t length : {1U, 14U, 15U, 16U, 17U, 31U, 32U, 33U, 200U}) {
    const std::string target = std::string(length - 1, 't') + "!";
    EXPECT_EQ(read(target), target) << length;
  }
  EXPECT_EQ(log.text(), "");
}

TEST_F(ReadSymlink, the_buffer_starts_at_16_bytes_and_doubles_until_the_target_fits_with_room_to_spare) {
  const struct {
    size_t length;
    std::vector<size_t> sizes;
  } cases[] = {{1, {16}},
               {15, {16}},
               {16, {16, 32}},
               {17, {16, 32}},
               {31, {16, 32}},
               {32, {16, 32, 64}},
               {200, {16, 32, 64, 128, 256}}};
  for (const auto& [length, sizes] : cases) {
    std::vector<size_t> sizes_read;
    fakes.readlink = [&, length = length](const char*, char* buffer, size_t size) {
      sizes_read.push_back(size);
      const size_t count = std::min(length, size);
      memset(buffer, 't', count);
      return static_cast<ssize_t>(count);
    };
    MemoryBook memory;
    read_symlink("/some/link", log.logger());
    EXPECT_EQ(sizes_read, sizes) << "for a target of " << length;
    EXPECT_EQ(memory.sizes_taken(), sizes) << "for a target of " << length;
    EXPECT_EQ(memory.blocks_left(), 0U) << "smaller buffers are freed, the last with its owner";
  }
}

TEST_F(ReadSymlink, a_buffer_is_freed_before_the_next_is_taken) {
  MemoryBook memory;
  const auto take = fakes.malloc;
  fakes.malloc = [&](size_t size) {
    EXPECT_EQ(memory.blocks_left(), 0U) << "when " << size << " bytes are taken";
    return take(size);
  };
  EXPECT_EQ(read(std::string(40, 't')), std::string(40, 't'));
}

TEST_F(ReadSymlink, the_given_path_is_read) {
  std::vector<std::string> paths;
  fakes.readlink = [&](const char* path, char* buffer, size_t size) {
    paths.push_back(path);
    memset(buffer, 't', size);
    return static_cast<ssize_t>(paths.size() == 1 ? size : 5);
  };
  EXPECT_STREQ(read_symlink("/some/link", log.logger()).get(), "ttttt");
  EXPECT_EQ(paths, (std::vector<std::string>{"/some/link", "/some/link"}));
}

TEST_F(ReadSymlink, an_empty_target_is_an_empty_text) {
  fakes.readlink = [](const char*, char*, size_t) { return ssize_t{0}; };
  EXPECT_STREQ(read_symlink("/some/link", log.logger()).get(), "");
  EXPECT_EQ(log.text(), "");
}

TEST_F(ReadSymlink, what_is_not_a_link_cannot_be_read) {
  const std::string path = directory.file("file", "");
  MemoryBook memory;
  EXPECT_EQ(read_symlink(path.c_str(), log.logger()), nullptr);
  EXPECT_EQ(log.lines(), (Lines{"cannot readlink"}));
  EXPECT_EQ(memory.blocks_left(), 0U);
}

TEST_F(ReadSymlink, a_link_that_disappears_while_the_buffer_grows_cannot_be_read) {
  fakes.readlink = [](const char*, char*, size_t size) { return size == 16 ? ssize_t{16} : ssize_t{-1}; };
  EXPECT_EQ(read_symlink("/some/link", log.logger()), nullptr);
  EXPECT_EQ(log.lines(), (Lines{"cannot readlink"}));
}

TEST_F(ReadSymlink, no_memory_while_the_buffer_grows_is_told_to_standard_error) {
  fakes.readlink = [](const char*, char*, size_t size) { return static_cast<ssize_t>(size); };
  CapturedDescriptor output(STDERR_FILENO);
  MemoryBook memory;
  memory.fail_malloc(1);
  EXPECT_EQ(read_symlink("/some/link", log.logger()), nullptr);
  EXPECT_EQ(output.taken(), "insufficient memory: 1\n");
  EXPECT_EQ(log.text(), "");
  EXPECT_EQ(memory.sizes_taken(), (std::vector<size_t>{16})) << "and ends the reading";
}

TEST_F(ReadSymlink, no_memory_in_the_end_is_told_to_the_logger) {
  CapturedDescriptor output(STDERR_FILENO);
  MemoryBook memory;
  memory.fail_malloc(1);
  EXPECT_EQ(read("/target"), "(null)");
  EXPECT_EQ(output.taken(), "");
  EXPECT_EQ(log.lines(), (Lines{"insufficient memory: 2"}));
}

TEST_F(ReadSymlink, no_memory_for_a_larger_buffer_is_told_to_the_logger) {
  MemoryBook memory;
  memory.fail_malloc(2);
  EXPECT_EQ(read("/target/of/20/bytes/"), "(null)");
  EXPECT_EQ(log.lines(), (Lines{"insufficient memory: 2"}));
  EXPECT_EQ(memory.blocks_left(), 0U);
}

TEST_F(ReadSymlink, an_empty_target_without_a_buffer_is_no_memory_too) {
  fakes.readlink = [](const char*, char*, size_t) { return ssize_t{0}; };
  MemoryBook memory;
  memory.fail_malloc(1);
  EXPECT_EQ(read_symlink("/some/link", log.logger()), nullptr);
  EXPECT_EQ(log.lines(), (Lines{"insufficient memory: 2"}));
}

TEST_F(ReadSymlink, a_null_logger_stands_for_standard_error) {
  CapturedDescriptor output(STDERR_FILENO);
  MemoryBook memory;  // frees the logger that stays
  EXPECT_EQ(read_symlink("/no/link", nullptr), nullptr);
  EXPECT_EQ(log_lines(output.taken()), (Lines{"cannot readlink"}));
  EXPECT_EQ(memory.sizes_left(), (std::vector<size_t>{sizeof(Logger)})) << "a fresh logger, never freed";
}

TEST_F(ReadSymlink, without_memory_for_that_logger_the_message_comes_all_the_same) {
  CapturedDescriptor output(STDERR_FILENO);
  MemoryBook memory;
  memory.fail_malloc(1);
  EXPECT_EQ(read_symlink("/no/link", nullptr), nullptr);
  const std::string written = output.taken();
  ASSERT_EQ(written.substr(0, 20), "insufficient memory\n");
  EXPECT_EQ(log_lines(written.substr(20)), (Lines{"cannot readlink"}));
}

// ---- daemon_get_pid -----------------------------------------------------------------------------------

TEST_F(DaemonGetPid, a_missing_file_is_told_and_means_0_without_a_wait) {
  EXPECT_EQ(daemon_get_pid(pid_file.c_str(), log.logger()), 0);
  EXPECT_EQ(log.lines(), (Lines{"could not open pid file: " + pid_file + " for reading."}));
  EXPECT_EQ(calls, (Calls{}));
}

TEST_F(DaemonGetPid, an_empty_file_means_0_after_a_wait_of_2_seconds) {
  EXPECT_EQ(pid_from(""), 0);
  EXPECT_EQ(calls, (Calls{"sleep 2"}));
  EXPECT_EQ(log.text(), "");
}

TEST_F(DaemonGetPid, a_file_with_a_word_means_0_after_a_wait_of_2_seconds) {
  EXPECT_EQ(pid_from("corvane"), 0);
  EXPECT_EQ(calls, (Calls{"sleep 2"}));
  EXPECT_EQ(log.text(), "");
}

TEST_F(DaemonGetPid, the_file_is_read_behind_the_wait) {
  const std::string path = directory.file("pid", "");
  fakes.sleep = [&](unsigned) {
    directory.file("pid", std::to_string(getpid()));
    return 0U;
  };
  EXPECT_EQ(daemon_get_pid(path.c_str(), log.logger()), getpid());
}

TEST_F(DaemonGetPid, the_file_is_opened_for_reading) {
  std::vector<std::string> opened;
  fakes.fopen = [&](const char* path, const char* mode) {
    opened.push_back(std::string(path) + " " + mode);
    return __real_fopen(path, mode);
  };
  const std::string path = directory.path("pid");
  daemon_get_pid(path.c_str(), log.logger());
  EXPECT_EQ(opened, (std::vector<std::string>{path + " r"}));
}

TEST_F(DaemonGetPid, a_process_of_the_same_executable_is_the_daemon) {
  EXPECT_EQ(pid_from(std::to_string(getpid())), getpid());
  EXPECT_EQ(calls, (Calls{"sleep 2"}));
  EXPECT_EQ(log.text(), "");
}

TEST_F(DaemonGetPid, a_live_process_of_another_program_means_0) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[0], STDIN_FILENO);
  posix_spawn_file_actions_addclose(&actions, ends[1]);
  char program[] = "cat";
  char* const argv[] = {program, nullptr};
  char* const environment[] = {nullptr};
  pid_t other = 0;
  ASSERT_EQ(posix_spawn(&other, "/bin/cat", &actions, nullptr, argv, environment), 0);
  posix_spawn_file_actions_destroy(&actions);
  close(ends[0]);

  EXPECT_EQ(pid_from(std::to_string(other)), 0);
  EXPECT_EQ(log.text(), "");

  close(ends[1]);  // ends the program
  waitpid(other, nullptr, 0);
}

TEST_F(DaemonGetPid, a_dead_process_counts_as_running) {
  const pid_t dead = fork();
  if (dead == 0) _exit(0);
  waitpid(dead, nullptr, 0);
  EXPECT_EQ(pid_from(std::to_string(dead)), dead);
  EXPECT_EQ(log.lines(), (Lines{"cannot readlink"}));
}

TEST_F(DaemonGetPid, both_links_are_read_the_own_one_first) {
  fake_links("/usr/bin/corvane-cs", "/usr/bin/corvane-cs");
  EXPECT_EQ(pid_from("4711"), 4711);
  EXPECT_EQ(links, (std::vector<std::string>{"/proc/self/exe", "/proc/self/exe", "/proc/4711/exe",
                                             "/proc/4711/exe"}))
      << "each target needs a larger buffer, so each link is read twice";
}

TEST_F(DaemonGetPid, targets_are_compared_to_their_last_byte) {
  fake_links("/bin/a", "/bin/ab");
  EXPECT_EQ(pid_from("4711"), 0);
  fake_links("/bin/ab", "/bin/a");
  EXPECT_EQ(pid_from("4711"), 0);
}

TEST_F(DaemonGetPid, targets_with_a_long_common_beginning_are_told_apart) {
  for (const size_t length : {16U, 64U, 255U, 256U, 1024U, 4000U}) {
    const std::string beginning = "/" + std::string(length - 1, 'd');
    fake_links(beginning + "a", beginning + "b");
    EXPECT_EQ(pid_from("4711"), 0) << length;
    fake_links(beginning + "a", beginning + "a");
    EXPECT_EQ(pid_from("4711"), 4711) << length;
  }
}

TEST_F(DaemonGetPid, an_own_link_that_cannot_be_read_lets_any_process_count) {
  fake_links("", "/bin/other");
  EXPECT_EQ(pid_from("4711"), 4711);
  EXPECT_EQ(log.lines(), (Lines{"cannot readlink"}));
}

TEST_F(DaemonGetPid, a_number_of_six_digits_fits) {
  fake_links("/bin/a", "/bin/a");
  EXPECT_EQ(pid_from("999999"), 999999);
  EXPECT_EQ(links.back(), "/proc/999999/exe");
}

TEST_F(DaemonGetPid, leading_zeros_and_a_plus_are_no_part_of_the_number) {
  fake_links("/bin/a", "/bin/a");
  for (const char* contents : {"0000004711", "+4711"}) {
    EXPECT_EQ(pid_from(contents), 4711) << contents;
    EXPECT_EQ(links.back(), "/proc/4711/exe") << contents;
    links.clear();
  }
}

TEST_F(DaemonGetPidDeathTest, a_number_of_seven_digits_aborts) {
  EXPECT_EXIT(pid_from("1000000"), KilledBySignal(SIGABRT), "^$");
}

TEST_F(DaemonGetPidDeathTest, numbers_beyond_every_integer_abort) {
  for (const char* number : {"2147483648", "4294967297", "18446744073709551617", "-2147483649",
                             "9223372036854775808", "99999999999999999999999999"}) {
    EXPECT_EXIT(pid_from(number), KilledBySignal(SIGABRT), "^$") << number;
  }
}

TEST_F(DaemonGetPid, a_negative_number_of_five_digits_is_a_number) {
  EXPECT_EQ(pid_from("-99999"), -99999);
  EXPECT_EQ(log.lines(), (Lines{"cannot readlink"}));
}

TEST_F(DaemonGetPidDeathTest, a_negative_number_of_six_digits_aborts) {
  EXPECT_EXIT(pid_from("-100000"), KilledBySignal(SIGABRT), "^$");
}

TEST_F(DaemonGetPid, white_space_before_and_anything_behind_the_number_are_not_looked_at) {
  fake_links("/bin/a", "/bin/a");
  EXPECT_EQ(pid_from(" \n 4711 and more\n"), 4711);
  EXPECT_EQ(pid_from("0"), 0);
  EXPECT_EQ(links.back(), "/proc/0/exe");
}

TEST_F(DaemonGetPid, the_file_is_closed_and_the_targets_are_freed) {
  const int before = open_descriptors();
  {
    MemoryBook memory;
    pid_from(std::to_string(getpid()));
    pid_from("word");
    EXPECT_EQ(memory.blocks_left(), 0U);
  }
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(DaemonGetPid, a_null_logger_stands_for_standard_error) {
  CapturedDescriptor output(STDERR_FILENO);
  MemoryBook memory;  // frees the logger that stays
  EXPECT_EQ(daemon_get_pid(pid_file.c_str(), nullptr), 0);
  EXPECT_EQ(log_lines(output.taken()), (Lines{"could not open pid file: " + pid_file + " for reading."}));
}

// ---- daemon_start -------------------------------------------------------------------------------------

TEST_F(DaemonStart, the_steps_come_in_their_order_and_the_pid_is_written) {
  fake_daemonising({0, 0});
  MemoryBook memory;  // frees the "null" logger that stays
  EXPECT_EQ(daemon_start(pid_file.c_str(), log.logger()), 0);
  EXPECT_EQ(calls, (Calls{"fork", "chdir /", "setsid", "umask 0", "fork", "fopen r", "fopen w"}));
  EXPECT_EQ(contents_of(pid_file), std::to_string(getpid()));
  EXPECT_EQ(log.text(), "") << "a missing pid file is not told";
}

TEST_F(DaemonStart, a_fork_that_fails_goes_on_as_the_child) {
  fake_daemonising({-1, -1});
  MemoryBook memory;
  EXPECT_EQ(daemon_start(pid_file.c_str(), log.logger()), 0);
  EXPECT_EQ(calls, (Calls{"fork", "chdir /", "setsid", "umask 0", "fork", "fopen r", "fopen w"}));
  EXPECT_EQ(contents_of(pid_file), std::to_string(getpid()));
}

TEST_F(DaemonStart, steps_that_fail_are_not_looked_at) {
  fake_daemonising({0, 0});
  fakes.chdir = [](const char*) { return -1; };
  fakes.setsid = [] { return -1; };
  MemoryBook memory;
  EXPECT_EQ(daemon_start(pid_file.c_str(), log.logger()), 0);
  EXPECT_EQ(contents_of(pid_file), std::to_string(getpid()));
}

TEST_F(DaemonStartDeathTest, the_first_parent_exits_with_0_at_once) {
  EXPECT_EXIT(
      {
        fake_daemonising({4711});
        print_calls_at_exit(&calls);
        daemon_start(pid_file.c_str(), log.logger());
        _exit(99);
      },
      ExitedWithCode(0), "^fork\n$");
  EXPECT_FALSE(exists(pid_file));
}

TEST_F(DaemonStartDeathTest, the_second_parent_exits_with_0_behind_the_new_session) {
  EXPECT_EXIT(
      {
        fake_daemonising({0, 4711});
        print_calls_at_exit(&calls);
        daemon_start(pid_file.c_str(), log.logger());
        _exit(99);
      },
      ExitedWithCode(0), "^fork\nchdir /\nsetsid\numask 0\nfork\n$");
  EXPECT_FALSE(exists(pid_file));
}

TEST_F(DaemonStartDeathTest, with_a_daemon_running_it_says_so_and_exits_with_1) {
  directory.file("pid", std::to_string(getpid()));
  EXPECT_EXIT(
      {
        fake_daemonising({0, 0});
        print_calls_at_exit(&calls);
        daemon_start(pid_file.c_str(), log_open("stderr"));
        _exit(99);
      },
      ExitedWithCode(1),
      log_pattern({"already running"}).substr(0, log_pattern({"already running"}).size() - 1) +
          "fork\nchdir /\nsetsid\numask 0\nfork\nfopen r\nsleep 2\n$");
  EXPECT_EQ(contents_of(pid_file), std::to_string(getpid()));
}

TEST_F(DaemonStartDeathTest, a_daemon_may_run_as_process_1) {
  directory.file("pid", "1");
  EXPECT_EXIT(
      {
        fake_daemonising({0, 0});
        fake_links("/bin/a", "/bin/a");
        daemon_start(pid_file.c_str(), log_open("stderr"));
        _exit(99);
      },
      ExitedWithCode(1), log_pattern({"already running"}));
}

TEST_F(DaemonStart, a_pid_file_of_another_program_is_written_over) {
  fake_daemonising({0, 0});
  fake_links("/bin/own", "/bin/other");
  directory.file("pid", "999999");
  MemoryBook memory;
  EXPECT_EQ(daemon_start(pid_file.c_str(), log.logger()), 0);
  EXPECT_EQ(contents_of(pid_file), std::to_string(getpid()));
}

TEST_F(DaemonStart, a_negative_number_in_the_pid_file_is_no_daemon) {
  fake_daemonising({0, 0});
  directory.file("pid", "-1");
  MemoryBook memory;
  EXPECT_EQ(daemon_start(pid_file.c_str(), log.logger()), 0);
  EXPECT_EQ(contents_of(pid_file), std::to_string(getpid()));
  EXPECT_EQ(log.text(), "") << "the link that cannot be read is told to the \"null\" logger only";
}

TEST_F(DaemonStartDeathTest, a_pid_file_that_cannot_be_written_is_told_and_exits_with_1) {
  const std::string missing = directory.path("missing/pid");
  EXPECT_EXIT(
      {
        fake_daemonising({0, 0});
        daemon_start(missing.c_str(), log_open("stderr"));
        _exit(99);
      },
      ExitedWithCode(1), log_pattern({"unable to open pid file: " + missing + " for writing"}));
}

TEST_F(DaemonStartDeathTest, a_null_logger_stands_for_standard_error) {
  const std::string missing = directory.path("missing/pid");
  EXPECT_EXIT(
      {
        fake_daemonising({0, 0});
        daemon_start(missing.c_str(), nullptr);
        _exit(99);
      },
      ExitedWithCode(1), log_pattern({"unable to open pid file: " + missing + " for writing"}));
}

TEST_F(DaemonStart, the_result_is_that_of_closing_the_pid_file) {
  fake_daemonising({0, 0});
  MemoryBook memory;
  EXPECT_EQ(daemon_start("/dev/full", log.logger()), EOF);
}

// ---- daemon_stop --------------------------------------------------------------------------------------

TEST_F(DaemonStop, with_signal_15_the_daemon_is_signalled_and_the_file_removed) {
  directory.file("pid", std::to_string(getpid()));
  EXPECT_EQ(daemon_stop(pid_file.c_str(), 15, log.logger()), 0);
  EXPECT_EQ(calls, (Calls{"sleep 2", "kill " + std::to_string(getpid()) + " 15"}));
  EXPECT_FALSE(exists(pid_file));
  EXPECT_EQ(log.text(), "");
}

TEST_F(DaemonStop, the_given_signal_is_sent) {
  directory.file("pid", std::to_string(getpid()));
  daemon_stop(pid_file.c_str(), 1, log.logger());
  EXPECT_EQ(calls, (Calls{"sleep 2", "kill " + std::to_string(getpid()) + " 1"}));
}

TEST_F(DaemonStop, without_a_signal_above_0_the_file_is_only_removed) {
  fakes.fopen = [this](const char* path, const char* mode) {
    calls.push_back(std::string("fopen ") + path);
    return __real_fopen(path, mode);
  };
  for (const int sig : {0, -1, -15}) {
    directory.file("pid", std::to_string(getpid()));
    calls.clear();
    EXPECT_EQ(daemon_stop(pid_file.c_str(), sig, log.logger()), 0) << sig;
    EXPECT_EQ(calls, (Calls{})) << sig;
    EXPECT_FALSE(exists(pid_file)) << sig;
    EXPECT_EQ(daemon_stop(pid_file.c_str(), sig, log.logger()), -1) << sig;
    EXPECT_EQ(errno, ENOENT) << sig;
    EXPECT_EQ(calls, (Calls{})) << sig;
  }
  EXPECT_EQ(log.text(), "");
}

TEST_F(DaemonStop, a_daemon_that_cannot_be_signalled_loses_its_file_all_the_same_and_nothing_is_told) {
  fakes.kill = [this](pid_t, int) {
    calls.push_back("kill");
    errno = EPERM;
    return -1;
  };
  directory.file("pid", std::to_string(getpid()));
  EXPECT_EQ(daemon_stop(pid_file.c_str(), 15, log.logger()), 0) << "the result of unlink";
  EXPECT_EQ(calls, (Calls{"sleep 2", "kill"}));
  EXPECT_FALSE(exists(pid_file));
  EXPECT_EQ(log.text(), "");
}

TEST_F(DaemonStop, without_a_file_it_is_told_and_the_result_is_that_of_unlink) {
  EXPECT_EQ(daemon_stop(pid_file.c_str(), 15, log.logger()), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(calls, (Calls{}));
  EXPECT_EQ(log.lines(), (Lines{"could not open pid file: " + pid_file + " for reading."}));
}

TEST_F(DaemonStop, a_process_of_another_program_is_not_signalled_but_the_file_removed) {
  fake_links("/bin/own", "/bin/other");
  directory.file("pid", "4711");
  EXPECT_EQ(daemon_stop(pid_file.c_str(), 15, log.logger()), 0);
  EXPECT_EQ(calls, (Calls{"sleep 2"}));
  EXPECT_FALSE(exists(pid_file));
}

TEST_F(DaemonStop, pids_of_0_and_below_are_not_signalled) {
  fake_links("/bin/a", "/bin/a");
  for (const char* number : {"0", "-1", "-4711"}) {
    directory.file("pid", number);
    EXPECT_EQ(daemon_stop(pid_file.c_str(), 15, log.logger()), 0);
  }
  EXPECT_EQ(calls, (Calls{"sleep 2", "sleep 2", "sleep 2"}));
}

TEST_F(DaemonStop, a_pid_of_1_is_signalled) {
  fake_links("/bin/a", "/bin/a");
  directory.file("pid", "1");
  daemon_stop(pid_file.c_str(), 15, log.logger());
  EXPECT_EQ(calls, (Calls{"sleep 2", "kill 1 15"}));
}

TEST_F(DaemonStop, a_null_logger_stands_for_standard_error) {
  CapturedDescriptor output(STDERR_FILENO);
  MemoryBook memory;
  daemon_stop(pid_file.c_str(), 1, nullptr);
  EXPECT_EQ(log_lines(output.taken()), (Lines{"could not open pid file: " + pid_file + " for reading."}));
}

// ---- log_backtrace ------------------------------------------------------------------------------------

TEST_F(LogBacktrace, the_stack_is_written_one_named_frame_a_line_without_the_time) {
  const TemporaryDirectory directory;
  const std::string path = directory.path("log");
  Logger logger = {.level = 5, .name = "log", .fp = fopen(path.c_str(), "w"), .write = log_write};
  frame_of_the_test(&logger, 2);
  fclose(logger.fp);
  const std::string written = contents_of(path);
  EXPECT_EQ(count_of("frame_of_the_test", written), 3U) << written;
  EXPECT_EQ(count_of("(main+", written), 1U) << written;
  EXPECT_EQ(log_lines(written).front().substr(0, 10), "(no time) ");
}

TEST_F(LogBacktrace, a_deep_stack_is_written_to_its_255th_frame) {
  const TemporaryDirectory directory;
  const std::string path = directory.path("log");
  Logger logger = {.level = 5, .name = "log", .fp = fopen(path.c_str(), "w"), .write = log_write};
  frame_of_the_test(&logger, 400);
  fclose(logger.fp);
  EXPECT_EQ(count_of("\n", contents_of(path)), 255U);
}

TEST_F(LogBacktrace, a_silent_logger_stays_silent) {
  CapturedDescriptor output(STDERR_FILENO);
  Logger silent = {.level = 5, .name = "silent", .fp = nullptr, .write = log_write};
  log_backtrace(&silent);
  EXPECT_EQ(output.taken(), "");
}

TEST_F(LogBacktrace, a_null_logger_stands_for_standard_error) {
  CapturedDescriptor output(STDERR_FILENO);
  MemoryBook memory;
  frame_of_the_test(nullptr, 0);
  EXPECT_EQ(count_of("frame_of_the_test", output.taken()), 1U);
}
