// SPDX-License-Identifier: MIT
// paths: where the daemon's own files are.
#pragma once

inline constexpr const char* pid_file_path = "/var/run/corvane/corvane-cs.pid";
inline constexpr const char* log_file_path = "/var/log/corvane-cs.log";
