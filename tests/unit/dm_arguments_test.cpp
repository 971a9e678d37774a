// SPDX-License-Identifier: MIT
// dm_arguments_test.cpp: the argument vector of each actor, its limits, and a failed allocation at each word.
#include <algorithm>
#include <csignal>
#include <cstring>

#include "tests/unit/dm_support.h"

using testing::KilledBySignal;
using Words = std::vector<std::string>;

namespace {

Words expanded(const ActorDefinition* actor, int display_num) {
  char* argv[max_arguments + 1];
  const int rc = dm_expand_argv(actor, display_num, argv);
  if (rc == -1) return {"(no memory)"};
  EXPECT_EQ(rc, 0);
  Words words;
  for (char** word = argv; *word; ++word) words.push_back(*word);
  dm_free_argv(argv);
  return words;
}

/** The vector on display 1 of an actor with these words. */
Words expanded(const Words& words) {
  ActorDefinition actor = {.name = "actor", .code = 0, .group = 1, .argv = {}};
  for (size_t i = 0; i < words.size(); ++i) actor.argv[i] = words[i].c_str();
  return expanded(&actor, 1);
}

using ExpandArgv = FakedTest;
using ExpandArgvDeathTest = FakedTest;

}  // namespace

TEST_F(ExpandArgv, each_actor_has_its_vector) {
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
  const Words whole = {"program",    "display",  "DISPLAYS",     "--display",  "-displa",
                       "--logfiles", "-logfile", "CORVANE_DIRS", "corvane_dir"};
  EXPECT_EQ(expanded(whole), whole);
  const Words other_case = {"program", "Display", "-DISPLAY", "--LogFile", "Corvane_Dir"};
  EXPECT_EQ(expanded(other_case), other_case);
}

TEST_F(ExpandArgv, one_word_may_be_the_whole_vector) {
  EXPECT_EQ(expanded({"program"}), (Words{"program"}));
}

TEST_F(ExpandArgv, a_program_name_and_an_expansion_may_have_63_bytes_and_another_word_more) {
  const std::string program(63, 'p');
  const std::string short_program(49, 'p');  // with "/var/log/", "1" and ".log"
  const std::string image(37, 'i');          // with "/usr/share/corvane/images/"
  const std::string word(200, 'w');
  EXPECT_EQ(expanded({program}), (Words{program}));
  EXPECT_EQ(expanded({short_program, "--logfile"}),
            (Words{short_program, "--logfile", "/var/log/" + short_program + "1.log"}));
  EXPECT_EQ(expanded({"program", "CORVANE_DIR", image}),
            (Words{"program", "/usr/share/corvane/images/" + image}));
  EXPECT_EQ(expanded({"program", word}), (Words{"program", word}));
}

TEST_F(ExpandArgvDeathTest, a_program_name_or_an_expansion_of_64_bytes_aborts) {
  for (const Words& words : {Words{std::string(64, 'p')}, Words{std::string(50, 'p'), "--logfile"},
                             Words{"program", "CORVANE_DIR", std::string(38, 'i')}})
    EXPECT_EXIT(expanded(words), KilledBySignal(SIGABRT), "^$") << words[0];
}

TEST_F(ExpandArgv, only_the_first_copies_of_replaced_words_are_not_freed) {
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

TEST_F(ExpandArgv, a_failed_allocation_at_any_word_gives_no_vector) {
  const struct {
    int code;
    int copies;  // one for each word of the vector, and one more for each replaced word
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

TEST_F(ExpandArgv, freeing_a_vector_frees_its_strings_up_to_the_null) {
  MemoryBook memory;
  char* kept = strdup("kept");
  char* argv[] = {strdup("one"), strdup("two"), nullptr, kept};
  dm_free_argv(argv);
  EXPECT_EQ(memory.texts_left(), (Words{"kept"}));
  char* none[] = {nullptr};
  dm_free_argv(none);
}
