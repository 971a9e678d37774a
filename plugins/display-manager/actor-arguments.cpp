// SPDX-License-Identifier: MIT
// actor-arguments.cpp: expands an actor's words to the argument vector of its process.
//
// Group threads call this before each launch. The strings of the vector come from malloc and belong to the
// caller.
#include <cstdlib>
#include <cstring>

#include "plugins/display-manager/display-manager.h"

static constexpr const char* image_directory = "/usr/share/corvane";

// Appends a copy of `text` to the vector. Returns false when memory is short.
static bool add_argument(char** argv, int* count, const char* text) {
  argv[*count] = strdup(text);
  if (!argv[*count]) return false;
  argv[++*count] = nullptr;  // NOLINT(clang-analyzer-unix.Malloc): see replace_argument
  return true;
}

// Puts a copy of `text` in the place of the last argument. The copy that was there is deliberately not freed:
// it costs a few bytes for each launch.
static bool replace_argument(char** argv, int* count, const char* text) {
  --*count;
  return add_argument(argv, count, text);
}

int dm_expand_argv(const ActorDefinition* actor, int display_num, char* argv[max_arguments + 1]) {
  char program[argument_size];
  text_format(program, sizeof program, "%s", actor->argv[0]);
  char text[argument_size];
  int count = 0;
  for (const char* const* word = actor->argv; *word; ++word) {
    bool added = add_argument(argv, &count, *word);
    if (strcmp(*word, "-display") == 0) {
      text_format(text, sizeof text, ":%d", display_num);
      added = added && add_argument(argv, &count, text);
    } else if (strcmp(*word, "DISPLAY") == 0) {
      text_format(text, sizeof text, ":%d", display_num);
      added = added && replace_argument(argv, &count, text);
    } else if (strcmp(*word, "--logfile") == 0) {
      text_format(text, sizeof text, "/var/log/%s%d.log", program, display_num);
      added = added && add_argument(argv, &count, text);
    } else if (strcmp(*word, "CORVANE_DIR") == 0) {
      ++word;
      text_format(text, sizeof text, "%s/images/%s", image_directory, *word);
      added = added && replace_argument(argv, &count, text);
    }
    if (!added) {
      dm_free_argv(argv);
      return -1;
    }
  }
  return 0;
}

void dm_free_argv(char** argv) {
  for (; *argv; ++argv) free(*argv);
}
