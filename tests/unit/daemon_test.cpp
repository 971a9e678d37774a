// SPDX-License-Identifier: MIT
// daemon_test.cpp: symbolic links, the pid file, daemonising, stopping, and the backtrace.
#include "common/daemon.h"

#include <dirent.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tests/unit/capture.h"
#include "tests/unit/fakes.h"

using testing::ExitedWithCode;
using testing::KilledBySignal;
using Calls = std::vector<std::string>;

// Calls log_backtrace from `depth` + 1 frames of itself. Not static, so that the backtrace can name it.
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

  /** What daemon_get_pid returns for a pid file with these `contents`. */
  int pid_from(const std::string& contents) {
    return daemon_get_pid(directory.file("pid", contents).c_str(), log.logger());
  }

  /** Fakes the executable links of the test (`own`) and of every other process; "" cannot be read. */
  void fake_links(const std::string& own, const std::string& other) {
    fakes.readlink = [this, own, other](const char* path, char* buffer, size_t size) -> ssize_t {
      links.push_back(path);
      const std::string& target = strcmp(path, "/proc/self/exe") == 0 ? own : other;
      if (target.empty()) return -1;
      return static_cast<ssize_t>(target.copy(buffer, size));
    };
  }

  /** Fakes the calls of daemon_start and records them. `forks` are their results; a later fork returns 0. */
  void fake_daemonising(std::vector<pid_t> forks) {
    fakes.fork = [this, forks, next = size_t{0}]() mutable {
      calls.push_back("fork");
      return next < forks.size() ? forks[next++] : 0;
    };
    const int result = forks.front() < 0 ? -1 : 0;
    fakes.chdir = [this, result](const char* path) {
      calls.push_back(std::string("chdir ") + path);
      return result;
    };
    fakes.setsid = [this, result] {
      calls.push_back("setsid");
      return result;
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

  /** The body of a death test: calls daemon_start, which must exit, and then prints the calls it made. */
  [[noreturn]] void start_and_exit(const std::vector<pid_t>& forks, const std::string& path, Logger* logger) {
    fake_daemonising(forks);
    static const Calls* made;
    made = &calls;
    atexit([] {
      for (const std::string& call : *made) fprintf(stderr, "%s\n", call.c_str());
    });
    daemon_start(path.c_str(), logger);
    _exit(99);
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

int open_descriptors() {
  int count = 0;
  DIR* directory = opendir("/proc/self/fd");
  while (readdir(directory)) ++count;
  closedir(directory);
  return count;
}

class LogBacktrace : public FakedTest {
 protected:
  /** What log_backtrace writes to a file from `depth` + 1 frames of the test. */
  static std::string backtrace_from(int depth) {
    const TemporaryDirectory directory;
    const std::string path = directory.path("log");
    Logger logger = {.level = 5, .name = "log", .fp = fopen(path.c_str(), "w"), .write = log_write};
    frame_of_the_test(&logger, depth);
    fclose(logger.fp);
    return contents_of(path);
  }
};

size_t count_of(const std::string& part, const std::string& text) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

}  // namespace

// Volatile, so that the compiler neither clones the function for a depth nor turns its last call into a jump.
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

TEST_F(ReadSymlink, the_buffer_starts_at_16_bytes_and_doubles_until_the_target_and_its_zero_fit) {
  const struct {
    size_t length;
    std::vector<size_t> sizes;
  } cases[] = {{0, {16}},
               {15, {16}},
               {16, {16, 32}},
               {17, {16, 32}},
               {31, {16, 32}},
               {32, {16, 32, 64}},
               {200, {16, 32, 64, 128, 256}}};
  for (const auto& [length, sizes] : cases) {
    const std::string target(length, 't');
    std::vector<size_t> sizes_read;
    fakes.readlink = [&](const char* path, char* buffer, size_t size) {
      EXPECT_STREQ(path, "/some/link");
      sizes_read.push_back(size);
      return static_cast<ssize_t>(target.copy(buffer, size));
    };
    MemoryBook memory;
    EXPECT_EQ(read_symlink("/some/link", log.logger()).get(), target);
    EXPECT_EQ(sizes_read, sizes) << "for a target of " << length;
    EXPECT_EQ(memory.sizes_taken(), sizes) << "for a target of " << length;
    EXPECT_EQ(memory.blocks_left(), 0U) << "the smaller buffers are freed, and the last one with its owner";
  }
  EXPECT_EQ(log.text(), "");
}

TEST_F(ReadSymlink, each_buffer_is_freed_before_the_next_is_allocated) {
  MemoryBook memory;
  const auto take = fakes.malloc;
  fakes.malloc = [&](size_t size) {
    EXPECT_EQ(memory.blocks_left(), 0U) << "when " << size << " bytes are allocated";
    return take(size);
  };
  EXPECT_EQ(read(std::string(40, 't')), std::string(40, 't'));
}

TEST_F(ReadSymlink, a_path_that_is_not_a_link_is_logged_and_gives_null) {
  const std::string path = directory.file("file", "");
  MemoryBook memory;
  EXPECT_EQ(read_symlink(path.c_str(), log.logger()), nullptr);
  EXPECT_EQ(log.lines(), (Lines{"cannot readlink"}));
  EXPECT_EQ(memory.blocks_left(), 0U);
}

TEST_F(ReadSymlink, a_missing_buffer_that_must_grow_is_reported_on_standard_error) {
  fakes.readlink = [](const char*, char*, size_t size) { return static_cast<ssize_t>(size); };
  CapturedDescriptor output(STDERR_FILENO);
  MemoryBook memory;
  memory.fail_malloc(1);
  EXPECT_EQ(read_symlink("/some/link", log.logger()), nullptr);
  EXPECT_EQ(output.taken(), "insufficient memory: 1\n");
  EXPECT_EQ(log.text(), "");
  EXPECT_EQ(memory.sizes_taken(), (std::vector<size_t>{16})) << "no second attempt";
}

TEST_F(ReadSymlink, a_missing_first_or_later_buffer_is_logged) {
  for (const int nth : {1, 2}) {
    log.forget();
    CapturedDescriptor output(STDERR_FILENO);
    MemoryBook memory;
    memory.fail_malloc(nth);
    EXPECT_EQ(read("/target/of/20/bytes/"), "(null)");
    EXPECT_EQ(output.taken(), "");
    EXPECT_EQ(log.lines(), (Lines{"insufficient memory: 2"}));
    EXPECT_EQ(memory.blocks_left(), 0U);
  }
}

TEST_F(ReadSymlink, a_missing_buffer_is_logged_even_for_an_empty_target) {
  fakes.readlink = [](const char*, char*, size_t) { return ssize_t{0}; };
  MemoryBook memory;
  memory.fail_malloc(1);
  EXPECT_EQ(read_symlink("/some/link", log.logger()), nullptr);
  EXPECT_EQ(log.lines(), (Lines{"insufficient memory: 2"}));
}

TEST_F(ReadSymlink, a_null_logger_means_standard_error) {
  CapturedDescriptor output(STDERR_FILENO);
  MemoryBook memory;  // frees the logger, which the product keeps
  EXPECT_EQ(read_symlink("/no/link", nullptr), nullptr);
  EXPECT_EQ(log_lines(output.taken()), (Lines{"cannot readlink"}));
  EXPECT_EQ(memory.sizes_left(), (std::vector<size_t>{sizeof(Logger)})) << "a fresh logger, never freed";
}

TEST_F(ReadSymlink, the_message_is_written_even_without_memory_for_that_logger) {
  CapturedDescriptor output(STDERR_FILENO);
  MemoryBook memory;
  memory.fail_malloc(1);
  EXPECT_EQ(read_symlink("/no/link", nullptr), nullptr);
  const std::string written = output.taken();
  ASSERT_EQ(written.substr(0, 20), "insufficient memory\n");
  EXPECT_EQ(log_lines(written.substr(20)), (Lines{"cannot readlink"}));
}

// ---- daemon_get_pid -----------------------------------------------------------------------------------

TEST_F(DaemonGetPid, a_missing_file_is_logged_and_means_0_without_a_wait) {
  EXPECT_EQ(daemon_get_pid(pid_file.c_str(), log.logger()), 0);
  EXPECT_EQ(log.lines(), (Lines{"could not open pid file: " + pid_file + " for reading."}));
  EXPECT_EQ(calls, (Calls{}));
}

TEST_F(DaemonGetPid, a_file_that_does_not_begin_with_a_number_means_0_after_a_wait_of_2_seconds) {
  for (const std::string contents : {"", " \n", "corvane", "pid 4711", "-", "+", "- 1", "+-1", "\xff\xfe"}) {
    calls.clear();
    EXPECT_EQ(pid_from(contents), 0) << contents;
    EXPECT_EQ(calls, (Calls{"sleep 2"})) << contents;
  }
  EXPECT_EQ(pid_from(std::string(4096, '\0') + "4711"), 0);
  EXPECT_EQ(log.text(), "");
}

TEST_F(DaemonGetPid, the_file_is_read_after_the_wait) {
  const std::string path = directory.file("pid", "");
  fakes.sleep = [&](unsigned) {
    directory.file("pid", std::to_string(getpid()));
    return 0U;
  };
  EXPECT_EQ(daemon_get_pid(path.c_str(), log.logger()), getpid());
}

TEST_F(DaemonGetPid, a_process_of_the_same_executable_is_the_daemon) {
  EXPECT_EQ(pid_from(std::to_string(getpid())), getpid());
  EXPECT_EQ(calls, (Calls{"sleep 2"}));
  EXPECT_EQ(log.text(), "");
}

TEST_F(DaemonGetPid, the_own_link_is_read_first_and_then_that_of_the_pid) {
  fake_links("/usr/bin/corvane-cs", "/usr/bin/corvane-cs");
  EXPECT_EQ(pid_from("4711"), 4711);
  EXPECT_EQ(links, (std::vector<std::string>{"/proc/self/exe", "/proc/self/exe", "/proc/4711/exe",
                                             "/proc/4711/exe"}))
      << "each link twice, because its target needs a larger buffer";
}

TEST_F(DaemonGetPid, the_targets_are_compared_as_whole_texts) {
  for (const size_t length : {1U, 16U, 64U, 255U, 256U, 1024U, 4000U}) {
    const std::string common = "/" + std::string(length - 1, 'd');
    const struct {
      std::string own, other;
      int pid;
    } cases[] = {{common + "a", common + "a", 4711},
                 {common + "a", common + "b", 0},
                 {common, common + "b", 0},
                 {common + "a", common, 0}};
    for (const auto& [own, other, pid] : cases) {
      fake_links(own, other);
      EXPECT_EQ(pid_from("4711"), pid) << length << " common bytes";
    }
  }
}

TEST_F(DaemonGetPid, a_process_counts_as_running_if_either_link_cannot_be_read) {
  fake_links("", "/bin/other");
  EXPECT_EQ(pid_from("4711"), 4711);
  fake_links("/bin/own", "");
  EXPECT_EQ(pid_from("4711"), 4711) << "the process is gone";
  EXPECT_EQ(log.lines(), (Lines{"cannot readlink", "cannot readlink"}));
}

TEST_F(DaemonGetPid, a_number_of_up_to_six_characters_is_the_pid) {
  fake_links("/bin/a", "/bin/a");
  const struct {
    const char* contents;
    int pid;
    const char* link;
  } cases[] = {{"0", 0, "/proc/0/exe"},
               {"999999", 999999, "/proc/999999/exe"},
               {"-99999", -99999, "/proc/-99999/exe"},
               {"0000004711", 4711, "/proc/4711/exe"},
               {"+4711", 4711, "/proc/4711/exe"},
               {" \n 4711 and more\n", 4711, "/proc/4711/exe"}};
  for (const auto& [contents, pid, link] : cases) {
    EXPECT_EQ(pid_from(contents), pid) << contents;
    EXPECT_EQ(links.back(), link) << contents;
  }
}

TEST_F(DaemonGetPidDeathTest, a_longer_number_aborts_even_out_of_every_integers_range) {
  for (const char* number : {"1000000", "-100000", "2147483648", "4294967297", "18446744073709551617",
                             "-2147483649", "9223372036854775808", "99999999999999999999999999"}) {
    EXPECT_EXIT(pid_from(number), KilledBySignal(SIGABRT), "^$") << number;
  }
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

TEST_F(DaemonGetPid, a_null_logger_means_standard_error) {
  CapturedDescriptor output(STDERR_FILENO);
  MemoryBook memory;  // frees the logger, which the product keeps
  EXPECT_EQ(daemon_get_pid(pid_file.c_str(), nullptr), 0);
  EXPECT_EQ(log_lines(output.taken()), (Lines{"could not open pid file: " + pid_file + " for reading."}));
}

// ---- daemon_start -------------------------------------------------------------------------------------

TEST_F(DaemonStart, the_steps_run_in_order_and_the_pid_is_written_even_if_every_step_fails) {
  for (const pid_t result : {0, -1}) {
    unlink(pid_file.c_str());
    calls.clear();
    fake_daemonising({result, result});
    MemoryBook memory;  // frees the "null" logger, which the product keeps
    EXPECT_EQ(daemon_start(pid_file.c_str(), log.logger()), 0);
    EXPECT_EQ(calls, (Calls{"fork", "chdir /", "setsid", "umask 0", "fork", "fopen r", "fopen w"}));
    EXPECT_EQ(contents_of(pid_file), std::to_string(getpid()));
  }
  EXPECT_EQ(log.text(), "") << "a missing pid file is not logged";
}

TEST_F(DaemonStartDeathTest, the_first_parent_exits_with_0_at_once) {
  EXPECT_EXIT(start_and_exit({4711}, pid_file, log.logger()), ExitedWithCode(0), "^fork\n$");
  EXPECT_FALSE(exists(pid_file));
}

TEST_F(DaemonStartDeathTest, the_second_parent_exits_with_0_after_the_session_is_created) {
  EXPECT_EXIT(start_and_exit({0, 4711}, pid_file, log.logger()), ExitedWithCode(0),
              "^fork\nchdir /\nsetsid\numask 0\nfork\n$");
  EXPECT_FALSE(exists(pid_file));
}

TEST_F(DaemonStartDeathTest, a_running_daemon_is_reported_and_the_new_process_exits_with_1) {
  directory.file("pid", std::to_string(getpid()));
  const std::string line = log_pattern({"already running"});
  EXPECT_EXIT(start_and_exit({0, 0}, pid_file, log_open("stderr")), ExitedWithCode(1),
              line.substr(0, line.size() - 1) + "fork\nchdir /\nsetsid\numask 0\nfork\nfopen r\nsleep 2\n$");
  EXPECT_EQ(contents_of(pid_file), std::to_string(getpid()));
}

TEST_F(DaemonStartDeathTest, a_daemon_may_run_as_pid_1) {
  directory.file("pid", "1");
  fake_links("/bin/a", "/bin/a");
  EXPECT_EXIT(start_and_exit({0, 0}, pid_file, log_open("stderr")), ExitedWithCode(1), "already running");
}

TEST_F(DaemonStart, a_pid_file_of_another_program_is_overwritten) {
  fake_daemonising({0, 0});
  fake_links("/bin/own", "/bin/other");
  directory.file("pid", "999999");
  MemoryBook memory;
  EXPECT_EQ(daemon_start(pid_file.c_str(), log.logger()), 0);
  EXPECT_EQ(contents_of(pid_file), std::to_string(getpid()));
}

TEST_F(DaemonStart, a_negative_number_in_the_pid_file_is_not_a_daemon) {
  fake_daemonising({0, 0});
  directory.file("pid", "-1");
  MemoryBook memory;
  EXPECT_EQ(daemon_start(pid_file.c_str(), log.logger()), 0);
  EXPECT_EQ(contents_of(pid_file), std::to_string(getpid()));
  EXPECT_EQ(log.text(), "") << "the unreadable link is logged to the \"null\" logger only";
}

TEST_F(DaemonStartDeathTest, an_unwritable_pid_file_is_reported_and_the_process_exits_with_1) {
  const std::string missing = directory.path("missing/pid");
  for (Logger* logger : {log_open("stderr"), static_cast<Logger*>(nullptr)}) {  // null means the same
    EXPECT_EXIT(start_and_exit({0, 0}, missing, logger), ExitedWithCode(1),
                "^[0-9: -]*unable to open pid file: " + missing + " for writing\nfork\n");
    free(logger);
  }
}

TEST_F(DaemonStart, the_result_of_closing_the_pid_file_is_returned) {
  fake_daemonising({0, 0});
  MemoryBook memory;
  EXPECT_EQ(daemon_start("/dev/full", log.logger()), EOF);
}

// ---- daemon_stop --------------------------------------------------------------------------------------

TEST_F(DaemonStop, the_given_signal_is_sent_and_the_file_is_removed) {
  for (const int sig : {15, 1}) {
    calls.clear();
    directory.file("pid", std::to_string(getpid()));
    EXPECT_EQ(daemon_stop(pid_file.c_str(), sig, log.logger()), 0);
    EXPECT_EQ(calls, (Calls{"sleep 2", "kill " + std::to_string(getpid()) + " " + std::to_string(sig)}));
    EXPECT_FALSE(exists(pid_file));
  }
  EXPECT_EQ(log.text(), "");
}

TEST_F(DaemonStop, a_null_logger_means_standard_error) {
  CapturedDescriptor output(STDERR_FILENO);
  MemoryBook memory;  // frees the logger, which the product keeps
  EXPECT_EQ(daemon_stop(pid_file.c_str(), 1, nullptr), -1);
  EXPECT_EQ(log_lines(output.taken()), (Lines{"could not open pid file: " + pid_file + " for reading."}));
}

TEST_F(DaemonStop, with_a_signal_of_0_or_below_the_file_is_only_removed) {
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

TEST_F(DaemonStop, the_file_of_a_daemon_that_cannot_be_signalled_is_removed_without_a_message) {
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

TEST_F(DaemonStop, a_missing_file_is_logged_and_the_result_of_unlink_is_returned) {
  EXPECT_EQ(daemon_stop(pid_file.c_str(), 15, log.logger()), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(calls, (Calls{}));
  EXPECT_EQ(log.lines(), (Lines{"could not open pid file: " + pid_file + " for reading."}));
}

TEST_F(DaemonStop, a_process_of_another_program_is_not_signalled_but_the_file_is_removed) {
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

// ---- log_backtrace ------------------------------------------------------------------------------------

TEST_F(LogBacktrace, each_frame_is_a_line_with_its_function_and_without_the_time) {
  const std::string written = backtrace_from(2);
  EXPECT_EQ(count_of("frame_of_the_test", written), 3U) << written;
  EXPECT_EQ(count_of("(main+", written), 1U) << written;
  EXPECT_EQ(log_lines(written).front().substr(0, 10), "(no time) ");
}

TEST_F(LogBacktrace, at_most_255_frames_are_written) {
  EXPECT_EQ(count_of("\n", backtrace_from(400)), 255U);
}

TEST_F(LogBacktrace, a_silent_logger_gets_no_backtrace) {
  CapturedDescriptor output(STDERR_FILENO);
  Logger silent = {.level = 5, .name = "silent", .fp = nullptr, .write = log_write};
  log_backtrace(&silent);
  EXPECT_EQ(output.taken(), "");
}

TEST_F(LogBacktrace, a_null_logger_means_standard_error) {
  CapturedDescriptor output(STDERR_FILENO);
  MemoryBook memory;
  frame_of_the_test(nullptr, 0);
  EXPECT_EQ(count_of("frame_of_the_test", output.taken()), 1U);
}
