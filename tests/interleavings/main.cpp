// SPDX-License-Identifier: MIT
// main.cpp: explores the stories, prints a line for each, and lists the steps of a schedule that fails.
//
// CORVANE_SOAK=1 in the environment selects the long form: more stories, and one more preemption in each.
//
// usage: interleavings [--bound N] [--half N] [--table FILE] [--caught] [--story TEXT [--replay NUMBER]]
//   --bound   the most preemptions of a schedule, 3 by default; the long form adds one
//   --half    1 or 2: every second story only, beginning with the first or the second
//   --table   also writes the lines to this file
//   --caught  succeeds at the first failure, and prints how many schedules were needed
//   --story   only the stories whose name contains this
//   --replay  lists the steps of this schedule of the first such story
#include <getopt.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "tests/interleavings/world.h"

namespace {

struct Options {
  bool is_long = false;
  bool wants_failure = false;
  int bound = 3;
  size_t half = 0;  // 0: all
  const char* table = "/dev/null";
  std::string story;
  uint64_t replay = 0;  // 0: none
};

Options parse(int argc, char** argv) {
  static constexpr option names[] = {
      {"bound", required_argument, nullptr, 'b'}, {"half", required_argument, nullptr, 'h'},
      {"table", required_argument, nullptr, 't'}, {"caught", no_argument, nullptr, 'c'},
      {"story", required_argument, nullptr, 's'}, {"replay", required_argument, nullptr, 'r'},
      {nullptr, no_argument, nullptr, 0}};
  Options options;
  for (int name = 0; (name = getopt_long(argc, argv, "", names, nullptr)) != -1;) {
    if (name == 'b') options.bound = static_cast<int>(strtol(optarg, nullptr, 10));
    if (name == 'h') options.half = strtoul(optarg, nullptr, 10);
    if (name == 't') options.table = optarg;
    if (name == 'c') options.wants_failure = true;
    if (name == 's') options.story = optarg;
    if (name == 'r') options.replay = strtoull(optarg, nullptr, 10);
    if (name == '?') exit(2);
  }
  const char* soak = getenv("CORVANE_SOAK");
  options.is_long = soak && strcmp(soak, "1") == 0;
  if (options.is_long) ++options.bound;
  return options;
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

// Whether the options choose this story, which has this place in the list of all.
bool is_chosen(const Options& options, const Story& story, size_t place) {
  const bool is_in_half = options.half == 0 || place % 2 == options.half - 1;
  return is_in_half && story.name.find(options.story) != std::string::npos;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);
  table = fopen(options.table, "we");
  if (!table) {
    perror(options.table);
    return 2;
  }
  std::vector<Story> stories = short_stories();
  if (options.is_long) std::ranges::copy(long_stories(), std::back_inserter(stories));
  size_t explored = 0;
  uint64_t schedules = 0;
  for (size_t i = 0; i < stories.size(); ++i) {
    running_story = stories[i];
    if (!is_chosen(options, running_story, i)) continue;
    const char* name = running_story.name.c_str();
    const auto begin = std::chrono::steady_clock::now();
    const Result result =
        explore(std::max(options.bound - running_story.fewer_preemptions, 0), options.replay);
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
    ++explored;
    schedules += result.schedules;
    if (!options.wants_failure) {
      for (const std::string& step : result.steps) puts(step.c_str());
    }
    if (options.replay != 0) return result.steps.empty() ? 1 : 0;
    if (!result.failure.empty()) {
      print("%s: schedule %7" PRIu64 " fails (preemptions: %d): %s: %s\n", program_invocation_short_name,
            options.wants_failure ? schedules : result.schedules, result.bound, name, result.failure.c_str());
      return options.wants_failure ? 0 : 1;
    }
    print("%9" PRIu64 " schedules, %9" PRIu64 " states, preemptions <= %d, %5.1f s: %s\n", result.schedules,
          result.states, result.bound, seconds.count(), name);
  }
  print("interleavings: %zu stories, %" PRIu64 " schedules with up to %d preemptions, none fails\n", explored,
        schedules, options.bound);
  return options.wants_failure || explored == 0 ? 1 : 0;
}
