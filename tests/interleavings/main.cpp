// SPDX-License-Identifier: MIT
// main.cpp: explores the stories, prints a line for each, and the steps of an order that fails.
//
// With CORVANE_SOAK=1 in the environment it explores longer stories, too, and each with one preemption more.
//
// usage: interleavings [--bound N] [--half N] [--table FILE] [--caught] [--story TEXT [--replay NUMBER]]
//   --bound   the most preemptions of an order; 3 unless it is given
//   --half    1 or 2: only every second story, from the first or the second on
//   --table   the file to write the lines to, besides standard output
//   --caught  ends at the first failure, which is what is wanted: says how many orders it took
//   --story   only stories whose name contains this
//   --replay  prints the steps of this one of the story's orders
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string_view>

#include "tests/interleavings/stories.h"

namespace {

struct Options {
  bool is_long = false;
  bool wants_failure = false;
  int bound = 3;
  size_t half = 0;  // 0: all
  const char* table = "/dev/null";
  std::string story;
  uint64_t replay = 0;
};

bool is_soak() {
  const char* soak = getenv("CORVANE_SOAK");
  return soak && strcmp(soak, "1") == 0;
}

[[noreturn]] void refuse() {
  fprintf(stderr,
          "usage: interleavings [--bound N] [--half N] [--table FILE] [--caught] "
          "[--story TEXT [--replay NUMBER]]\n");
  exit(2);
}

Options parse(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string_view word = argv[i];
    if (word == "--caught") {
      options.wants_failure = true;
      continue;
    }
    if (++i == argc) refuse();
    if (word == "--bound") {
      options.bound = static_cast<int>(strtol(argv[i], nullptr, 10));
    } else if (word == "--half") {
      options.half = strtoul(argv[i], nullptr, 10);
    } else if (word == "--table") {
      options.table = argv[i];
    } else if (word == "--story") {
      options.story = argv[i];
    } else if (word == "--replay") {
      options.replay = strtoull(argv[i], nullptr, 10);
    } else {
      refuse();
    }
  }
  if (is_soak()) {
    options.is_long = true;
    ++options.bound;
  }
  return options;
}

std::vector<Story> chosen(const Options& options) {
  std::vector<Story> stories = short_stories();
  if (options.is_long) std::ranges::copy(long_stories(), std::back_inserter(stories));
  std::vector<Story> found;
  for (size_t i = 0; i < stories.size(); ++i) {
    if (options.half != 0 && i % 2 != options.half - 1) continue;
    if (stories[i].name.find(options.story) != std::string::npos) found.push_back(stories[i]);
  }
  return found;
}

FILE* table;

void print(const char* format, ...) __attribute__((format(printf, 1, 2)));
void print(const char* format, ...) {
  for (FILE* file : {stdout, table}) {
    va_list arguments;
    va_start(arguments, format);
    vfprintf(file, format, arguments);
    va_end(arguments);
    fflush(file);
  }
}

// Explores one story and prints its line.
Finding tell_story(const Story& story, int bound) {
  const auto begin = std::chrono::steady_clock::now();
  Finding finding = explore(world_of(story), std::max(bound - story.fewer_preemptions, 0));
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
  print("%9" PRIu64 " orders, %9" PRIu64 " states, %5.1f s: %s\n", finding.schedules, finding.states,
        seconds.count(), story.name.c_str());
  return finding;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);
  table = fopen(options.table, "we");
  if (!table) {
    perror(options.table);
    return 2;
  }
  const std::vector<Story> stories = chosen(options);
  uint64_t orders = 0;
  for (const Story& story : stories) {
    if (options.replay != 0) {
      for (const std::string& step : replay(world_of(story), options.bound, options.replay).steps)
        puts(step.c_str());
      return 0;
    }
    const Finding finding = tell_story(story, options.bound);
    orders += finding.schedules;
    if (finding.failure.empty()) continue;
    if (!options.wants_failure) {
      for (const std::string& step : finding.steps) puts(step.c_str());
    }
    print("%s: order %" PRIu64 " of \"%s\" fails, after %" PRIu64 " of all, with %d preemptions: %s\n",
          program_invocation_short_name, finding.schedules, story.name.c_str(), orders, finding.bound,
          finding.failure.c_str());
    return options.wants_failure ? 0 : 1;
  }
  print("interleavings: %zu stories, %" PRIu64 " orders with up to %d preemptions, none fails\n",
        stories.size(), orders, options.bound);
  return options.wants_failure || stories.empty() ? 1 : 0;
}
