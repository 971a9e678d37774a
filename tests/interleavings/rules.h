// SPDX-License-Identifier: MIT
// rules: what must be true of each decision of the daemon, and at the end of each schedule.
#pragma once

#include "tests/interleavings/world.h"

inline constexpr const char* a_new_thread = "a thread";

/** Fails unless this message, or a_new_thread, is what the thread must log or make next. */
void check_owed(Thread* thread, std::string_view what);

/** Fails if the worker's decision, which this message reports, is wrong. The text is zero-terminated. */
void check_decision(ExpectedStation& station, std::string_view message);

/** Fails unless the thread may launch a child now. */
void check_launch(Supervisor& self, pid_t child);
