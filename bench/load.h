// SPDX-License-Identifier: MIT
// load: the client that calls a service or starts a program, and takes the times.
//
// Each command prints one line with its figures. If a command fails or takes longer than most_seconds, the
// program exits with 1 and prints a line on standard error.
#pragma once

#include <dbus/dbus.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

inline constexpr int most_seconds = 20;

using Words = std::vector<std::string>;

/** A method of an object of a service. */
struct Target {
  std::string name;
  std::string path;
  std::string interface;
  std::string member;
};

/** What an actor reports at its start; see actor.c. */
struct Started {
  int64_t nanoseconds;  // CLOCK_MONOTONIC at its first instruction
  int32_t pid;
  char display[20];  // its first argument, empty without one
};

[[noreturn]] void fail(const std::string& what);

/** Nanoseconds of CLOCK_MONOTONIC. */
int64_t now();

/** Runs a program without standard output; sets `begin` to the time before the fork. Returns its pid. */
pid_t spawn(const Words& command, int64_t* begin);

/** The connection to the session bus. */
extern DBusConnection* bus;

/** The target of the first four words. */
Target target_of(const Words& words);

/** Sends a call with `strings` as its arguments; returns its serial. */
dbus_uint32_t send_call(const Target& target, const Words& strings);

/** Returns the next message, which the caller frees; without `wait`, null at once if there is none. */
DBusMessage* next_message(bool wait);

/** Whether `message` answers the call `serial`; fails if the answer is an error. */
bool is_reply(DBusMessage* message, dbus_uint32_t serial);

/** Waits for the reply to a call and frees it. */
void await_reply(dbus_uint32_t serial);

/** await NAME: waits until NAME has an owner. */
void load_await(const Words& words);

/** calls NAME PATH INTERFACE MEMBER OUTSTANDING COUNT: median ns of a round trip, ns of all. */
void load_calls(const Words& words);

/** call NAME PATH INTERFACE MEMBER STRING...: ns until the reply. */
void load_call(const Words& words);

/** ready NAME PATH INTERFACE MEMBER PROGRAM ARGUMENT...: ns from before the program's fork until it has taken
 * NAME and answered MEMBER. The program is then killed. */
void load_ready(const Words& words);

/** Opens the pipe of the actors; once, before any of the commands below. */
void starts_open();

/** start NAME PATH INTERFACE MEMBER DISPLAY STRING...: ns until the reply, ns until the first instruction of
 * the actor of that display, its pid. */
void load_start(const Words& words);

/** run PROGRAM ARGUMENT...: ns from before the fork until the first instruction of the actor, its pid. An
 * actor that is the program itself is then killed. */
void load_run(const Words& words);

/** started: waits for any other start of an actor; CLOCK_MONOTONIC at its first instruction, its pid. */
void load_started(const Words& words);

/** restart PID DISPLAY PID DISPLAY...: kills the actors; for each, ns until the next one's first instruction.
 */
void load_restart(const Words& words);
