// SPDX-License-Identifier: MIT
// ctl: what corvane-ctl is asked for, and what it knows of the daemon's stations.
//
// The process table is believed. Any line of the log may be forged, because it carries texts of callers,
// newlines included: it adds what the process table does not show, and decides nothing else.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "common/paths.h"
#include "plugins/display-manager/display-manager.h"

using Words = std::vector<std::string>;

struct GroupKey {
  int display = -1;  // -1: unknown, as the group
  int group = -1;
  friend auto operator<=>(const GroupKey&, const GroupKey&) = default;
};

struct CommandLine {
  Words words;       // command, display, actor and type, as far as the command has them
  int display = -1;  // -1: all
  const ActorDefinition* actor = nullptr;
  std::string name;  // of both, as ":1 local-login"
  std::string bus;   // its address; empty: not given
  std::set<std::string> options;
};

struct Process {
  pid_t pid = 0;              // 0: none
  pid_t parent = 0;           // 0: it is dead, or has not become its program yet
  time_t started = 0;         // seconds since 1970
  unsigned long ignored = 0;  // signals, the lowest bit is that of signal 1
  std::string command = {};   // its words, with spaces between them
};

/** Of a child of the daemon whose command line is that of no actor. */
inline constexpr ActorDefinition unknown_actor = {.name = "(unknown)", .code = 0, .group = -1, .argv = {}};

/** A group of a station that ever had an actor; or one of its processes, if it has several. */
struct Row {
  GroupKey key = {};
  const ActorDefinition* actor = &unknown_actor;  // the last one
  std::string state = "stopped";
  std::string reason = {};  // why it is as it is; empty: nothing to say
  Process process = {};     // none unless it runs

  // From the log.
  int starts = 0;
  pid_t child = 0;       // the last one
  time_t launched = 0;   // or its thread begun
  time_t ended = 0;      // 0: the child's death is not logged
  time_t pause = 0;      // between the death before and the launch, in seconds
  int quick = 0;         // children in a row that ended at once
  bool stopped = false;  // no start came after
};

/** The stations of one daemon. */
struct Stations {
  Process daemon = {};
  std::multimap<GroupKey, Row> rows = {};  // those of a group by age
  bool is_launching = false;               // a group's child is between the log and the process table

  // What the log says.
  bool has_log = true;
  bool is_complete = false;                                   // it has the daemon's first line
  std::string refusal = std::string("see ") + log_file_path;  // the last one
  std::map<GroupKey, Row> groups = {};                        // that of no actor has no key
  std::map<pid_t, GroupKey> children = {};
};

/** Reads the words after the program's name. Returns what is wrong with them, empty if nothing is. */
std::string command_line_parse(const Words& given, CommandLine* line);

/** Reads the text of /proc/PID/stat; false when that process does not run, or the text is no such. */
bool process_parse(const std::string& stat, Process* process);

/** The command line of an actor on a display; empty for an actor without a program. Lives for ever. */
const std::string& actor_command(const ActorDefinition* actor, int display);

/** The actor that has this command line, and its group. A script's own path counts, too. */
const ActorDefinition* actor_of(const std::string& command, GroupKey* key);

/** Adds what the log says. Lines of no interest change nothing. */
void log_parse(const std::string& log, Stations* stations);

/** Makes the rows of the daemon's children, which come by age, and of what the log says. */
void stations_join(Stations* stations, const std::vector<Process>& children, time_t now);

/**
 * Looks at the log of this daemon, then at its children; for all displays, or for one. Nothing for pid 0.
 * Waits up to a second while an actor is being launched, which would look like one that has ended.
 */
Stations stations_look(pid_t daemon, int display);

/** A text of a caller for a terminal, or for within a JSON string: what could act there is escaped. */
std::string text_escaped(const std::string& text, bool json = false);
