// SPDX-License-Identifier: MIT
// messages: splits an input into D-Bus messages.
#pragma once

#include <string_view>
#include <vector>

#include "common/dbus-owners.h"

/** The consecutive messages in `input`, up to the first that libdbus rejects. */
std::vector<MessageOwner> messages_of(std::string_view input);
