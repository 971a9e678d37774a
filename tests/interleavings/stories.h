// SPDX-License-Identifier: MIT
// stories: what is asked of the stations, and under which conditions.
#pragma once

#include <vector>

#include "tests/interleavings/world.h"

/** The stories of the short form. */
std::vector<Story> short_stories();

/** Longer ones, which take longer. */
std::vector<Story> long_stories();
