// SPDX-License-Identifier: MIT
// plugin-table.cpp: the one file that knows every plugin.
//
// A new plugin is a new folder, one row here and one line in plugins/CMakeLists.txt.
#include "cs/plugin-registry.h"
#include "plugins/display-manager/dm-plugin.h"
#include "plugins/dummy/dummy-plugin.h"

Plugin* const plugin_table[] = {&dm_plugin, &dummy_plugin, nullptr};
