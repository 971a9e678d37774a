// SPDX-License-Identifier: MIT
// options_test.cpp: each option, the order of options, and usage errors.
//
// The fakes print their calls to standard error, among the product's own output, so that a death test sees
// both in order. The pid file is in a temporary directory.
#include "cs/options.h"

#include <unistd.h>

#include <cstring>

#include "common/verbose.h"
#include "tests/unit/capture.h"
#include "tests/unit/fakes.h"

using testing::ExitedWithCode;

namespace {

constexpr const char* usage =
    "\n"
    "corvane-cs: Corvane Control Server\n"
    "\n"
    "Available options:\n"
    "\t--start\tstart corvane-cs in daemon mode\n"
    "\t--stop\tstop corvane-cs daemon\n"
    "\t--pid\treturn pid of corvane-cs daemon\n"
    "\t--enable\tenable the corvane-cs daemon\n"
    "\t--disable\tdisable the corvane-cs daemon\n"
    "\t--purge\tpurge the files assicated with the corvane-cs daemon\n"
    "\t--verbose\tprint a lot of debugging info\n"
    "\n";

constexpr const char* time_prefix = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}:";

class Options : public FakedTest {
 protected:
  Options() {
    verbose = 0;
    fakes.fork = [] {
      fputs("fork\n", stderr);
      return 0;
    };
    fakes.chdir = [](const char*) { return 0; };
    fakes.setsid = [] { return 1; };
    fakes.umask = [](mode_t) { return mode_t{0}; };
    fakes.sleep = [](unsigned) { return 0U; };
    fakes.kill = [](pid_t pid, int sig) {
      fprintf(stderr, "kill %s %d\n", pid == getpid() ? "itself" : "another", sig);
      return 0;
    };
    fakes.fopen = [this](const char* path, const char* mode) {
      return __real_fopen(strcmp(path, "/var/run/corvane/corvane-cs.pid") == 0 ? pid_file.c_str() : path,
                          mode);
    };
    fakes.unlink = [](const char* path) {
      fprintf(stderr, "unlink %s\n", path);
      return 0;
    };
  }
  ~Options() override { verbose = 0; }

  /** Parses `arguments` after the program's name. Arguments that end the process need a death test. */
  static void parse(std::vector<std::string> arguments) {
    std::string program = "corvane-cs";
    std::vector<char*> argv = {program.data()};
    for (std::string& argument : arguments) argv.push_back(argument.data());
    const int argc = static_cast<int>(argv.size());
    argv.push_back(nullptr);
    ccs_parse_options(argc, argv.data());
  }

  /** What the parser, which must return, writes to standard error. */
  static std::string error_output_of(const std::vector<std::string>& arguments) {
    CapturedDescriptor output(STDERR_FILENO);
    parse(arguments);
    return output.taken();
  }

  /** The body of a death test: parses, and prints the verbose flag at exit. Exits with 99 if parsing returns.
   */
  [[noreturn]] static void parse_to_the_end(const std::vector<std::string>& arguments) {
    fakes.fork = [] {
      fputs("fork\n", stderr);
      return 0;
    };
    atexit([] { fprintf(stderr, "verbose %d\n", verbose); });
    parse(arguments);
    _exit(99);
  }

  TemporaryDirectory directory;
  std::string pid_file = directory.path("pid");
};

// GoogleTest forks for a death test, so fork is faked in its child only.
class OptionsDeathTest : public Options {
 protected:
  OptionsDeathTest() { fakes.fork = nullptr; }
};

}  // namespace

TEST_F(Options, the_usage_text_has_351_bytes_on_standard_error) {
  CapturedDescriptor output(STDERR_FILENO);
  CapturedDescriptor nothing(STDOUT_FILENO);
  ccs_print_usage();
  const std::string written = output.taken();
  EXPECT_EQ(written, usage);
  EXPECT_EQ(written.size(), 351U);
  EXPECT_EQ(nothing.taken(), "");
}

TEST_F(Options, no_argument_and_no_program_name_do_nothing) {
  EXPECT_EQ(error_output_of({}), "");
  char* const argv[] = {nullptr};
  ccs_parse_options(0, argv);
  EXPECT_EQ(verbose, 0);
}

TEST_F(Options, verbose_and_v_set_the_flag_to_1) {
  for (const char* option : {"--verbose", "-v"}) {
    verbose = 0;
    EXPECT_EQ(error_output_of({option}), "") << option;
    EXPECT_EQ(verbose, 1) << option;
  }
}

TEST_F(Options, enable_disable_and_purge_do_nothing) {
  for (const char* option : {"--enable", "--disable", "--purge"}) {
    EXPECT_EQ(error_output_of({option}), "") << option;
    EXPECT_EQ(verbose, 0) << option;
    EXPECT_FALSE(exists(pid_file)) << option;
  }
}

TEST_F(Options, start_daemonises_writes_the_pid_file_and_continues_parsing) {
  MemoryBook memory;
  EXPECT_EQ(error_output_of({"--start", "--verbose"}), "fork\nfork\n");
  EXPECT_EQ(contents_of(pid_file), std::to_string(getpid()));
  EXPECT_EQ(verbose, 1);
}

