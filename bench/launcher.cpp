// SPDX-License-Identifier: MIT
// launcher.cpp: the floor for starts: two threads and a plain fork start a program.
//
// As in the daemon, each station has a thread. It makes a thread for each start, which forks, executes and
// waits. The floor has no code of the daemon: threads have default stacks, memory comes from the default
// allocator, and no log is written. The station joins the threads of ended starts, so that the floor does not
// grow.
//
// usage: bench-launcher NAME
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>

#include "bench/service.h"

struct Station {
  Station* next;
  char* display;
  pthread_t worker;
  pthread_t starter;
  bool has_starter;

  pthread_mutex_t mutex;  // guards the two below
  pthread_cond_t cond;
  int wanted;
  pid_t child;
};

static Station* stations;  // main thread only

static void* start_program(void* argument) {
  auto* station = static_cast<Station*>(argument);
  const char* const argv[] = {"corvane-ls", station->display, nullptr};
  pthread_mutex_lock(&station->mutex);  // a stop finds the child as soon as it runs
  const pid_t child = fork();
  if (child == 0) {
    execvp(argv[0], const_cast<char* const*>(argv));
    _exit(1);
  }
  station->child = child;
  pthread_mutex_unlock(&station->mutex);
  waitpid(child, nullptr, 0);
  return nullptr;
}

static void* work(void* argument) {
  auto* station = static_cast<Station*>(argument);
  for (;;) {
    pthread_mutex_lock(&station->mutex);
    while (station->wanted == 0) pthread_cond_wait(&station->cond, &station->mutex);
    --station->wanted;
    pthread_mutex_unlock(&station->mutex);
    if (station->has_starter) pthread_join(station->starter, nullptr);
    station->has_starter = pthread_create(&station->starter, nullptr, start_program, station) == 0;
  }
}

static Station* station_of(const char* display) {
  for (Station* station = stations; station; station = station->next)
    if (strcmp(station->display, display) == 0) return station;
  auto* station = static_cast<Station*>(calloc(1, sizeof(Station)));
  pthread_mutex_init(&station->mutex, nullptr);
  pthread_cond_init(&station->cond, nullptr);
  station->display = strdup(display);
  station->next = stations;
  stations = station;
  pthread_create(&station->worker, nullptr, work, station);
  return station;
}

static void start(Station* station) {
  pthread_mutex_lock(&station->mutex);
  ++station->wanted;
  pthread_cond_signal(&station->cond);
  pthread_mutex_unlock(&station->mutex);
}

static void stop(Station* station) {
  pthread_mutex_lock(&station->mutex);
  if (station->child > 0) kill(station->child, SIGTERM);
  pthread_mutex_unlock(&station->mutex);
}

static DBusHandlerResult handle(DBusConnection* connection, DBusMessage* message, void*) {
  const char* display = nullptr;
  if (!dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &display, DBUS_TYPE_INVALID))
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  if (dbus_message_is_method_call(message, bench_interface, "Start")) start(station_of(display));
  if (dbus_message_is_method_call(message, bench_interface, "Stop")) stop(station_of(display));
  const dbus_bool_t done = TRUE;
  bench_reply(connection, message, DBUS_TYPE_BOOLEAN, &done);
  return DBUS_HANDLER_RESULT_HANDLED;
}

int main(int, char** argv) {
  return bench_serve(argv[1], bench_path, handle);
}
