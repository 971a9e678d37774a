// SPDX-License-Identifier: MIT
// dm_tables_test.cpp: station types and actors, row by row, and the ways to find them.
#include <gtest/gtest.h>

#include <iterator>
#include <string>
#include <vector>

#include "plugins/display-manager/display-manager.h"
#include "tests/unit/capture.h"

using Words = std::vector<std::string>;

TEST(StationTypeTable, its_rows_stand_in_this_order) {
  EXPECT_EQ(station_type_table[0].code, 2);
  EXPECT_STREQ(station_type_table[0].name, "PCI");
  EXPECT_EQ(station_type_table[1].code, 3);
  EXPECT_STREQ(station_type_table[1].name, "USB");
  EXPECT_EQ(station_type_table[2].code, 1);
  EXPECT_STREQ(station_type_table[2].name, "COMMON");
  EXPECT_EQ(station_type_table[3].code, 0);
  EXPECT_EQ(station_type_table[3].name, nullptr);
}

TEST(ActorTable, its_rows_stand_in_this_order) {
  const struct {
    const char* name;
    int code;
    int group;
    Words argv;
  } rows[] = {
      {"init-station", 1, 0, {}},
      {"local-login", 2, 1, {"corvane-ls", "DISPLAY"}},
      {"remote-login", 3, 1, {"corvane-ls", "DISPLAY", "-query", "localhost"}},
      {"press-fkey", 4, 2, {"corvane-pfk", "-display", "--verbose", "--logfile"}},
      {"click-mouse", 5, 2, {"corvane-pfk", "-display", "--mouse", "--verbose", "--logfile"}},
      {"disable-station",
       6,
       2,
       {"corvane-x11-put-image", "DISPLAY", "CORVANE_DIR", "kva-images.bundle", "disabled"}},
      {"xhotkey", 7, 3, {"corvane-xh", "-display"}},
  };
  size_t count = 0;
  for (const auto& row : rows) {
    const ActorDefinition* actor = actor_table[count++];
    ASSERT_NE(actor, nullptr) << row.name;
    EXPECT_STREQ(actor->name, row.name);
    EXPECT_EQ(actor->code, row.code) << row.name;
    EXPECT_EQ(actor->group, row.group) << row.name;
    Words words;
    for (const char* const* word = actor->argv; *word; ++word) words.push_back(*word);
    EXPECT_EQ(words, row.argv) << row.name;
    for (size_t i = words.size(); i < std::size(actor->argv); ++i) {
      EXPECT_EQ(actor->argv[i], nullptr) << row.name << ", word " << i;
    }
  }
  EXPECT_EQ(actor_table[count], nullptr);
}

TEST(ActorTable, a_row_has_room_for_13_words_and_a_station_has_4_groups) {
  EXPECT_EQ(std::size(ActorDefinition{}.argv), 13U);
  EXPECT_EQ(actor_group_count, 4);
  EXPECT_EQ(std::size(Station{}.groups), 4U);
}

TEST(LookupStationType, each_name_has_its_code) {
  EXPECT_EQ(dm_lookup_station_type("PCI"), 2);
  EXPECT_EQ(dm_lookup_station_type("USB"), 3);
  EXPECT_EQ(dm_lookup_station_type("COMMON"), 1);
}

TEST(LookupStationType, any_other_text_is_0) {
  for (const char* text : {"", "pci", "Usb", "common", "PCI ", " PCI", "PC", "PCIE", "COMMON\n", "1", "USB2"})
    EXPECT_EQ(dm_lookup_station_type(text), 0) << text;
}

TEST(LookupActorCode, each_name_has_its_code) {
  EXPECT_EQ(dm_lookup_actor_code("init-station"), 1);
  EXPECT_EQ(dm_lookup_actor_code("local-login"), 2);
  EXPECT_EQ(dm_lookup_actor_code("remote-login"), 3);
  EXPECT_EQ(dm_lookup_actor_code("press-fkey"), 4);
  EXPECT_EQ(dm_lookup_actor_code("click-mouse"), 5);
  EXPECT_EQ(dm_lookup_actor_code("disable-station"), 6);
  EXPECT_EQ(dm_lookup_actor_code("xhotkey"), 7);
}

TEST(LookupActorCode, any_other_text_is_0) {
  for (const char* text : {"", "XHOTKEY", "xHotkey", "xhotkey ", " xhotkey", "xhotke", "xhotkeys", "7",
                           "local_login", "corvane-ls"})
    EXPECT_EQ(dm_lookup_actor_code(text), 0) << text;
}

TEST(FindActor, each_code_has_its_row) {
  for (int code = 1; code <= 7; ++code) EXPECT_EQ(dm_find_actor(code), actor_table[code - 1]) << code;
}

TEST(FindActor, any_other_code_has_none) {
  for (const int code : {0, 8, 9, 100, -1, -7, 2147483647, -2147483647})
    EXPECT_EQ(dm_find_actor(code), nullptr) << code;
}

TEST(Lookups, leave_nothing_in_the_log) {
  const CapturedLog log;
  for (const char* text : {"PCI", "local-login", "neither"}) {
    dm_lookup_station_type(text);
    dm_lookup_actor_code(text);
  }
  for (const int code : {1, 8}) dm_find_actor(code);
  EXPECT_EQ(log.text(), "");
}
