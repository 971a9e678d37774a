// SPDX-License-Identifier: MIT
// options.cpp: the option parser; each line of an input is an argument.
//
// The operations on the daemon, and the loggers they get, are defined here in the place of the support
// library's, and book that they were called.
#include "cs/options.h"

#include <cstdio>
#include <cstring>

#include "common/daemon.h"
#include "common/verbose.h"
#include "tests/fuzz/harness.h"
#include "tests/fuzz/texts.h"

namespace {

struct Transcript {
  std::string acts;  // in their order, each with what the verbose flag was
  std::string out, err;
  std::string ending = "return";
  int verbose = 0;
};

constexpr const char* usage =
    "\ncorvane-cs: Corvane Control Server\n\nAvailable options:\n"
    "\t--start\tstart corvane-cs in daemon mode\n"
    "\t--stop\tstop corvane-cs daemon\n"
    "\t--pid\treturn pid of corvane-cs daemon\n"
    "\t--enable\tenable the corvane-cs daemon\n"
    "\t--disable\tdisable the corvane-cs daemon\n"
    "\t--purge\tpurge the files assicated with the corvane-cs daemon\n"
    "\t--verbose\tprint a lot of debugging info\n\n";

std::string acts;

void book(const std::string& act, const char* pidfile, const Logger* logger) {
  acts += act + " " + pidfile + " " + logger->name + " " + std::to_string(verbose) + "\n";
}

// The standard streams of the product, in memory for as long as this lives. The fuzzer keeps the real one.
class CapturedStream {
 public:
  explicit CapturedStream(FILE*& stream)
      : stream_(stream), real_(stream), memory_(open_memstream(&text_, &size_)) {
    stream_ = memory_;
  }
  ~CapturedStream() {
    stream_ = real_;
    fclose(memory_);
    free(text_);
  }
  CapturedStream(const CapturedStream&) = delete;
  CapturedStream& operator=(const CapturedStream&) = delete;

  std::string text() const {
    fflush(memory_);
    return {text_, size_};
  }

 private:
  FILE*& stream_;
  FILE* real_;
  char* text_ = nullptr;
  size_t size_ = 0;
  FILE* memory_;
};

Transcript transcript_of(const std::vector<std::string>& arguments) {
  const std::string call = " /var/run/corvane/corvane-cs.pid stderr ";
  Transcript expected;
  for (const std::string& argument : arguments) {
    const std::string flag = std::to_string(expected.verbose);
    if (argument == "--verbose" || argument == "-v") {
      expected.verbose = 1;
    } else if (argument == "--start") {
      expected.acts += "start" + call + flag + "\n";
    } else if (argument == "--pid") {
      expected.acts += "pid" + call + flag + "\n";
      expected.out = "4711\n";
      expected.ending = "exit 0";
      break;
    } else if (argument == "--stop") {
      expected.acts += "stop 15" + call + flag + "\n";
      expected.ending = "exit 0";
      break;
    } else if (argument != "--enable" && argument != "--disable" && argument != "--purge") {
      if (argument.starts_with("-")) {
        expected.err = "corvane-cs: unknown command line option: " + argument + "\n";
      }
      expected.err += usage;
      expected.ending = "exit 1";
      break;
    }
  }
  return expected;
}

}  // namespace

Logger* log_open(const char* name) {
  static Logger logger;
  logger = {.level = LOG_LEVEL_DEBUG, .name = name, .fp = nullptr, .write = nullptr};
  return &logger;
}

int daemon_start(const char* pidfile, Logger* logger) {
  book("start", pidfile, logger);
  return 0;
}

int daemon_get_pid(const char* pidfile, Logger* logger) {
  book("pid", pidfile, logger);
  return 4711;
}

int daemon_stop(const char* pidfile, int sig, Logger* logger) {
  book("stop " + std::to_string(sig), pidfile, logger);
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<std::string> arguments = lines_of({reinterpret_cast<const char*>(data), size});
  std::vector<TextOwner> texts;
  std::vector<char*> argv;
  texts.push_back(exact_text("corvane-cs"));
  for (const std::string& argument : arguments) texts.push_back(exact_text(argument));
  for (const TextOwner& text : texts) argv.push_back(text.get());
  const int argc = static_cast<int>(argv.size());
  argv.push_back(nullptr);

  acts.clear();
  verbose = 0;
  Transcript seen;
  {
    const CapturedStream out(stdout), err(stderr);
    seen.ending = ending_of([&] { ccs_parse_options(argc, argv.data()); });
    seen.out = out.text();
    seen.err = err.text();
  }

  const Transcript expected = transcript_of(arguments);
  expect(seen.ending == expected.ending, "%s, not %s", expected.ending.c_str(), seen.ending.c_str());
  expect(acts == expected.acts, "%s, not %s", expected.acts.c_str(), acts.c_str());
  expect(seen.out == expected.out, "%s, not %s", expected.out.c_str(), seen.out.c_str());
  expect(seen.err == expected.err, "%s, not %s", expected.err.c_str(), seen.err.c_str());
  expect(verbose == expected.verbose, "the verbose flag at %d, not %d", expected.verbose, verbose);
  return 0;
}
