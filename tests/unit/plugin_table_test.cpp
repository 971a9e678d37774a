// SPDX-License-Identifier: MIT
// plugin_table_test.cpp: the product's plugin table.
#include <gtest/gtest.h>

#include "cs/plugin-registry.h"
#include "plugins/display-manager/dm-plugin.h"
#include "plugins/dummy/dummy-plugin.h"

TEST(PluginTable, the_display_manager_comes_before_dummy_and_null_ends_the_table) {
  EXPECT_EQ(plugin_table[0], &dm_plugin);
  EXPECT_EQ(plugin_table[1], &dummy_plugin);
  EXPECT_EQ(plugin_table[2], nullptr);
}

TEST(PluginTable, each_plugin_has_its_name_and_path_and_no_context_before_its_init) {
  EXPECT_STREQ(plugin_table[0]->name, "DisplayManager");
  EXPECT_STREQ(plugin_table[0]->path, "/com/corvane/ControlServer/DisplayManager");
  EXPECT_EQ(plugin_table[0]->context, nullptr);
  EXPECT_STREQ(plugin_table[1]->name, "Dummy");
  EXPECT_STREQ(plugin_table[1]->path, "/com/corvane/ControlServer/Dummy");
  EXPECT_EQ(plugin_table[1]->context, nullptr);
}

TEST(PluginTable, each_plugin_has_its_own_functions) {
  EXPECT_EQ(plugin_table[0]->init, dm_init);
  EXPECT_EQ(plugin_table[0]->fin, dm_fin);
  EXPECT_EQ(plugin_table[0]->handle_message, dm_handle_dbus_message);
  EXPECT_EQ(plugin_table[1]->init, dummy_init);
  EXPECT_EQ(plugin_table[1]->fin, dummy_fin);
  EXPECT_EQ(plugin_table[1]->handle_message, dummy_handle_dbus_message);
}
