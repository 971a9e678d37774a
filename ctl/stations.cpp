// SPDX-License-Identifier: MIT
// stations.cpp: the state of each station's groups, from the process table (proc(5)) and the daemon's log.
//
// Both are read again for each look, because the daemon writes its log and logrotate truncates it meanwhile.
#include <dbus/dbus.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "ctl/ctl.h"

static constexpr int max_log_bytes = 1 << 20;  // of a log
static constexpr time_t restart_pause = 2;     // seconds; the daemon's
static constexpr time_t given_up = 12;         // seconds; after that no restart is expected
static constexpr int failing_from = 3;         // consecutive children that ended at once
static constexpr int most_looks = 50;          // 20 ms apart, while an actor is being launched

// ---- the process table --------------------------------------------------------------------------------

// The last bytes of a file; empty when it cannot be read.
static std::string contents(const std::string& path) {
  static char buffer[max_log_bytes];
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  lseek(file, -off_t{max_log_bytes}, SEEK_END);  // fails for a shorter file, which is read as a whole
  const ssize_t length = read(file, buffer, max_log_bytes);
  close(file);
  return {buffer, static_cast<size_t>(std::max<ssize_t>(length, 0))};
}

// A process chooses its own name, so the fields are counted from the last parenthesis.
bool process_parse(const std::string& stat, Process* process) {
  static const std::string machine = contents("/proc/stat");
  const double boot = strtod(machine.c_str() + std::min(machine.find("btime ") + 6, machine.size()), nullptr);
  char state = 0;
  unsigned flags = 0;
  double ticks = 0;
  // NOLINTNEXTLINE(cert-err34-c): the kernel's numbers fit
  const int fields = sscanf(&stat[stat.rfind(')') + 1],
                            " %c %d %*s %*s %*s %*s %u %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %lf"
                            " %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %lu",
                            &state, &process->parent, &flags, &ticks, &process->ignored);
  process->started = static_cast<time_t>(boot + ticks / static_cast<double>(sysconf(_SC_CLK_TCK)));
  return fields == 5 && state != 'Z' && (flags & 0x40U) == 0;  // PF_FORKNOEXEC: no exec since the fork
}

static Process process_of(const std::string& name) {
  const std::string place = "/proc/" + name + "/";
  Process process = {.pid = static_cast<pid_t>(strtol(name.c_str(), nullptr, 10))};
  process.command = contents(place + "cmdline");
  if (!process_parse(contents(place + "stat"), &process)) process.parent = 0;
  std::ranges::replace(process.command, '\0', ' ');
  process.command.resize(process.command.find_last_not_of(' ') + 1);
  return process;
}

static std::vector<Process> children_of(pid_t parent) {
  std::vector<Process> children;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const Process process = process_of(entry.path().filename());
    if (process.parent == parent) children.push_back(process);
  }
  std::ranges::stable_sort(children, {}, &Process::started);
  return children;
}

// Why an actor does not run: its program has ended, or is not on the daemon's PATH, if that can be read.
static std::string reason_of(pid_t daemon, const std::string& program) {
  std::string environment = '\0' + contents("/proc/" + std::to_string(daemon) + "/environ");
  const size_t path = environment.find(std::string("\0PATH=", 6));
  if (path == std::string::npos) return program + " has ended";
  for (char* directory = strtok(&environment[path + 6], ":"); directory; directory = strtok(nullptr, ":"))
    if (access((directory + ("/" + program)).c_str(), X_OK) == 0) return program + " has ended";
  return program + " was not found";
}

// dm_expand_argv deliberately leaks a few bytes each time, so no expansion is made twice.
const std::string& actor_command(const ActorDefinition* actor, int display) {
  static std::map<std::pair<int, int>, std::string> commands;
  const auto [command, is_new] = commands.try_emplace({actor->code, display});
  char* argv[max_arguments + 1] = {};
  if (is_new && actor->argv[0] && dm_expand_argv(actor, display, argv) == 0) {
    for (char** word = argv; *word; ++word) command->second += (word == argv ? "" : " ") + std::string(*word);
    dm_free_argv(argv);
  }
  return command->second;
}

const ActorDefinition* actor_of(const std::string& command, GroupKey* key) {
  const std::string line = " " + command;
  const auto display = static_cast<int>(strtol(&line[line.find(" :") + 2], nullptr, 10));
  for (const ActorDefinition* const* actor = actor_table; *actor && display >= 0; ++actor) {
    const std::string& own = actor_command(*actor, display);
    if (own.empty() || !line.ends_with(own) || !strchr(" /", line[line.size() - own.size() - 1])) continue;
    *key = {display, (*actor)->group};
    return *actor;
  }
  return &unknown_actor;
}

// ---- the log ------------------------------------------------------------------------------------------

// The daemon's own descriptor leads to its log even after a rename. Only root may read it.
static std::string log_of(pid_t daemon) {
  std::error_code error;
  for (int number = 0; number < 64; ++number) {
    std::string descriptor = "/proc/" + std::to_string(daemon) + "/fd/" + std::to_string(number);
    if (std::filesystem::read_symlink(descriptor, error).native().starts_with(log_file_path))
      return descriptor;
  }
  return log_file_path;
}

static time_t time_of(const std::string& line) {
  struct tm local = {};
  strptime(line.c_str(), "%F %T", &local);
  local.tm_isdst = -1;
  return mktime(&local);
}

// The group of an actor, added if it is new. Without a valid actor it is the group without a key.
static Row* group_of(Stations* stations, int display, int actor_code) {
  const ActorDefinition* actor = dm_find_actor(actor_code);
  if (!actor || display < 0) return &stations->groups[{}];
  Row* group = &stations->groups[{display, actor->group}];
  group->key = {display, actor->group};
  group->actor = actor;
  return group;
}

