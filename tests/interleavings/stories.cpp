// SPDX-License-Identifier: MIT
// stories.cpp: each sequence of requests, alone and with each thing that can go wrong beside it.
#include "tests/interleavings/stories.h"

namespace {

struct Plot {
  const char* name;
  std::vector<Request> requests;
  int forks, threads, arguments;  // the most that it has when none fails
  int fewer_preemptions = 0;
};

constexpr Request start(const char* actor, int display = 1) {
  return {Ask::start, display, actor};
}
constexpr Request stop(const char* actor, int display = 1) {
  return {Ask::stop, display, actor};
}
constexpr Request pause = {Ask::wait_for_pause};

const char* const login = "local-login";
const char* const keys = "xhotkey";

std::vector<Story> under_all_conditions(const std::vector<Plot>& plots) {
  const std::vector<std::pair<const char*, Conditions>> conditions = {
      {"", {}},
      {", the first fork fails", {.failing_fork = 1}},
      {", the second fork fails", {.failing_fork = 2}},
      {", the third fork fails", {.failing_fork = 3}},
      {", the first thread fails", {.failing_thread = 1}},
      {", the second thread fails", {.failing_thread = 2}},
      {", the third thread fails", {.failing_thread = 3}},
      {", the fourth thread fails", {.failing_thread = 4}},
      {", no memory for the first argument", {.failing_argument = 1}},
      {", no memory for the second argument", {.failing_argument = 2}},
      {", no memory for the third argument", {.failing_argument = 3}},
      {", no memory for the fourth argument", {.failing_argument = 4}},
      {", no memory for the seventh argument", {.failing_argument = 7}},
      {", deaf children", {.are_deaf = true}},
      {", a late worker", {.is_worker_late = true}},
      {", a death", {.deaths = 1}},
      {", a death, pids are reused", {.deaths = 1, .reuses_pids = true}},
  };
  std::vector<Story> stories;
  for (const Plot& plot : plots) {
    for (const auto& [name, condition] : conditions) {
      if (condition.failing_fork > plot.forks || condition.failing_thread > plot.threads ||
          condition.failing_argument > plot.arguments)
        continue;
      stories.push_back({plot.name + std::string(name), plot.requests, condition, plot.fewer_preemptions});
      for (const Request& request : plot.requests) {
        if (request.ask == Ask::wait_for_pause) ++stories.back().conditions.deaths;  // which makes the pause
      }
    }
  }
  return stories;
}

}  // namespace

std::vector<Story> short_stories() {
  return under_all_conditions({
      {"Start", {start(login)}, 1, 2, 3},
      {"Start Start", {start(login), start(login)}, 1, 2, 3},
      {"Start Stop", {start(login), stop(login)}, 1, 2, 3},
      {"Start Stop Start", {start(login), stop(login), start(login)}, 2, 3, 6},
      {"Start, Stop in the pause", {start(keys), pause, stop(keys)}, 2, 2, 6},
      {"Start, Stop in the pause, Start, Stop",
       {start(keys), pause, stop(keys), start(keys), stop(keys)},
       3,
       3,
       9},
      {"Start, Stop by another actor of the group", {start("click-mouse"), stop("press-fkey")}, 1, 2, 7},
      {"two groups at once", {start(login), start(keys), stop(login)}, 2, 3, 6},
      {"two bursts", {start(login), start(keys), stop(login), stop(keys)}, 2, 3, 6, 1},
      {"two new stations", {start(login), start(login, 2)}, 2, 4, 6},
      {"group 0", {start("init-station"), start("init-station")}, 0, 3, 0},
  });
}

std::vector<Story> long_stories() {
  return under_all_conditions({
      {"two long bursts",
       {start(login), start(keys), stop(login), stop(keys), start(keys), start(login)},
       4,
       5,
       12,
       3},
      {"two stops in the pause", {start(keys), pause, stop(keys), stop(keys), start(keys)}, 3, 3, 9, 3},
      {"Start Stop three times",
       {start(login), stop(login), start(login), stop(login), start(login), stop(login)},
       3,
       4,
       9,
       3},
  });
}
