// SPDX-License-Identifier: MIT
// dm_arguments_test.cpp: the argument vector of each actor, its limits, and memory running short at each
// word.
#include <algorithm>
#include <csignal>
#include <cstring>

#include "tests/unit/dm_support.h"

using testing::KilledBySignal;
using Words = std::vector<std::string>;

namespace {

Words expanded(const ActorDefinition* actor, int display_num) {
  char* argv[max_arguments + 1];
  if (dm_expand_argv(actor, display_num, argv) != 0) return {"(no memory)"};
  Words words;
  for (char** word = argv; *word; ++word) words.push_back(*word);
  dm_free_argv(argv);
  return words;
}

using ExpandArgv = FakedTest;
using ExpandArgvDeathTest = FakedTest;

}  // namespace

TEST_F(ExpandArgv, each_actors_vector_has_its_words) {
  const struct {
    int code;
    int display_num;
    Words words;
  } cases[] = {
      {2, 0, {"corvane-ls", ":0"}},
      {3, 1, {"corvane-ls", ":1", "-query", "localhost"}},
      {4, 3, {"corvane-pfk", "-display", ":3", "--verbose", "--logfile", "/var/log/corvane-pfk3.log"}},
      {5,
       2,
       {"corvane-pfk", "-display", ":2", "--mouse", "--verbose", "--logfile", "/var/log/corvane-pfk2.log"}},
      {6, 4, {"corvane-x11-put-image", ":4", "/usr/share/corvane/images/kva-images.bundle", "disabled"}},
      {7, 2147483647, {"corvane-xh", "-display", ":2147483647"}},
  };
  for (const auto& [code, display_num, words] : cases) {
    EXPECT_EQ(expanded(dm_find_actor(code), display_num), words) << code;
  }
}

TEST_F(ExpandArgv, words_are_compared_whole_and_with_their_case) {
  const ActorDefinition actor = {.name = "words",
                                 .code = 0,
                                 .group = 1,
                                 .argv = {"program", "display", "DISPLAYS", "--display", "-displa",
                                          "--logfiles", "-logfile", "CORVANE_DIRS", "corvane_dir"}};
  EXPECT_EQ(expanded(&actor, 1), (Words{"program", "display", "DISPLAYS", "--display", "-displa",
                                        "--logfiles", "-logfile", "CORVANE_DIRS", "corvane_dir"}));
  const ActorDefinition other_case = {.name = "words",
                                      .code = 0,
                                      .group = 1,
                                      .argv = {"program", "Display", "-DISPLAY", "--LogFile", "Corvane_Dir"}};
  EXPECT_EQ(expanded(&other_case, 1), (Words{"program", "Display", "-DISPLAY", "--LogFile", "Corvane_Dir"}));
}

TEST_F(ExpandArgv, a_vector_of_nine_arguments_is_the_largest) {
  EXPECT_EQ(max_arguments, 9);
}

TEST_F(ExpandArgv, a_programs_name_of_63_bytes_fits) {
  const std::string program(63, 'p');
  const ActorDefinition actor = {.name = "long", .code = 0, .group = 1, .argv = {program.c_str()}};
  EXPECT_EQ(expanded(&actor, 1), (Words{program}));
}

TEST_F(ExpandArgvDeathTest, a_programs_name_of_64_bytes_aborts) {
  const std::string program(64, 'p');
  const ActorDefinition actor = {.name = "long", .code = 0, .group = 1, .argv = {program.c_str()}};
  EXPECT_EXIT(expanded(&actor, 1), KilledBySignal(SIGABRT), "^$");
}

TEST_F(ExpandArgv, a_logs_path_of_63_bytes_fits) {
  const std::string program(49, 'p');  // with "/var/log/", "1" and ".log"
  const ActorDefinition actor = {
      .name = "long", .code = 0, .group = 1, .argv = {program.c_str(), "--logfile"}};
  EXPECT_EQ(expanded(&actor, 1), (Words{program, "--logfile", "/var/log/" + program + "1.log"}));
}

TEST_F(ExpandArgvDeathTest, a_logs_path_of_64_bytes_aborts) {
  const std::string program(50, 'p');
  const ActorDefinition actor = {
      .name = "long", .code = 0, .group = 1, .argv = {program.c_str(), "--logfile"}};
  EXPECT_EXIT(expanded(&actor, 1), KilledBySignal(SIGABRT), "^$");
}

TEST_F(ExpandArgv, an_images_path_of_63_bytes_fits) {
  const std::string image(37, 'i');  // with "/usr/share/corvane/images/"
  const ActorDefinition actor = {
      .name = "long", .code = 0, .group = 1, .argv = {"program", "CORVANE_DIR", image.c_str()}};
  EXPECT_EQ(expanded(&actor, 1), (Words{"program", "/usr/share/corvane/images/" + image}));
}

TEST_F(ExpandArgvDeathTest, an_images_path_of_64_bytes_aborts) {
  const std::string image(38, 'i');
  const ActorDefinition actor = {
      .name = "long", .code = 0, .group = 1, .argv = {"program", "CORVANE_DIR", image.c_str()}};
  EXPECT_EXIT(expanded(&actor, 1), KilledBySignal(SIGABRT), "^$");
}

TEST_F(ExpandArgv, words_that_are_not_replaced_may_be_longer) {
  const std::string word(200, 'w');
  const ActorDefinition actor = {.name = "long", .code = 0, .group = 1, .argv = {"program", word.c_str()}};
  EXPECT_EQ(expanded(&actor, 1), (Words{"program", word}));
}

TEST_F(ExpandArgv, the_first_copies_of_replaced_words_are_left_behind_and_nothing_else) {
  for (int code = 2; code <= 7; ++code) {
    MemoryBook memory;
    expanded(dm_find_actor(code), 1);
    std::vector<std::string> left = memory.texts_left();
    std::sort(left.begin(), left.end());
    const Words expected = code == 2 || code == 3 ? Words{"DISPLAY"}
                           : code == 6            ? Words{"CORVANE_DIR", "DISPLAY"}
                                                  : Words{};
    EXPECT_EQ(left, expected) << code;
    EXPECT_EQ(memory.sizes_left().size(), 0U);
  }
}

TEST_F(ExpandArgv, without_memory_at_any_word_there_is_no_vector) {
  const struct {
    int code;
    int copies;  // words of the vector, and one more for each that is replaced
  } cases[] = {{2, 3}, {3, 5}, {4, 6}, {5, 7}, {6, 6}, {7, 3}};
  for (const auto& [code, copies] : cases) {
    for (int nth = 1; nth <= copies + 1; ++nth) {
      MemoryBook memory;
      memory.fail_strdup(nth);
      const bool failed = expanded(dm_find_actor(code), 1) == Words{"(no memory)"};
      EXPECT_EQ(failed, nth <= copies) << "copy " << nth << " of actor " << code;
      for (const std::string& left : memory.texts_left()) {
        EXPECT_TRUE(left == "DISPLAY" || left == "CORVANE_DIR") << left;
      }
    }
  }
}

TEST_F(ExpandArgv, freeing_a_vector_frees_its_strings_to_the_null) {
  MemoryBook memory;
  char* kept = strdup("kept");
  char* argv[] = {strdup("one"), strdup("two"), nullptr, kept};
  dm_free_argv(argv);
  EXPECT_EQ(memory.texts_left(), (Words{"kept"}));
  char* none[] = {nullptr};
  dm_free_argv(none);
}
