// SPDX-License-Identifier: MIT
// corvane-ctl.cpp: the administrator's command.
//
// It is a caller like any other, and reads only what every user may read: the daemon does not know it. A run
// that fails writes one line to standard error, which says what to do.
#include <unistd.h>

#include <chrono>
#include <csignal>

#include "common/dbus-owners.h"
#include "ctl/ctl.h"

static constexpr const char* usage =
    R"(corvane-ctl: show and control the stations of the control server

  corvane-ctl start DISPLAY ACTOR [TYPE]  start an actor, and say if it runs
  corvane-ctl stop DISPLAY ACTOR          stop what runs in the actor's group
  corvane-ctl status [DISPLAY]            what runs, and what does not and why
  corvane-ctl watch [DISPLAY]             the same and each change, until Ctrl-C
  corvane-ctl actors                      names of the actors, and what they run

DISPLAY is an X display, such as :1. ACTOR is a name from "corvane-ctl actors";
local-login is the login window. A display runs one actor of each group at most.
TYPE is PCI, USB or COMMON; COMMON if left out.

  --json: for programs; -v, --verbose: with the command lines (status, watch)
  --no-wait: report only that it was queued (start, stop)
  --bus ADDRESS, --session: another bus than the system bus; --help, --version

Only root may start and stop. Exit status: 0 done, 1 refused or without effect,
2 wrong command line, 3 no daemon, 4 no permission. More: man corvane-ctl)";
static constexpr const char* daemon_name = "com.corvane.ControlServer";
static constexpr const char* no_daemon = "corvane-cs does not run; start it: service corvane-cs start";
static constexpr const char* groups[] = {"no process", "login", "injectors and image", "hot keys"};
static constexpr double max_watch = 1.0;  // seconds

// Writes the text to standard error and returns the status.
static int complain(int status, const std::string& text) {
  fflush(stdout);
  fprintf(stderr, "corvane-ctl: %s\n", text.c_str());
  return status;
}

// Calls a method with these words. Returns its reply, of this type, or -1 with the error set.
static int call(DBusConnection* bus, MessageOwner method, int type, const Words& words, BusError* error) {
  for (const std::string& word : words) {
    const char* text = word.c_str();
    dbus_message_append_args(method.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
  }
  dbus_int32_t answer = -1;
  const MessageOwner reply(dbus_connection_send_with_reply_and_block(bus, method.get(), -1, error->get()));
  if (reply) dbus_message_get_args(reply.get(), error->get(), type, &answer, DBUS_TYPE_INVALID);
  return answer;
}

// The pid of the daemon, 0 when it does not run.
static pid_t daemon_of(DBusConnection* bus) {
  BusError error;
  MessageOwner method(dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS,
                                                   "GetConnectionUnixProcessID"));
  return std::max(call(bus, std::move(method), DBUS_TYPE_UINT32, {daemon_name}, &error), 0);
}

// ---- start and stop -----------------------------------------------------------------------------------

// The exit status, -1 while it is not known; the text to print; and the actor that the user should stop.
struct Outcome {
  int status = -1;
  std::string said = {};
  const ActorDefinition* to_stop = nullptr;
};

// The newest row of the group that the command line names.
static Row newest(const CommandLine& line, const Stations& stations) {
  const GroupKey key = {line.display, line.actor->group};
  return stations.rows.contains(key) ? std::prev(stations.rows.upper_bound(key))->second : Row{};
}

// The result of a start, this many seconds after its reply.
static Outcome judge_start(const CommandLine& line, const Row& before, const Row& now, double seconds) {
  const std::string process = "process " + std::to_string(now.process.pid);
  const bool runs = now.process.pid != 0;
  if (line.actor->group == 0) return {0, line.name + " is ready; it runs no process"};
  // An actor that runs for 0.3 s has not failed at its start.
  if (runs && now.actor == line.actor && now.process.pid != before.process.pid)
    return {seconds < 0.3 ? -1 : 0, line.name + " runs, " + process};
  if (!runs && now.state != "stopped" && (seconds >= max_watch || now.starts > before.starts))
    return {1, line.name + ": " + now.reason + "; the daemon tries again every 2 s", now.actor};
  if (seconds < max_watch) return {-1, ""};
  if (!runs) return {1, line.name + ": no start was seen within 1 s"};
  if (now.actor == line.actor)
    return {1, line.name + " was already running, " + process + ": nothing changed", now.actor};
  return {1, line.name + ": its group was taken by " + now.actor->name + " (" + process + ")", now.actor};
}