TEST_F(OptionsDeathTest, start_reports_a_running_daemon_on_standard_error) {
  directory.file("pid", std::to_string(getpid()));
  EXPECT_EXIT(parse_to_the_end({"--start", "-v"}), ExitedWithCode(1),
              std::string("^fork\nfork\n") + time_prefix + "already running\nverbose 0\n$");
}

TEST_F(OptionsDeathTest, pid_prints_the_pid_to_standard_output_and_exits_with_0) {
  directory.file("pid", std::to_string(getpid()));
  CapturedDescriptor output(STDOUT_FILENO);
  EXPECT_EXIT(parse_to_the_end({"--pid"}), ExitedWithCode(0), "^verbose 0\n$");
  directory.file("pid", "-5");
  EXPECT_EXIT(parse_to_the_end({"--pid"}), ExitedWithCode(0), "cannot readlink\nverbose 0\n$");
  EXPECT_EQ(output.taken(), std::to_string(getpid()) + "\n-5\n");
}

TEST_F(OptionsDeathTest, pid_without_a_pid_file_prints_0_and_reports_it_on_standard_error) {
  CapturedDescriptor output(STDOUT_FILENO);
  EXPECT_EXIT(parse_to_the_end({"--pid"}), ExitedWithCode(0),
              std::string("^") + time_prefix +
                  "could not open pid file: /var/run/corvane/corvane-cs\\.pid for reading\\.\nverbose 0\n$");
  EXPECT_EQ(output.taken(), "0\n");
}

TEST_F(OptionsDeathTest, pid_acts_after_the_options_before_it_and_ignores_those_after_it) {
  directory.file("pid", "garbage");
  CapturedDescriptor output(STDOUT_FILENO);
  EXPECT_EXIT(parse_to_the_end({"--pid", "--bogus", "-v", "word"}), ExitedWithCode(0), "^verbose 0\n$");
  EXPECT_EXIT(parse_to_the_end({"-v", "--purge", "--pid"}), ExitedWithCode(0), "^verbose 1\n$");
  EXPECT_EQ(output.taken(), "0\n0\n");
}

TEST_F(OptionsDeathTest, stop_sends_sigterm_removes_the_pid_file_and_exits_with_0) {
  directory.file("pid", std::to_string(getpid()));
  EXPECT_EXIT(parse_to_the_end({"--stop", "--bogus"}), ExitedWithCode(0),
              "^kill another 15\nunlink /var/run/corvane/corvane-cs\\.pid\nverbose 0\n$");
}

TEST_F(OptionsDeathTest, stop_without_a_pid_file_reports_it_and_exits_with_0) {
  EXPECT_EXIT(parse_to_the_end({"--stop"}), ExitedWithCode(0),
              std::string("^") + time_prefix +
                  "could not open pid file: /var/run/corvane/corvane-cs\\.pid for reading\\.\n"
                  "unlink /var/run/corvane/corvane-cs\\.pid\nverbose 0\n$");
}

TEST_F(OptionsDeathTest, stop_after_start_stops_the_daemon_just_started) {
  EXPECT_EXIT(parse_to_the_end({"--start", "--stop"}), ExitedWithCode(0),
              "^fork\nfork\nkill itself 15\nunlink /var/run/corvane/corvane-cs\\.pid\nverbose 0\n$");
}

TEST_F(OptionsDeathTest, an_argument_without_a_dash_gets_only_the_usage_text) {
  for (const char* argument : {"start", "v", "+v", " --start", ""}) {
    EXPECT_EXIT(parse_to_the_end({argument}), ExitedWithCode(1),
                text_pattern(usage + std::string("verbose 0\n")))
        << argument;
  }
  EXPECT_EXIT(parse_to_the_end({"--verbose", "start"}), ExitedWithCode(1),
              text_pattern(usage + std::string("verbose 1\n")));
}

TEST_F(OptionsDeathTest, an_unknown_option_is_named_before_the_usage_text) {
  CapturedDescriptor output(STDOUT_FILENO);
  for (const std::string& argument :
       std::vector<std::string>{"--bogus", "-vv", "--verbose=1", "-", "--", "--Verbose", "-V", "--star",
                                "--starts", "--pid ", "---v", "-disable", "--" + std::string(5000, 'o')}) {
    EXPECT_EXIT(
        parse_to_the_end({argument}), ExitedWithCode(1),
        text_pattern("corvane-cs: unknown command line option: " + argument + "\n" + usage + "verbose 0\n"))
        << argument;
  }
  EXPECT_EQ(output.taken(), "");
}

TEST_F(OptionsDeathTest, parsing_ends_at_an_unknown_option) {
  EXPECT_EXIT(parse_to_the_end({"-v", "--bogus", "--pid"}), ExitedWithCode(1),
              text_pattern("corvane-cs: unknown command line option: --bogus\n" + std::string(usage) +
                           "verbose 1\n"));
}
