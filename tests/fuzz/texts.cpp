// SPDX-License-Identifier: MIT
// texts.cpp: reads numbers digit by digit, so that it cannot share an error with strtol(3).
#include "tests/fuzz/texts.h"

#include <climits>
#include <cstring>

TextOwner exact_text(std::string_view text) {
  return TextOwner(strndup(text.data(), text.size()));
}

namespace {

/** A decimal number in C's notation, with leading white space and a sign. */
struct Number {
  bool found;
  long long value;  // exact up to 17 digits; beyond that, some 18-digit number with the correct sign
  size_t end;       // the position after the number
};

Number number_at(std::string_view text, size_t at) {
  const auto next_is_one_of = [&](std::string_view characters) {
    return at < text.size() && characters.find(text[at]) != std::string_view::npos;
  };
  constexpr long long most = 100'000'000'000'000'000;
  while (next_is_one_of(" \t\n\v\f\r")) ++at;
  const bool negative = next_is_one_of("-");
  if (next_is_one_of("+-")) ++at;
  Number number = {.found = false, .value = 0, .end = 0};
  for (; next_is_one_of("0123456789"); ++at) {
    number.found = true;
    if (number.value < most) number.value = number.value * 10 + (text[at] - '0');
  }
  if (negative) number.value = -number.value;
  number.end = at;
  return number;
}

}  // namespace

int display_named_by(std::string_view text) {
  const auto fits = [](const Number& number) {
    return number.found && number.value >= INT_MIN && number.value <= INT_MAX;
  };
  const size_t colon = text.find(':');
  if (colon == std::string_view::npos) return -1;
  const Number display = number_at(text, colon + 1);
  if (!fits(display)) return -1;
  size_t end = display.end;
  if (end < text.size() && text[end] == '.') {
    const Number screen = number_at(text, end + 1);
    if (!fits(screen)) return -1;
    end = screen.end;
  }
  return end == text.size() ? static_cast<int>(display.value) : -1;
}