// The group whose last child has this pid.
static Row* group_with(Stations* stations, pid_t child) {
  Row* group = &stations->groups[stations->children[child]];
  return group->child == child ? group : &stations->groups[{}];
}

// NOLINTBEGIN(cert-err34-c): a number that does not fit is from a forged line, and any value will do
static void parse_line(const std::string& line, Stations* stations) {
  const size_t level = line.find(": DEBUG: ");
  const char* text = level == std::string::npos ? "" : &line[level + strlen(": DEBUG: ")];
  int n[3] = {};
  if (sscanf(text, "DISPLAY=:%d, actor_code=%d, child=%d", &n[0], &n[1], &n[2]) == 3) {
    Row* group = group_of(stations, n[0], n[1]);
    stations->children[n[2]] = group->key;
    group->starts += 1;
    group->child = n[2];
    group->launched = time_of(line);
    group->pause = group->ended != 0 ? group->launched - group->ended : 0;
    group->ended = 0;
  } else if (sscanf(text, "Child process died: %d", &n[0]) == 1) {
    Row* group = group_with(stations, n[0]);
    group->ended = time_of(line);
    group->quick = group->ended <= group->launched + 1 ? group->quick + 1 : 0;
  } else if (sscanf(text, "proc_method_stop: child_pid %d", &n[0]) == 1) {
    group_with(stations, n[0])->stopped = true;
  } else if (sscanf(text, "%*[a-z_]() for actor_code:%d, display_num:%d", &n[0], &n[1]) == 2) {
    Row* group = group_of(stations, n[1], n[0]);
    *group = {.key = group->key, .actor = group->actor, .starts = group->starts, .launched = time_of(line)};
  } else if (strncmp(text, "{DM} Unable ", 12) == 0 && strcmp(text, "{DM} Unable to add event") != 0) {
    stations->refusal = text + strlen("{DM} ");
  } else if (strcmp(text, "Initialize DBus connection and Watches ...") == 0) {
    *stations = {.daemon = stations->daemon, .is_complete = true};
  }
}
// NOLINTEND(cert-err34-c)

void log_parse(const std::string& log, Stations* stations) {
  // If the log was not read as a whole, its first line may be incomplete.
  size_t begin = log.size() < size_t{max_log_bytes} ? 0 : log.find('\n') + 1;
  for (size_t end = 0; (end = log.find('\n', begin)) != std::string::npos; begin = end + 1)
    parse_line(log.substr(begin, end - begin), stations);
}

// ---- both ---------------------------------------------------------------------------------------------

static void add_child(const Process& child, Stations* stations) {
  GroupKey key = stations->children[child.pid];
  const ActorDefinition* actor = actor_of(child.command, &key);
  Row row = stations->groups[key];
  if (actor != &unknown_actor) row.actor = actor;
  if (row.stopped && row.child == child.pid) row.reason = "was stopped, and still runs";
  row.key = key;
  row.state = "runs";
  row.process = child;
  stations->rows.emplace(key, row);
}

// A child that is gone without a logged death has ended just now, or with an earlier daemon.
static Row row_of_past(Row row, const Process& daemon, time_t now) {
  const time_t end = row.ended != 0 ? row.ended : row.launched < daemon.started ? row.launched : now;
  if (row.key.group == 0) row.state = "ready";
  if (row.key.group == 0 || row.child == 0 || row.stopped || now > end + given_up) return row;
  const std::string left = std::to_string(std::max<time_t>(end + restart_pause - now, 0));
  row.state = row.quick < failing_from ? "restarting in " + left + " s"
                                       : "fails again and again, " + std::to_string(row.pause) + " s";
  row.reason = reason_of(daemon.pid, row.actor->argv[0]);
  return row;
}

void stations_join(Stations* stations, const std::vector<Process>& children, time_t now) {
  for (const Process& child : children) add_child(child, stations);
  for (const auto& [key, group] : stations->groups) {
    if (key.display < 0 || stations->rows.contains(key)) continue;
    const bool is_open = key.group != 0 && !group.stopped && group.ended == 0;
    stations->is_launching |= is_open && std::abs(now - group.launched) <= 1;
    stations->rows.emplace(key, row_of_past(group, stations->daemon, now));
  }
}

static Stations look_once(pid_t daemon) {
  const std::string log = contents(log_of(daemon));
  Stations stations = {.daemon = process_of(std::to_string(daemon)), .has_log = !log.empty()};
  log_parse(log, &stations);
  stations_join(&stations, children_of(daemon), time(nullptr));
  return stations;
}

Stations stations_look(pid_t daemon, int display) {
  if (daemon == 0) return {};
  Stations stations = look_once(daemon);
  for (int looks = 1; stations.is_launching && looks < most_looks && usleep(20000) == 0; ++looks)
    stations = look_once(daemon);
  std::erase_if(stations.rows, [=](const auto& row) { return display >= 0 && row.first.display != display; });
  return stations;
}

std::string text_escaped(const std::string& text, bool json) {
  const bool is_utf8 = strlen(text.c_str()) == text.size() && dbus_validate_utf8(text.c_str(), nullptr);
  std::string escaped;
  for (size_t at = 0; at < text.size(); ++at) {
    const bool is_pair = is_utf8 && text[at] == '\xc2' && (text[at + 1] & 0xe0) == 0x80;  // U+0080 to U+009F
    const auto byte = static_cast<unsigned char>(text[is_pair ? ++at : at]);
    char shown[8] = {text[at]};
    if (is_pair || byte < 0x20 || byte == 0x7f || (byte > 0x7f && !is_utf8) || (json && strchr("\"\\", byte)))
      snprintf(shown, sizeof shown, json ? "\\u%04x" : "\\x%02x", byte);
    escaped += shown;
  }
  return escaped;
}
