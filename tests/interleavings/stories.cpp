// SPDX-License-Identifier: MIT
// stories.cpp: each sequence of requests, alone and with each fault or condition that can change it.
#include "tests/interleavings/stories.h"

namespace {

struct Plot {
  const char* name;
  std::vector<Request> requests;
  int forks, threads, arguments;  // how many can fail
  int fewer_preemptions = 0;
};

Request start(const char* actor, int display = 1) {
  return {Action::start, dm_find_actor(dm_lookup_actor_code(actor)), display};
}
Request stop(const char* actor) {
  return {Action::stop, dm_find_actor(dm_lookup_actor_code(actor))};
}
constexpr Request until_pause = {Action::wait_for_pause};

const char* const login = "local-login";
const char* const keys = "xhotkey";

std::vector<Story> under_all_conditions(const std::vector<Plot>& plots) {
  const std::vector<std::pair<const char*, Conditions>> all_conditions = {
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
      {", children ignore SIGTERM", {.ignore_sigterm = true}},
      {", the worker is late", {.is_worker_late = true}},
      {", a child dies", {.deaths = 1}},
      {", a child dies and pids are reused", {.deaths = 1, .reuse_pids = true}},
  };
  std::vector<Story> stories;
  for (const Plot& plot : plots) {
    for (const auto& [name, conditions] : all_conditions) {
      if (conditions.failing_fork > plot.forks || conditions.failing_thread > plot.threads ||
          conditions.failing_argument > plot.arguments)
        continue;
      Story story = {plot.name + std::string(name), plot.requests, conditions, plot.fewer_preemptions};
      for (const Request& request : plot.requests) {
        if (request.action == Action::wait_for_pause) ++story.conditions.deaths;  // which begins the pause
      }
      stories.push_back(story);
    }
  }
  return stories;
}

}  // namespace

std::vector<Story> short_stories() {
  const std::vector<Request> two_in_a_pause = {start(keys), until_pause, stop(keys), start(keys), stop(keys)};
  return under_all_conditions({
      {"Start", {start(login)}, 1, 2, 3},
      {"Start Start", {start(login), start(login)}, 1, 2, 3},
      {"Start Stop", {start(login), stop(login)}, 1, 2, 3},
      {"Start Stop Start", {start(login), stop(login), start(login)}, 2, 3, 6},
      {"Start Stop Start Stop", {start(login), stop(login), start(login), stop(login)}, 2, 3, 6},
      {"Start, Stop in the pause", {start(keys), until_pause, stop(keys)}, 2, 2, 6},
      {"Start, Stop in the pause, Start, Stop", two_in_a_pause, 3, 3, 9},
      {"Start, Stop by another actor of the group", {start("click-mouse"), stop("press-fkey")}, 1, 2, 7},
      {"two groups at once", {start(login), start(keys), stop(login)}, 2, 3, 6},
      {"two bursts", {start(login), start(keys), stop(login), stop(keys)}, 2, 3, 6, 1},
      {"two new stations", {start(login), start(login, 2)}, 2, 4, 6},
      {"group 0", {start("init-station"), start("init-station")}, 0, 3, 0},
  });
}

std::vector<Story> long_stories() {
  const Request again = start(login);
  const Request end = stop(login);
  const std::vector<Request> bursts = {again, start(keys), end, stop(keys), start(keys), again};
  return under_all_conditions({
      {"two long bursts", bursts, 4, 5, 12, 2},
      {"two Stops in the pause", {start(keys), until_pause, stop(keys), stop(keys), start(keys)}, 3, 3, 9, 1},
      {"Start Stop three times", {again, end, again, end, again, end}, 3, 4, 9, 2},
  });
}
