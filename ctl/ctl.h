// SPDX-License-Identifier: MIT
// ctl: the command line of corvane-ctl, and what it knows about the daemon's stations.
//
// corvane-ctl trusts the process table. Any line of the log may be forged, because the log contains texts of
// callers, with newlines. So the log only adds what the process table does not show.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "common/paths.h"
#include "plugins/display-manager/display-manager.h"

using Words = std::vector<std::string>;

struct GroupKey {
  int display = -1;  // -1: unknown, like the group
  int group = -1;
  friend auto operator<=>(const GroupKey&, const GroupKey&) = default;
};

struct CommandLine {
  Words words;       // command, display, actor and type, as far as the command has them
  int display = -1;  // -1: all
  const ActorDefinition* actor = nullptr;
  std::string name;  // of display and actor, such as ":1 local-login"
  std::string bus;   // the bus address; empty: not given
  std::set<std::string> options;
};

struct Process {
  pid_t pid = 0;              // 0: none
  pid_t parent = 0;           // 0: it is dead, or has not become its program yet
  time_t started = 0;         // seconds since 1970
  unsigned long ignored = 0;  // signals; the lowest bit is signal 1
  std::string command = {};   // its arguments, separated by spaces
};

/** For a child of the daemon whose command line matches no actor. */
inline constexpr ActorDefinition unknown_actor = {.name = "(unknown)", .code = 0, .group = -1, .argv = {}};

/** A group of a station that has had an actor; or one of its processes, if it has several. */
struct Row {
  GroupKey key = {};
  const ActorDefinition* actor = &unknown_actor;  // the last one
  std::string state = "stopped";
  std::string reason = {};  // why it is in this state; empty: nothing to report
  Process process = {};     // set while it runs

  // From the log.
  int starts = 0;
  pid_t child = 0;       // the last one
  time_t launched = 0;   // or when its thread began
  time_t ended = 0;      // 0: the child's death is not logged
  time_t pause = 0;      // from the last death to the launch, in seconds
  int quick = 0;         // consecutive children that ended at once
  bool stopped = false;  // and not started since
};

/** The stations of one daemon. */
struct Stations {
  Process daemon = {};
  std::multimap<GroupKey, Row> rows = {};  // within a group by age
  bool is_launching = false;               // a group's child is between the log and the process table

  // From the log.
  bool has_log = true;
  bool is_complete = false;                                   // the log has the daemon's first line
  std::string refusal = std::string("see ") + log_file_path;  // the last one
  std::map<GroupKey, Row> groups = {};                        // the row without an actor has no key
  std::map<pid_t, GroupKey> children = {};
};

/** Parses the words after the program's name. Returns an error message, empty if there is no error. */
std::string command_line_parse(const Words& given, CommandLine* line);

/** Parses the text of /proc/PID/stat. False when the process does not run, or the text is not valid. */
bool process_parse(const std::string& stat, Process* process);

/** The command line of an actor on a display; empty without a program. Valid until the process ends. */
const std::string& actor_command(const ActorDefinition* actor, int display);

/** The actor with this command line, and its group. An interpreter or a path before the program is ignored.
 */
const ActorDefinition* actor_of(const std::string& command, GroupKey* key);

/** Adds the facts of the log. Ignores all other lines. */
void log_parse(const std::string& log, Stations* stations);

/** Makes the rows, from the daemon's children, sorted by age, and from the facts of the log. */
void stations_join(Stations* stations, const std::vector<Process>& children, time_t now);

/**
 * Reads the log of this daemon, then its children; of all displays, or of one. Reads nothing for pid 0.
 * While an actor is being launched it looks like one that has ended: reads again then, for up to a second.
 */
Stations stations_look(pid_t daemon, int display);

/** Escapes a caller's text for a terminal, or for a JSON string: every character with an effect there. */
std::string text_escaped(const std::string& text, bool json = false);
