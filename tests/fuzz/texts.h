// SPDX-License-Identifier: MIT
// texts: input texts, and the oracle for display texts.
#pragma once

#include <string_view>

#include "common/text.h"

/** A copy in a block of exactly its size, so that the sanitizer reports a read past its end. Ends at the
 * first NUL. */
TextOwner exact_text(std::string_view text);

/** The display number in an X display text, or -1 if there is none or it is out of range for an int. */
int display_named_by(std::string_view text);
