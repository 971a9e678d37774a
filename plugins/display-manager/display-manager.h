// SPDX-License-Identifier: MIT
// display-manager: the actors that can run, the stations that run them, and what is asked of a station.
#pragma once

#include <pthread.h>
#include <semaphore.h>
#include <sys/types.h>

#include <atomic>

#include "common/text.h"
#include "plugins/plugin.h"

inline constexpr int actor_group_count = 4;  // 0: no process; 1: login; 2: injectors and image; 3: hot keys

// ---- tables -------------------------------------------------------------------------------------------

/** A kind of station. The table ends with code 0, which is no type. */
struct StationType {
  int code;
  const char* name;
};
extern const StationType station_type_table[];

/** A helper program that can run on a station, with its words; see dm_expand_argv for the ones replaced. */
struct ActorDefinition {
  const char* name;
  int code;
  int group;             // a station runs at most one actor of a group; group 0 runs no process
  const char* argv[13];  // program first, ended by null; an actor may have no program
};
/** All actors, ended by null; in the order of every lookup. */
extern const ActorDefinition* const actor_table[];

/** The code of the station type of exactly this name, 0 if there is none. Any thread. */
int dm_lookup_station_type(const char* name);

/** The code of the actor of exactly this name, 0 if there is none. Any thread. */
int dm_lookup_actor_code(const char* name);

/** The actor of this code, null if there is none. Any thread. */
const ActorDefinition* dm_find_actor(int code);

// ---- stations and their queues ------------------------------------------------------------------------

inline constexpr int event_kind_start = 1;
inline constexpr int event_kind_stop = 2;

/**
 * One request to a station. Its maker owns it until add_station_event has taken it, then the queue; the
 * worker frees it when its procedure has returned.
 */
struct StationEvent {
  int kind;
  int display_num;
  int actor_code;
  int station_type;  // of start requests only
  PluginContext* context;
  void (*proc)(Station* station, StationEvent* event);  // runs on the station's worker
  StationEvent* next;
};
using EventOwner = Owned<StationEvent>;

/** What a station knows of one actor group. */
struct ActorGroup {
  pthread_t thread;  // the last one made; neither joined nor detached

  // Written under child_mutex by the worker and the group's threads, which also read single ones without it.
  std::atomic<int>
      is_running;  // 1 from a launch to the next stop or failed launch, also in the pause of a dead child
  std::atomic<int> keep_alive;   // 1 from a start to the next stop
  std::atomic<pid_t> child_pid;  // 0: none; still a dead child's number during its pause
  std::atomic<unsigned> newest;  // number of the supervising thread that the group belongs to

  // Held while the group is claimed for a new thread, and while a child is forked and recorded, signalled, or
  // reaped: each of these sees the others done or not begun, so that a signal never meets a number that the
  // system has given to somebody else.
  pthread_mutex_t child_mutex = PTHREAD_MUTEX_INITIALIZER;
  bool child_reaped;  // child_pid is a number only; guarded by child_mutex
};

/** One X display and its worker. Linked for good once its worker runs. */
struct Station {
  pthread_t thread;  // the worker; neither joined nor detached

  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;  // guards `events`; given up by the worker only to wait
  pthread_cond_t cond = PTHREAD_COND_INITIALIZER;     // signalled for each event queued; one waiter
  std::atomic<int> ready;  // 1 once the worker waits; polled, after `waiting`, to queue

  ActorGroup groups[actor_group_count];

  int display_num;  // constant, as the two below; the key of the list
  char* display;    // owned copy of the first caller's text, for whoever debugs the process
  int station_type;

  StationEvent* events;  // owned; first in, first out

  Station* prev;               // used by the main thread only
  std::atomic<Station*> next;  // written by the main thread, read by every lookup

  sem_t waiting;             // posted once by the worker, when it is about to wait for the first time
  bool was_waiting = false;  // that has been waited for; used by the main thread only

  sem_t launched;  // posted once by each thread that proc_method_start made
};

/**
 * Makes sure that display `display_num` has a station with a running worker; `display` (copied) and
 * `station_type` are those of the first call. With --verbose, a new station is logged with all the others.
 * Returns 0, or -1 with a line in the log when memory or threads are short: then nothing is left of the
 * station. Main thread.
 */
int dm_start_station_thread(PluginContext* context, const char* display, int display_num, int station_type);

/**
 * A new event with kind and context filled in, to be filled in further by the caller.
 * Null when memory is short; the caller says so. Any thread.
 */
EventOwner dm_new_event(PluginContext* context, int kind);

/**
 * Queues `event` behind the others of the display's station and wakes the worker. Waits until a brand-new
 * worker is ready, and while the worker runs procedures.
 * Returns 0 and takes the event over, or -1 with a line in the log, leaving the event with the caller, when
 * the display has no station. Main thread.
 */
int add_station_event(EventOwner& event, int display_num);

/** Body of a station's worker; `worker_station` is the Station. Never returns. */
void* process_station_events(void* worker_station);

// ---- actors -------------------------------------------------------------------------------------------

inline constexpr int most_arguments = 9;

/**
 * Writes the argument vector of `actor` on display `display_num` into `argv`, ended by null. Of its words,
 *   "DISPLAY" becomes ":N";                  "-display" stays and is followed by ":N";
 *   "CORVANE_DIR" and the word behind it become the path of that image;
 *   "--logfile" stays and is followed by the path of the program's log for the display.
 *
 * Returns 0, the strings being the caller's (dm_free_argv), or -1 with nothing left behind when memory is
 * short. A program name or an expansion of more than 63 bytes ends the process. Any thread.
 */
int dm_expand_argv(const ActorDefinition* actor, int display_num, char* argv[most_arguments + 1]);

/** Frees the strings of a vector ended by null, not the vector. */
void dm_free_argv(char** argv);

/**
 * Procedures of events, on the station's worker: start the actor's group unless it runs, end the child of
 * the actor's group. What they find wrong they say in the log. The start returns when the group's thread
 * has made its first launch or has ended, so that the next event finds what this one did.
 */
void proc_method_start(Station* station, StationEvent* event);
void proc_method_stop(Station* station, StationEvent* event);

/** What proc_method_start hands to the thread it makes, which frees it. */
struct ThreadStart {
  StationEvent event;  // a copy; the queue's own is gone when its procedure returns
  unsigned number;     // of the thread in its group
  sem_t* launched;     // the station's, to be posted once
  void* stack;         // the thread's own, from the pool
};

/**
 * Bodies of the threads that proc_method_start makes, for group 0 and for groups 1 to 3. `thread_start` is a
 * ThreadStart from malloc, which they free first thing.
 */
void* init_group_thread(void* thread_start);
void* method_start_thread(void* thread_start);
