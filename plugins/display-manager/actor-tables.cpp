// SPDX-License-Identifier: MIT
// actor-tables.cpp: the station types, the actors, and the look-ups.
//
// The tables are constant, so every thread reads them without a lock. A look-up logs nothing: each caller
// reports a miss with its own message.
#include <cstring>
#include <string_view>

#include "plugins/display-manager/display-manager.h"

const StationType station_type_table[] = {{2, "PCI"}, {3, "USB"}, {1, "COMMON"}, {0, nullptr}};

static constexpr ActorDefinition init_station = {
    .name = "init-station", .code = init_station_code, .group = 0, .argv = {}};
static constexpr ActorDefinition local_login = {
    .name = "local-login", .code = 2, .group = 1, .argv = {"corvane-ls", "DISPLAY"}};
static constexpr ActorDefinition remote_login = {
    .name = "remote-login", .code = 3, .group = 1, .argv = {"corvane-ls", "DISPLAY", "-query", "localhost"}};
static constexpr ActorDefinition press_fkey = {.name = "press-fkey",
                                               .code = 4,
                                               .group = 2,
                                               .argv = {"corvane-pfk", "-display", "--verbose", "--logfile"}};
static constexpr ActorDefinition click_mouse = {
    .name = "click-mouse",
    .code = 5,
    .group = 2,
    .argv = {"corvane-pfk", "-display", "--mouse", "--verbose", "--logfile"}};
static constexpr ActorDefinition disable_station = {
    .name = "disable-station",
    .code = 6,
    .group = 2,
    .argv = {"corvane-x11-put-image", "DISPLAY", "CORVANE_DIR", "kva-images.bundle", "disabled"}};
static constexpr ActorDefinition xhotkey = {
    .name = "xhotkey", .code = 7, .group = 3, .argv = {"corvane-xh", "-display"}};

constexpr const ActorDefinition* const actor_table[] = {&init_station, &local_login, &remote_login,
                                                        &press_fkey,   &click_mouse, &disable_station,
                                                        &xhotkey,      nullptr};

// Whether an actor's group exists, its arguments, as dm_expand_argv expands them, fit their vector, and each
// word fits its text.
static constexpr bool row_fits(const ActorDefinition& actor) {
  if (actor.group < 0 || actor.group >= actor_group_count) return false;
  int count = 0;
  for (const char* const* word = actor.argv; *word; ++word) {
    const std::string_view text = *word;
    if (text.size() >= argument_size) return false;
    if (text == "CORVANE_DIR") {
      if (!word[1]) return false;  // the name of the image is missing
    } else {
      count += text == "-display" || text == "--logfile" ? 2 : 1;
    }
  }
  return count <= max_arguments;
}

static constexpr bool all_rows_fit() {
  for (const ActorDefinition* const* actor = actor_table; *actor; ++actor) {
    if (!row_fits(**actor)) return false;
  }
  return true;
}
static_assert(
    all_rows_fit(),
    "an actor has no such group, too many arguments, too long a word, or CORVANE_DIR without an image");

int dm_lookup_station_type(const char* name) {
  const StationType* type = station_type_table;
  while (type->name && strcmp(type->name, name) != 0) ++type;
  return type->code;
}

int dm_lookup_actor_code(const char* name) {
  for (const ActorDefinition* const* actor = actor_table; *actor; ++actor) {
    if (strcmp((*actor)->name, name) == 0) return (*actor)->code;
  }
  return 0;
}

const ActorDefinition* dm_find_actor(int code) {
  const ActorDefinition* const* actor = actor_table;
  while (*actor && (*actor)->code != code) ++actor;
  return *actor;
}
