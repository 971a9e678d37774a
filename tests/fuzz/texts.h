// SPDX-License-Identifier: MIT
// texts: how inputs are cut into texts, and how numbers in texts are understood.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "common/text.h"

/** A copy in a block of exactly its size, so that a read behind its end is seen. Ends at the first zero. */
TextOwner exact_text(std::string_view text);

/** The lines of an input, without their ends, each cut at its first zero. */
std::vector<std::string> lines_of(std::string_view input);

/** A decimal number as C reads it: white space and a sign are let through. */
struct Number {
  bool found;
  long long value;  // of 17 digits at most; of more, some number of 18 digits with the right sign
  size_t end;       // where the text goes on
};
Number number_at(std::string_view text, size_t at);

/** The display number that an X display text names; -1 if it names none, or one beyond int. */
int display_named_by(std::string_view text);
