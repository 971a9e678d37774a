// SPDX-License-Identifier: MIT
// dm_failing_station_test.cpp: stations that get no worker, while group threads walk the list of stations.
//
// Such a station is linked, unlinked and freed again. What makes it safe is that no walk goes past its own
// station, which stands before it. Run under the sanitizers this says whether anybody touches the freed one.
#include <atomic>
#include <cerrno>
#include <thread>
#include <vector>

#include "common/stack-pool.h"
#include "tests/unit/dm_support.h"

namespace {

constexpr int station_count = 4;
constexpr int first_refused = 100;  // displays from here on get no worker
constexpr int refusals = 2000;

using FailingStation = DisplayManagerTest;

// A group thread's way through the list, again and again; it ends at the fork, which fails.
void walk_until(const std::atomic<bool>& done, std::atomic<int>& walks, Station* station, int actor_code,
                PluginContext* context) {
  void* stack = stack_take();
  for (; !done; ++walks) {
    auto* start = static_cast<ThreadStart*>(malloc(sizeof(ThreadStart)));
    *start = {.event = {.kind = event_kind_start,
                        .display_num = station->display_num,
                        .actor_code = actor_code,
                        .station_type = 1,
                        .context = context,
                        .proc = proc_method_start,
                        .next = nullptr},
              .number = 0,
              .launched = &station->launched,
              .stack = stack};
    method_start_thread(start);
  }
  stack_return(stack);
}

}  // namespace

TEST_F(FailingStation, is_told_of_before_it_is_unlinked) {
  fakes.pthread_create = [](pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) { return EAGAIN; };
  std::vector<size_t> lines_told;  // when it is linked, and when it is unlinked
  fakes.seen_lock = [&](pthread_mutex_t* mutex) {
    if (mutex == &station_table_mutex) lines_told.push_back(log.lines().size());
  };
  EXPECT_EQ(dm_start_station_thread(&context, ":0", 0, 1), -1);
  EXPECT_EQ(lines_told, (std::vector<size_t>{1, 2})) << "that it starts, and that it has no thread";
}

TEST_F(FailingStation, leaves_no_trace_while_group_threads_walk_the_list) {
  fakes.fork = [] { return -1; };
  fakes.pthread_create = [](pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                            void* data) {
    if (body == process_station_events) {
      return static_cast<Station*>(data)->display_num >= first_refused ? EAGAIN : 0;  // the others need none
    }
    return __real_pthread_create(thread, attributes, body, data);
  };
  std::vector<Station*> stations;
  for (int display = 0; display < station_count; ++display) {
    ASSERT_EQ(dm_start_station_thread(&context, ":0", display, 1), 0);
    Station* made = context.stations;
    while (made->display_num != display) made = made->next;
    stations.push_back(made);
  }

  std::atomic<bool> done{false};
  std::atomic<int> walks{0};
  std::vector<std::thread> walkers;
  for (Station* station : {stations[0], stations[2], stations[3]}) {
    for (const int actor_code : {2, 7}) {
      walkers.emplace_back(
          [&, station, actor_code] { walk_until(done, walks, station, actor_code, &context); });
    }
  }
  while (walks < 100) sched_yield();
  int refused = 0;
  for (int i = 0; i < refusals; ++i) {
    if (dm_start_station_thread(&context, ":100", first_refused + i % 3, 1) != 0) ++refused;
  }
  const int walked = walks;
  while (walks < walked + 100) sched_yield();
  done = true;
  for (std::thread& walker : walkers) walker.join();

  EXPECT_EQ(refused, refusals);
  std::vector<Station*> listed;
  for (Station* station = context.stations; station; station = station->next) listed.push_back(station);
  EXPECT_EQ(listed, stations);
  for (Station* station : stations) {
    free(station->display);
    free(station);
  }
}
