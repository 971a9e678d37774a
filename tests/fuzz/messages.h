// SPDX-License-Identifier: MIT
// messages: an input as the messages in it.
#pragma once

#include <string_view>
#include <vector>

#include "common/dbus-owners.h"

/** The messages that stand one behind the other in `input`, up to the first that the bus library refuses. */
std::vector<MessageOwner> messages_of(std::string_view input);
