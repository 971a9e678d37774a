// SPDX-License-Identifier: MIT
// display-manager: the actors that can run, the stations that run them, and the requests to a station.
//
// A station is one X display. The main thread makes stations and queues events; an event is one request to
// start or to stop an actor. Each station has one worker, which runs the procedures of the events strictly
// one after another. The worker holds the station's mutex except while it waits for an event. So no event can
// be queued between its last look at the queue and its wait.
//
// Each start that is not refused makes a thread. For an actor of groups 1 to 3 this thread supervises: it
// launches the actor, waits for its death and launches it again. The worker waits until the thread has made
// its first launch or has ended, and only then goes on to the next event. So a stop finds the child of the
// start that came before it. The daemon ends an actor only for a stop.
//
// Owners: an event belongs to its maker, then to the queue, and the worker frees it. The thread of a start
// owns its ThreadStart. The list of stations owns the stations; it begins in the PluginContext.
//
// Locks: station_table_mutex is held while a station is linked or unlinked, and never together with another
// mutex. Station::mutex guards the queue. ActorGroup::child_mutex makes a launch, a signal and a reaping
// exclude one another; it may be taken while Station::mutex is held. Look-ups take no lock.
//
// No thread is joined or detached, and a station with a worker is never removed: what a thread can reach
// stays valid until the process ends, which may happen at any time.
#pragma once

#include <pthread.h>
#include <semaphore.h>
#include <sys/types.h>

#include <atomic>

#include "common/text.h"
#include "plugins/plugin.h"

inline constexpr int actor_group_count = 4;  // 0: no process; 1: login; 2: injectors and image; 3: hot keys

// ---- tables (actor-tables.cpp) ------------------------------------------------------------------------

/** A kind of station. The table ends with code 0, which is no type. */
struct StationType {
  int code;
  const char* name;
};
extern const StationType station_type_table[];

inline constexpr int init_station_code = 1;  // the actor of group 0

/** An actor: a helper program that can run on a station. dm_expand_argv expands its words to arguments. */
struct ActorDefinition {
  const char* name;
  int code;
  int group;             // a station runs at most one actor of each group; group 0 runs no process
  const char* argv[13];  // program first, ended by null; an actor may have no program
};
/** All actors, ended by null, in the order of every look-up. */
extern const ActorDefinition* const actor_table[];

/** The code of the station type with exactly this name, 0 if none has it. Any thread. */
int dm_lookup_station_type(const char* name);

/** The code of the actor with exactly this name, 0 if none has it. Any thread. */
int dm_lookup_actor_code(const char* name);

/** The actor with this code, null if none has it. Any thread. */
const ActorDefinition* dm_find_actor(int code);

// ---- arguments (actor-arguments.cpp) ------------------------------------------------------------------

inline constexpr int max_arguments = 9;
inline constexpr size_t argument_size = 64;  // of a program's name or an argument, with its terminating zero

/**
 * Writes the argument vector of `actor` on display `display_num` into `argv`, ended by null. Of its words,
 *   "DISPLAY" becomes ":N";                  "-display" stays and is followed by ":N";
 *   "CORVANE_DIR" and the word after it become the path of that image;
 *   "--logfile" stays and is followed by the path of the program's log for the display.
 *
 * Returns 0, and the caller frees the strings with dm_free_argv. Returns -1, with the vector's strings freed,
 * when memory is short. The copy of a word that is replaced is never freed. A program name or an expansion of
 * more than 63 bytes ends the process. Any thread.
 */
int dm_expand_argv(const ActorDefinition* actor, int display_num, char* argv[max_arguments + 1]);

/** Frees the strings of a null-terminated vector, but not the vector. */
void dm_free_argv(char** argv);

// ---- stations and their queues ------------------------------------------------------------------------

inline constexpr int event_kind_start = 1;
inline constexpr int event_kind_stop = 2;