// The result of a stop.
static Outcome judge_stop(const CommandLine& line, const Row& before, const Row& now, double seconds) {
  const pid_t pid = before.process.pid;
  if (pid == 0 && before.child != 0 && before.state != "stopped")
    return {1, line.name + ": the stop came in the pause before a restart, which still comes", now.actor};
  if (pid == 0) return {1, line.name + " does not run: nothing changed"};
  const std::string ends = " ends, process " + std::to_string(pid) + ", ";
  if (now.process.pid != pid) return {0, line.words[1] + ends + std::to_string(seconds).substr(0, 3) + " s"};
  const bool ignores = (now.process.ignored >> (SIGTERM - 1) & 1U) != 0;
  const char* why = ignores ? "ignores signal 15" : "has not ended within 1 s";
  return {seconds < max_watch ? -1 : 1, line.words[1] + " " + now.actor->name + " still runs: it " + why};
}

static int change(const CommandLine& line, DBusConnection* bus, pid_t daemon) {
  const bool is_start = line.words[0] == "start";
  const Row before = newest(line, stations_look(daemon, line.display));
  MessageOwner method(dbus_message_new_method_call(daemon_name, "/com/corvane/ControlServer/DisplayManager",
                                                   "com.corvane.ControlServer.DisplayManager",
                                                   is_start ? "Start" : "Stop"));
  BusError error;
  const Words words(line.words.begin() + 1, line.words.end());
  const int queued = call(bus, std::move(method), DBUS_TYPE_BOOLEAN, words, &error);
  if (dbus_error_has_name(error.get(), DBUS_ERROR_ACCESS_DENIED))
    return complain(4, "only root may start and stop actors; call it as root");
  if (queued < 0 && daemon_of(bus) == 0) return complain(3, no_daemon);
  if (queued < 0) return complain(3, line.name + ": the call failed: " + text_escaped(error.message()));
  const auto replied = std::chrono::steady_clock::now();
  Outcome outcome = {queued == 1 && line.options.contains("--no-wait") ? 0 : -1, line.name + ": queued"};
  while (outcome.status < 0) {
    usleep(20000);
    const Stations stations = stations_look(daemon, line.display);
    const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - replied;
    outcome = (is_start ? judge_start : judge_stop)(line, before, newest(line, stations), passed.count());
    if (queued == 0) outcome = {1, line.name + ": refused: " + text_escaped(stations.refusal)};
  }
  puts(outcome.said.c_str());
  if (outcome.status == 0) return 0;
  if (!outcome.to_stop) return complain(1, "see: corvane-ctl status");
  return complain(1, (is_start ? "to end that: corvane-ctl stop " : "in 2 s, again: corvane-ctl stop ") +
                         line.words[1] + " " + outcome.to_stop->name);
}

// ---- status and watch ---------------------------------------------------------------------------------

// A local time as in the daemon's log; from character 5 on, without the year.
static std::string text_time(time_t when, size_t from = 0) {
  struct tm local = {};
  char text[32] = "";
  localtime_r(&when, &local);  // cannot fail: no time here has a year beyond int
  strftime(text, sizeof text, "%F %T", &local);
  return when != 0 ? text + from : "-";
}

// Prints the head of the output. watch prints it again when another daemon runs.
static int print_daemon(const CommandLine& line, const Stations& stations) {
  const int pid = stations.daemon.pid;
  const std::string since = text_time(stations.daemon.started);
  if (pid == 0) return complain(0, no_daemon);
  if (line.options.contains("--json")) {
    printf(R"({"daemon":%d,"since":"%s","version":"%s"})", pid, since.c_str(), CORVANE_VERSION);
  } else {
    printf("corvane-cs %s runs, process %d, since %s\n\n", CORVANE_VERSION, pid, since.c_str());
    printf("DISPLAY ACTOR           STATE                      PROCESS SINCE          STARTS");
  }
  puts("");
  return stations.has_log ? 0 : complain(0, "the log is empty or not readable: only what runs is shown");
}

