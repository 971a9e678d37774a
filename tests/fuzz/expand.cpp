// SPDX-License-Identifier: MIT
// expand.cpp: the expansion of an actor's words into the arguments of its process.
//
// The first line of an input is the display number and, behind it, which copy of a text finds no memory (0 or
// nothing: none); each further line is a word of the template, as far as the arguments of a process go.
#include <sanitizer/asan_interface.h>

#include <algorithm>
#include <climits>

#include "plugins/display-manager/display-manager.h"
#include "tests/fuzz/harness.h"
#include "tests/fuzz/texts.h"

namespace {

constexpr size_t most_bytes = 63;  // of the program's name and of an expansion

struct Template {
  int display_num = 0;
  long long copy_to_fail = 0;
  std::vector<std::string> words;  // the program first
};

struct Expansion {
  std::string ending = "return";
  int result = 0;
  std::vector<std::string> argv;
  size_t left_behind = 0;  // texts that a replaced word leaves, deliberately
};

thread_local bool copying;  // inside the product; the fuzzer has threads of its own
long long copy_to_fail;
std::vector<char*> copies;

size_t arguments_of(const std::string& word) {
  return word == "-display" || word == "--logfile" ? 2 : 1;
}

Template template_of(std::string_view input) {
  Template made;
  std::vector<std::string> lines = lines_of(input);
  if (lines.empty()) return made;
  const Number display = number_at(lines[0], 0);
  made.display_num = static_cast<int>(std::clamp<long long>(display.value, INT_MIN, INT_MAX));
  made.copy_to_fail = number_at(lines[0], display.end).value;

  constexpr size_t most_words = std::size(ActorDefinition{}.argv) - 1;
  size_t arguments = 0;
  for (size_t i = 1; i < lines.size(); ++i) {
    const size_t taken = lines[i] == "CORVANE_DIR" ? 2 : 1;
    arguments += arguments_of(lines[i]);
    if (arguments > max_arguments || i + taken > lines.size() || made.words.size() + taken > most_words)
      break;
    made.words.push_back(lines[i]);
    if (taken == 2) made.words.push_back(lines[++i]);
  }
  return made;
}

Expansion expansion_of(const Template& from) {
  Expansion made;
  const std::string display = ":" + std::to_string(from.display_num);
  const std::string log = "/var/log/" + from.words[0] + std::to_string(from.display_num) + ".log";
  if (from.words[0].size() > most_bytes) {
    made.ending = "abort";
    return made;
  }
  long long made_copies = 0;
  for (size_t i = 0; i < from.words.size(); ++i) {
    const std::string& word = from.words[i];
    std::vector<std::string> arguments = {word};
    bool replaced = false;
    if (word == "-display") arguments.push_back(display);
    if (word == "--logfile") arguments.push_back(log);
    if (word == "DISPLAY") {
      arguments = {display};
      replaced = true;
    }
    if (word == "CORVANE_DIR") {
      arguments = {"/usr/share/corvane/images/" + from.words[++i]};
      replaced = true;
    }
    if ((replaced || arguments.size() == 2) && arguments.back().size() > most_bytes) {
      made.ending = "abort";
      return made;
    }
    // A word is copied before anything is made of it.
    const long long needed = replaced ? 2 : static_cast<long long>(arguments.size());
    const long long failing = from.copy_to_fail - made_copies;
    if (replaced && failing != 1) ++made.left_behind;
    if (failing >= 1 && failing <= needed) {
      made.result = -1;
      return made;
    }
    made_copies += needed;
    made.argv.insert(made.argv.end(), arguments.begin(), arguments.end());
  }
  return made;
}

// Frees what the product has not; returns how much that was.
size_t free_the_rest() {
  size_t count = 0;
  for (char* copy : copies) {
    if (__asan_address_is_poisoned(copy)) continue;  // freed already
    free(copy);
    ++count;
  }
  copies.clear();
  return count;
}

}  // namespace

extern "C" {
char* __real_strdup(const char* text);
char* __wrap_strdup(const char* text);
char* __wrap_strdup(const char* text) {
  if (!copying) return __real_strdup(text);
  if (copy_to_fail > 0 && --copy_to_fail == 0) return nullptr;
  copies.push_back(__real_strdup(text));
  return copies.back();
}
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Template from = template_of({reinterpret_cast<const char*>(data), size});
  if (from.words.empty()) return -1;  // an actor without a program is not expanded
  ActorDefinition actor = {.name = "actor", .code = 1, .group = 1, .argv = {}};
  for (size_t i = 0; i < from.words.size(); ++i) actor.argv[i] = from.words[i].c_str();

  static char unwritten[] = "unwritten";
  char* argv[max_arguments + 1];
  for (char*& argument : argv) argument = unwritten;
  int result = 0;
  copy_to_fail = from.copy_to_fail;
  copying = true;
  const std::string ending = ending_of([&] { result = dm_expand_argv(&actor, from.display_num, argv); });
  copying = false;

  const Expansion expected = expansion_of(from);
  expect(ending == expected.ending, "%s, not %s", expected.ending.c_str(), ending.c_str());
  if (ending == "abort") {
    free_the_rest();
    return 0;
  }
  expect(result == expected.result, "%d, not %d", expected.result, result);
  if (result == 0) {
    std::vector<std::string> seen;
    for (char** argument = argv; *argument; ++argument) seen.emplace_back(*argument);
    expect(seen.size() == expected.argv.size(), "%zu arguments, not %zu", expected.argv.size(), seen.size());
    for (size_t i = 0; i < seen.size(); ++i) {
      expect(seen[i] == expected.argv[i], "\"%s\" as argument %zu, not \"%s\"", expected.argv[i].c_str(), i,
             seen[i].c_str());
    }
    dm_free_argv(argv);
  }
  const size_t left_behind = free_the_rest();
  expect(left_behind == expected.left_behind, "%zu texts left behind, not %zu", expected.left_behind,
         left_behind);
  return 0;
}
