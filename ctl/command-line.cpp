// SPDX-License-Identifier: MIT
// command-line.cpp: the command line of corvane-ctl.
//
// Names are checked against the daemon's own tables. The message for an unknown name lists all known ones.
#include <algorithm>

#include "ctl/ctl.h"
#include "plugins/display-manager/dm-dbus.h"

// Whether two words differ in only one place, by at most two letters.
static bool is_close(const std::string& a, const std::string& b) {
  const auto front = std::mismatch(a.begin(), a.end(), b.begin(), b.end()).first - a.begin();
  const auto back = std::mismatch(a.rbegin(), a.rend(), b.rbegin(), b.rend()).first - a.rbegin();
  return front + back > 0 && static_cast<size_t>(front + back) + 2 >= std::max(a.size(), b.size());
}

// Returns an empty text if the word is known, else an error message with the close words and all words.
static std::string check(const std::string& kind, const std::string& word, const Words& known) {
  if (std::ranges::find(known, word) != known.end()) return "";
  std::string text = "no such " + kind + ": " + text_escaped(word) + "; there are";
  for (const std::string& each : known) text += " " + each;
  for (const std::string& each : known) text += is_close(word, each) ? "; did you mean " + each + "?" : "";
  return text;
}

static std::string check_names(CommandLine* line) {
  Words actors;
  Words types;
  for (const ActorDefinition* const* row = actor_table; *row; ++row) actors.emplace_back((*row)->name);
  for (const StationType* type = station_type_table; type->name; ++type) types.emplace_back(type->name);
  line->actor = dm_find_actor(dm_lookup_actor_code(line->words[2].c_str()));
  if (!line->actor) return check("actor", line->words[2], actors);
  line->name = line->words[1] + " " + line->words[2];
  if (line->words[0] == "start" && line->words.size() == 3) line->words.emplace_back("COMMON");
  return line->words[0] == "start" ? check("type", line->words[3], types) : "";
}

static std::string check_words(CommandLine* line) {
  Words& words = line->words;
  if (words.empty()) return "no command; see corvane-ctl --help";
  std::string wrong = check("command", words[0], {"start", "stop", "status", "watch", "actors"});
  if (!wrong.empty()) return wrong;
  const size_t most = words[0] == "start" ? 4 : words[0] == "stop" ? 3 : words[0] == "actors" ? 1 : 2;
  if (words.size() > most || (most > 2 && words.size() < 3))
    return "too many or too few words for " + words[0] + "; see corvane-ctl --help";
  if (words.size() == 1) return "";
  line->display = dm_parse_display(words[1].c_str());
  if (line->display < 0) return "no display: " + text_escaped(words[1]) + "; displays are written :0, :1";
  words[1] = ":" + std::to_string(line->display);
  return words.size() > 2 ? check_names(line) : "";
}

std::string command_line_parse(const Words& given, CommandLine* line) {
  const Words known = {"--bus ADDRESS", "--help", "--json",    "--no-wait",
                       "--session",     "-v",     "--verbose", "--version"};
  std::string wrong;
  for (auto word = given.begin(); word != given.end() && wrong.empty(); ++word) {
    if (*word == "--bus" && word + 1 != given.end()) {
      line->bus = *++word;
    } else if (word->starts_with("-")) {
      line->options.insert(*word == "-v" ? "--verbose" : *word);
      wrong = check("option", *word, known);
    } else {
      line->words.push_back(*word);
    }
  }
  const bool is_about_itself = line->options.contains("--help") || line->options.contains("--version");
  return wrong.empty() && !is_about_itself ? check_words(line) : wrong;
}
