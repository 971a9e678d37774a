// SPDX-License-Identifier: MIT
// text_test.cpp: formatting into a bounded buffer, and owners of memory.
#include "common/text.h"

#include <csignal>
#include <cstring>

#include "tests/unit/fakes.h"

using testing::KilledBySignal;

using Owners = FakedTest;

TEST(TextFormat, an_empty_text_fits_into_one_byte) {
  char buffer[1] = {'x'};
  text_format(buffer, sizeof buffer, "%s", "");
  EXPECT_EQ(buffer[0], '\0');
}

TEST(TextFormat, a_text_that_fills_the_buffer_with_its_zero_fits) {
  char buffer[11];
  text_format(buffer, sizeof buffer, "%s is %d", "seven", 7);
  EXPECT_STREQ(buffer, "seven is 7");
}

TEST(TextFormatDeathTest, a_text_one_byte_too_long_aborts) {
  char buffer[8];
  EXPECT_EXIT(text_format(buffer, sizeof buffer, "%s", "12345678"), KilledBySignal(SIGABRT), "^$");
}

TEST(TextFormatDeathTest, a_text_that_cannot_be_formatted_aborts) {
  char buffer[8];
  const wchar_t no_character[] = {static_cast<wchar_t>(0x7fffffff), 0};
  EXPECT_EXIT(text_format(buffer, sizeof buffer, "%ls", no_character), KilledBySignal(SIGABRT), "^$");
}

TEST_F(Owners, memory_from_malloc_is_freed_with_its_owner) {
  const MemoryBook memory;
  {
    const TextOwner text(strdup("owned"));
    EXPECT_STREQ(text.get(), "owned");
    EXPECT_EQ(memory.blocks_left(), 1U);
  }
  EXPECT_EQ(memory.blocks_left(), 0U);
}
