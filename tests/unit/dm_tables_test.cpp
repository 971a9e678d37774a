// SPDX-License-Identifier: MIT
// dm_tables_test.cpp: each row of the station types and the actors, and the lookups.
#include <gtest/gtest.h>

#include <iterator>
#include <string>
#include <vector>

#include "plugins/display-manager/display-manager.h"

using Words = std::vector<std::string>;

TEST(StationTypeTable, the_rows_are_in_order_and_each_is_found_by_its_name) {
  const StationType rows[] = {{2, "PCI"}, {3, "USB"}, {1, "COMMON"}};
  size_t count = 0;
  for (const StationType& row : rows) {
    EXPECT_EQ(station_type_table[count].code, row.code) << row.name;
    EXPECT_STREQ(station_type_table[count++].name, row.name);
    EXPECT_EQ(dm_lookup_station_type(row.name), row.code) << row.name;
  }
  EXPECT_EQ(station_type_table[count].code, 0);
  EXPECT_EQ(station_type_table[count].name, nullptr);
}

TEST(ActorTable, the_rows_are_in_order_and_each_is_found_by_its_name_and_its_code) {
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
    EXPECT_EQ(dm_lookup_actor_code(row.name), row.code);
    EXPECT_EQ(dm_find_actor(row.code), actor) << row.name;
    Words words;
    for (const char* const* word = actor->argv; *word; ++word) words.push_back(*word);
    EXPECT_EQ(words, row.argv) << row.name;
    for (size_t i = words.size(); i < std::size(actor->argv); ++i) {
      EXPECT_EQ(actor->argv[i], nullptr) << row.name << ", word " << i;
    }
  }
  EXPECT_EQ(actor_table[count], nullptr);
}

TEST(ActorTable, a_row_has_13_words_a_vector_9_arguments_and_a_station_4_groups) {
  EXPECT_EQ(std::size(ActorDefinition{}.argv), 13U);
  EXPECT_EQ(max_arguments, 9);
  EXPECT_EQ(actor_group_count, 4);
  EXPECT_EQ(std::size(Station{}.groups), 4U);
}

TEST(LookupStationType, any_other_text_is_0) {
  for (const char* text : {"", "pci", "Usb", "common", "PCI ", " PCI", "PC", "PCIE", "COMMON\n", "1", "USB2"})
    EXPECT_EQ(dm_lookup_station_type(text), 0) << text;
}

TEST(LookupActorCode, any_other_text_is_0) {
  for (const char* text : {"", "XHOTKEY", "xHotkey", "xhotkey ", " xhotkey", "xhotke", "xhotkeys", "7",
                           "local_login", "corvane-ls"})
    EXPECT_EQ(dm_lookup_actor_code(text), 0) << text;
}

TEST(FindActor, any_other_code_has_no_row) {
  for (const int code : {0, 8, 9, 100, -1, -7, 2147483647, -2147483647})
    EXPECT_EQ(dm_find_actor(code), nullptr) << code;
}
