// SPDX-License-Identifier: MIT
// display.cpp: the display parser; the input is the text.
#include <cerrno>

#include "plugins/display-manager/dm-dbus.h"
#include "tests/fuzz/harness.h"
#include "tests/fuzz/texts.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const TextOwner text = exact_text({reinterpret_cast<const char*>(data), size});
  errno = ERANGE;  // from an earlier call; the parser must ignore it
  const int parsed = dm_parse_display(text.get());
  const int expected = display_named_by(text.get());
  expect(parsed == expected, "%d for \"%s\", not %d", expected, text.get(), parsed);
  return 0;
}