/**
 * One request to a station. Its maker owns it until add_station_event accepts it. Then the queue owns it, and
 * the worker frees it after its procedure has returned.
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

/** One actor group of a station. */
struct ActorGroup {
  pthread_t thread;  // the last one made; neither joined nor detached

  // Written under child_mutex by the worker and the group's threads. Those threads read single fields without
  // it.
  std::atomic<int> is_running;   // 1 from a launch to a stop or a failed launch; a death does not clear it
  std::atomic<int> keep_alive;   // 1 from a start to the next stop
  std::atomic<pid_t> child_pid;  // 0: none; -1: the fork failed; during the pause that of the dead child
  std::atomic<unsigned> newest;  // number of the supervising thread that owns the group

  // Held while a group is claimed for a new thread, and while a child is forked and recorded, signalled, or
  // reaped. Each of these finds the others done or not begun, so the daemon never signals a pid that the
  // system has given to another process.
  pthread_mutex_t child_mutex = PTHREAD_MUTEX_INITIALIZER;
  bool child_reaped;  // child_pid may have been reused; guarded by child_mutex
};

/** One X display and its worker. Linked until the process ends, once its worker runs. */
struct Station {
  pthread_t thread;  // the worker; neither joined nor detached

  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;  // guards `events`; the worker releases it only to wait
  pthread_cond_t cond = PTHREAD_COND_INITIALIZER;     // signalled for each event queued; one waiter
  std::atomic<int> ready;  // 1 once the worker waits; add_station_event polls it after `waiting`

  ActorGroup groups[actor_group_count];

  int display_num;  // constant, like the next two; the key of the list
  char* display;    // owned copy of the first caller's text, for debuggers
  int station_type;

  StationEvent* events;  // owned; first in, first out

  Station* prev;               // used by the main thread only
  std::atomic<Station*> next;  // written by the main thread, read by every look-up

  sem_t waiting;             // posted once by the worker, when it is about to wait for the first time
  bool was_waiting = false;  // whether `waiting` has been waited for; used by the main thread only

  sem_t launched;  // posted once by each thread that proc_method_start makes
};

/**
 * Makes sure that display `display_num` has a station with a running worker. The station keeps the `display`
 * (a copy) and `station_type` of the first call. With --verbose, a new station is logged with all others.
 * Returns 0. Returns -1 and logs the reason when memory or threads are short; no station is then left. Main
 * thread.
 */
int dm_start_station_thread(PluginContext* context, const char* display, int display_num, int station_type);

/**
 * A new event with `kind`, `context` and `next` set. The caller fills in the rest.
 * Null when memory is short; the caller logs that. Any thread.
 */
EventOwner dm_new_event(PluginContext* context, int kind);

/**
 * Queues `event` last on the display's station and wakes the worker. Waits until a new worker is ready, and
 * while the worker runs procedures.
 * Returns 0 and takes the event. Returns -1, logs it and leaves the event with the caller, when the display
 * has no station. Main thread.
 */
int add_station_event(EventOwner& event, int display_num);

/** Body of a station's worker; `worker_station` is the Station. Never returns. */
void* process_station_events(void* worker_station);

// ---- supervision --------------------------------------------------------------------------------------

/**
 * Procedures of events, on the station's worker: start the actor's group unless it runs, or end the child of
 * the actor's group. They log each failure. The start returns when the group's thread has made its first
 * launch or has ended, so that the next event finds its result.
 */
void proc_method_start(Station* station, StationEvent* event);
void proc_method_stop(Station* station, StationEvent* event);

/** What proc_method_start passes to the thread that it makes. The thread frees it. */
struct ThreadStart {
  StationEvent event;  // a copy: the worker frees the original when the procedure returns
  unsigned number;     // of the thread in its group
  sem_t* launched;     // the station's; posted once
  void* stack;         // the thread's own, from the pool
};

/**
 * Bodies of the threads that proc_method_start makes, for group 0 and for groups 1 to 3. `thread_start` is a
 * ThreadStart from malloc, which they free first.
 */
void* init_group_thread(void* thread_start);
void* method_start_thread(void* thread_start);