static void print(const CommandLine& line, const Stations& stations, const Row& row) {
  const time_t since = row.process.pid != 0 ? row.process.started : row.ended;
  if (line.options.contains("--json")) {
    printf(R"({"display":":%d","actor":"%s","state":"%s","process":%d,"since":"%s","starts":%d,)"
           R"("reason":"%s","command":"%s"})",
           row.key.display, row.actor->name, row.state.substr(0, row.state.find(' ')).c_str(),
           row.process.pid, text_time(since).c_str(), row.starts, row.reason.c_str(),
           text_escaped(row.process.command, true).c_str());
  } else {
    const char* no_color = getenv("NO_COLOR");
    const bool is_plain = !isatty(STDOUT_FILENO) || (no_color && *no_color);
    const char* colour = row.process.pid != 0 ? "\033[32m" : row.state == "stopped" ? "\033[2m" : "\033[31m";
    const std::string pid = row.process.pid != 0 ? std::to_string(row.process.pid) : "-";
    const char* gap = line.words[0] == "status" ? "\n  " : "  ";
    printf(":%-6d %-15s %s%-26s%s %7s %-14s %5d%s", row.key.display, row.actor->name, is_plain ? "" : colour,
           row.state.c_str(), is_plain ? "" : "\033[0m", pid.c_str(), text_time(since, 5).c_str(), row.starts,
           stations.is_complete ? "" : "+");
    if (!row.reason.empty()) printf("%s%s", gap, row.reason.c_str());
    if (row.process.pid != 0 && line.options.contains("--verbose"))
      printf("%s%s", gap, text_escaped(row.process.command).c_str());
  }
  puts("");
}

// The commands status and watch. watch prints a row again when it has changed.
static int show(const CommandLine& line, DBusConnection* bus) {
  std::set<std::string> before;
  for (pid_t daemon = -1;; usleep(500000)) {
    const Stations stations = stations_look(daemon_of(bus), line.display);
    if (!dbus_connection_get_is_connected(bus)) return complain(3, "the bus has ended; start it");
    if (stations.daemon.pid != daemon) print_daemon(line, stations);
    daemon = stations.daemon.pid;
    std::set<std::string> now;
    for (const auto& [key, row] : stations.rows) {
      const std::string id = row.actor->name + row.state.substr(0, 5) + std::to_string(row.process.pid);
      if (!before.contains(*now.insert(std::to_string(key.display) + id).first)) print(line, stations, row);
    }
    if (line.words[0] == "status") return 0;
    fflush(stdout);
    before = now;
  }
}

int main(int argc, char** argv) {
  CommandLine line;
  const std::string wrong = command_line_parse({argv + 1, argv + argc}, &line);
  if (!wrong.empty()) return complain(2, wrong);
  if (line.options.contains("--help")) return puts(usage) < 0;
  if (line.options.contains("--version")) return puts("corvane-ctl " CORVANE_VERSION) < 0;
  for (const ActorDefinition* const* actor = actor_table; *actor && line.words[0] == "actors"; ++actor) {
    const std::string& command = actor_command(*actor, 1);
    printf("%-15s group %d, %s%s%s\n", (*actor)->name, (*actor)->group, groups[(*actor)->group],
           command.empty() ? "" : "\n  ", command.c_str());
  }
  if (line.words[0] == "actors") return 0;

  dbus_connection_set_change_sigpipe(FALSE);
  if (!line.bus.empty()) setenv("DBUS_SYSTEM_BUS_ADDRESS", line.bus.c_str(), 1);
  BusError error;
  const bool is_session = line.options.contains("--session");
  DBusConnection* bus = dbus_bus_get(is_session ? DBUS_BUS_SESSION : DBUS_BUS_SYSTEM, error.get());
  if (!bus) return complain(3, "no bus; start it, or give --bus ADDRESS: " + text_escaped(error.message()));
  const pid_t daemon = daemon_of(bus);
  if (daemon == 0) return complain(3, no_daemon);
  return line.actor ? change(line, bus, daemon) : show(line, bus);
}
