// SPDX-License-Identifier: MIT
// ctl_test.cpp: how corvane-ctl reads the process table, the log and its command line.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

#include "ctl/ctl.h"
#include "tests/unit/capture.h"

namespace {

constexpr time_t noon = 1795262400;  // 2026-11-21 12:00:00 UTC, the tests' time zone

std::string time_text(int after_noon) {
  const time_t when = noon + after_noon;
  struct tm fields = {};
  char text[32] = "";
  strftime(text, sizeof text, "%F %T:", gmtime_r(&when, &fields));
  return text;
}

std::string dm_line(const std::string& text, int after_noon = 0) {
  return time_text(after_noon) + "plugins/display-manager/display-manager.cpp:1:a_function: DEBUG: " + text +
         "\n";
}

const std::string first_line =
    time_text(0) + "cs/corvane-cs.cpp:1:main: DEBUG: Initialize DBus connection and Watches ...\n";

std::string numbered(const char* before, int number) {
  return before + std::to_string(number);
}
std::string launch(int display, int actor, int child, int after_noon = 0) {
  return dm_line(
      numbered("DISPLAY=:", display) + numbered(", actor_code=", actor) + numbered(", child=", child),
      after_noon);
}
std::string death(int child, int after_noon = 0) {
  return dm_line(numbered("Child process died: ", child), after_noon);
}
std::string stop(int child, int after_noon = 0) {
  return dm_line(numbered("proc_method_stop: child_pid ", child), after_noon);
}

Process child(int pid, const std::string& command) {
  return {.pid = pid, .parent = 100, .started = noon, .command = command};
}

Stations parsed(const std::string& log) {
  Stations stations;
  log_parse(log, &stations);
  return stations;
}

/** The rows as sentences. */
Lines shown(const std::string& log, const std::vector<Process>& children, int after_noon = 0) {
  Stations stations = parsed(log);
  stations_join(&stations, children, noon + after_noon);
  Lines lines;
  for (const auto& [key, row] : stations.rows) {
    const std::string process = row.process.pid != 0 ? numbered(", process ", row.process.pid) : "";
    const std::string reason = row.reason.empty() ? "" : ": " + row.reason;
    lines.push_back(numbered(":", key.display) + " " + row.actor->name + " " + row.state + process + reason);
  }
  return lines;
}

class CtlTest : public testing::Test {
 protected:
  CtlTest() {
    setenv("TZ", "UTC0", 1);
    tzset();
  }
};

using CtlProcess = CtlTest;
using CtlLog = CtlTest;
using CtlRows = CtlTest;
using CtlCommandLine = CtlTest;
using CtlText = CtlTest;

// ---- the process table ----

// Flags, then the ticks of the start, then the ignored signals.
std::string stat(char state, const char* flags = "4194560", const char* ignored = "0") {
  return std::string(" ") + state + " 42 1 1 0 -1 " + flags +
         " 1 2 3 4 5 6 7 8 20 0 1 0 8765 1 2 3 4 5 6 7 8 9 0 " + ignored + " 11";
}

TEST_F(CtlProcess, a_stat_file_gives_the_parent_the_start_and_the_ignored_signals) {
  Process process;
  Process other;
  ASSERT_TRUE(process_parse("4711 (corvane-ls)" + stat('S', "4194560", "16384"), &process));
  EXPECT_EQ(process.parent, 42);
  EXPECT_EQ(process.ignored, 16384U);
  std::string later = stat('S');
  later.replace(later.find("8765"), 4, std::to_string(8765 + 10 * sysconf(_SC_CLK_TCK)));
  ASSERT_TRUE(process_parse("4712 (corvane-ls)" + later, &other));
  EXPECT_EQ(other.started, process.started + 10);
}

TEST_F(CtlProcess, a_name_with_parentheses_and_newlines_does_not_shift_the_fields) {
  Process process;
  ASSERT_TRUE(process_parse("4711 (a) Z 1 1\n2 (b) R 3)" + stat('S'), &process));
  EXPECT_EQ(process.parent, 42);
}

TEST_F(CtlProcess, a_zombie_and_a_child_before_its_exec_do_not_run) {
  Process process;
  EXPECT_FALSE(process_parse("4711 (corvane-ls)" + stat('Z'), &process));
  EXPECT_FALSE(process_parse("4711 (corvane-cs)" + stat('S', "4194368"), &process));
}

TEST_F(CtlProcess, a_text_that_is_not_a_stat_file_does_not_run) {
  Process process;
  for (const char* text : {"", "4711", "4711 (", "4711 (a)", "4711 (a) S", "4711 (a) S 1 2 3"}) {
    EXPECT_FALSE(process_parse(text, &process)) << text;
  }
}

TEST_F(CtlProcess, the_test_is_found_as_a_child_of_its_parent_with_its_start) {
  const Stations stations = stations_look(getppid(), -1);
  EXPECT_EQ(stations.daemon.pid, getppid());
  bool found = false;
  for (const auto& [key, row] : stations.rows) {
    if (row.process.pid != getpid()) continue;
    found = true;
    EXPECT_NEAR(static_cast<double>(row.process.started), static_cast<double>(time(nullptr)), 60);
  }
  EXPECT_TRUE(found);
}

std::string actor_with(const std::string& command) {
  GroupKey key;
  const ActorDefinition* actor = actor_of(command, &key);
  return actor == &unknown_actor ? "none" : numbered(":", key.display) + " " + actor->name;
}

TEST_F(CtlProcess, an_actor_is_recognised_by_its_command_line) {
  EXPECT_EQ(actor_with("corvane-ls :1"), ":1 local-login");
  EXPECT_EQ(actor_with("corvane-ls :2147483647 -query localhost"), ":2147483647 remote-login");
  EXPECT_EQ(actor_with("corvane-pfk -display :3 --mouse --verbose --logfile /var/log/corvane-pfk3.log"),
            ":3 click-mouse");
  EXPECT_EQ(actor_with("corvane-x11-put-image :4 /usr/share/corvane/images/kva-images.bundle disabled"),
            ":4 disable-station");
}

TEST_F(CtlProcess, a_script_is_recognised_by_its_path_after_the_interpreter) {
  EXPECT_EQ(actor_with("/bin/sh -e /usr/local/bin/corvane-ls :1"), ":1 local-login");
}

TEST_F(CtlProcess, other_command_lines_are_not_actors) {
  for (const char* command :
       {"", "corvane-ls", "corvane-ls :1 -query elsewhere", "corvane-ls :x", "corvane-ls :99999999999",
        "corvane-ls :-1", "corvane-pfk -display :3 --verbose --logfile /var/log/corvane-pfk4.log",
        "not-corvane-ls :1"}) {
    EXPECT_EQ(actor_with(command), "none") << command;
  }
}

// ---- the log ----

const GroupKey login_of_1 = {1, 1};

TEST_F(CtlLog, a_launch_a_death_and_a_launch_count_as_two_starts_with_a_pause) {
  const Stations stations =
      parsed(first_line + launch(1, 2, 4711) + death(4711, 60) + launch(1, 2, 4712, 62));
  EXPECT_TRUE(stations.is_complete);
  const Row& group = stations.groups.at(login_of_1);
  EXPECT_STREQ(group.actor->name, "local-login");
  EXPECT_EQ(group.starts, 2);
  EXPECT_EQ(group.child, 4712);
  EXPECT_EQ(group.pause, 2);
  EXPECT_EQ(group.launched, noon + 62);
  EXPECT_EQ(group.ended, 0);
}

TEST_F(CtlLog, other_lines_change_nothing) {
  for (const std::string& line :
       {std::string(), std::string("2026\n"), std::string(25, '\0') + "\n", std::string(": DEBUG: \n"),
        dm_line("DISPLAY=:1, actor_code=2, child="), dm_line("DISPLAY=:-1, actor_code=2, child=4711"),
        dm_line("DISPLAY=:1, actor_code=8, child=4711"), death(4711), stop(4711),
        std::string("no line of the log, DISPLAY=:1, actor_code=2, child=4711\n")}) {
    EXPECT_EQ(shown(line, {}), Lines()) << line;
  }
}

TEST_F(CtlLog, a_line_is_read_only_when_it_is_complete) {
  const std::string line = launch(1, 2, 4711);
  EXPECT_TRUE(parsed(line.substr(0, line.size() - 1)).groups.empty());
  EXPECT_EQ(parsed(line).groups.at(login_of_1).starts, 1);
}

TEST_F(CtlLog, the_first_line_of_a_truncated_log_is_not_read) {
  std::string log = launch(2, 2, 4712) + launch(1, 2, 4711);
  while (log.size() < 1 << 20)
    log += std::string(std::min<size_t>(99, (1 << 20) - log.size() - 1), '.') + "\n";
  const Stations stations = parsed(log);
  EXPECT_EQ(stations.groups.size(), 1U);
  EXPECT_FALSE(stations.is_complete);
}

TEST_F(CtlLog, lines_before_the_daemons_first_line_are_ignored) {
  const Stations stations = parsed(first_line + launch(1, 2, 4711) + first_line + launch(2, 2, 4712));
  EXPECT_EQ(stations.groups.size(), 1U);
  EXPECT_EQ(stations.groups.begin()->first, (GroupKey{2, 1}));
}

TEST_F(CtlLog, a_reused_pid_belongs_to_its_last_launch) {
  const Stations stations =
      parsed(launch(1, 2, 4711) + death(4711, 1) + launch(2, 7, 4711, 5) + death(4711, 9));
  EXPECT_EQ(stations.groups.at(login_of_1).ended, noon + 1);
  EXPECT_EQ(stations.groups.at({2, 3}).ended, noon + 9);
}

TEST_F(CtlLog, the_last_refusal_is_kept_with_its_cause) {
  EXPECT_EQ(parsed(dm_line("{DM} method_start_thread(): corvane-ls")).refusal, "see /var/log/corvane-cs.log");
  const Stations stations = parsed(dm_line("{DM} Unable to allocate memory") +
                                   dm_line("{DM} Unable to find station entry for display 7") +
                                   dm_line("{DM} Unable to add event"));
  EXPECT_EQ(stations.refusal, "Unable to find station entry for display 7");
}

// ---- both ----

TEST_F(CtlRows, the_process_table_decides_what_runs_whatever_the_log_says) {
  const std::vector<Process> children = {child(4711, "corvane-ls :1")};
  const Lines runs = {":1 local-login runs, process 4711"};
  EXPECT_EQ(shown("", children), runs);
  EXPECT_EQ(shown(launch(1, 2, 4711) + death(4711), children), runs);
  EXPECT_EQ(shown(launch(1, 7, 4711), children)[0], runs[0]);
}

TEST_F(CtlRows, a_forged_launch_does_not_run) {
  const std::string forged = dm_line("dbus_dm_start(): display=:1") + launch(1, 2, 1);
  EXPECT_EQ(shown(forged, {}), Lines({":1 local-login restarting in 2 s: corvane-ls has ended"}));
}

TEST_F(CtlRows, a_dead_actor_is_restarting_for_two_seconds_then_late_and_then_stopped) {
  const std::string log = launch(1, 2, 4711) + death(4711, 60);
  EXPECT_EQ(shown(log, {}, 60), Lines({":1 local-login restarting in 2 s: corvane-ls has ended"}));
  EXPECT_EQ(shown(log, {}, 61), Lines({":1 local-login restarting in 1 s: corvane-ls has ended"}));
  EXPECT_EQ(shown(log, {}, 70), Lines({":1 local-login restarting in 0 s: corvane-ls has ended"}));
  EXPECT_EQ(shown(log, {}, 90), Lines({":1 local-login stopped"}));
}

TEST_F(CtlRows, an_actor_that_only_an_old_log_says_runs_is_stopped) {
  Stations stations = parsed(launch(1, 2, 4711));
  stations.daemon.started = noon + 86000;
  stations_join(&stations, {}, noon + 86400);
  EXPECT_EQ(stations.rows.begin()->second.state, "stopped");
}

TEST_F(CtlRows, an_actor_whose_death_is_not_logged_yet_is_restarting) {
  EXPECT_EQ(shown(launch(1, 2, 4711), {}, 86400),
            Lines({":1 local-login restarting in 2 s: corvane-ls has ended"}));
}

TEST_F(CtlRows, a_launch_without_a_process_is_not_over_for_a_second) {
  const auto is_launching = [](const std::string& log, int after_noon) {
    Stations stations = parsed(log);
    stations_join(&stations, {}, noon + after_noon);
    return stations.is_launching;
  };
  const std::string begun = dm_line("method_start_thread() for actor_code:2, display_num:1");
  for (const std::string& log : {begun, launch(1, 2, 4711)}) {
    EXPECT_FALSE(is_launching(log, -86400));
    EXPECT_TRUE(is_launching(log, 1));
    EXPECT_FALSE(is_launching(log, 2));
  }
  EXPECT_FALSE(is_launching(launch(1, 2, 4711) + death(4711), 0));
  EXPECT_FALSE(is_launching(launch(1, 2, 4711) + stop(4711), 0));
  EXPECT_FALSE(is_launching(dm_line("init_group_thread() for actor_code:1, display_num:1"), 0));
}

TEST_F(CtlRows, three_short_lives_are_a_failure_until_a_longer_one) {
  std::string log = launch(1, 2, 1) + death(1) + launch(1, 2, 2, 2) + death(2, 2) + launch(1, 2, 3, 4);
  EXPECT_EQ(shown(log, {}, 4), Lines({":1 local-login restarting in 2 s: corvane-ls has ended"}));
  log += death(3, 4);
  EXPECT_EQ(shown(log, {}, 4), Lines({":1 local-login fails again and again, 2 s: corvane-ls has ended"}));
  log += launch(1, 2, 4, 6) + death(4, 30);
  EXPECT_EQ(shown(log, {}, 30), Lines({":1 local-login restarting in 2 s: corvane-ls has ended"}));
}

TEST_F(CtlRows, a_stopped_actor_that_still_runs_is_shown_with_the_next_one) {
  std::string log = launch(1, 2, 4711) + stop(4711);
  EXPECT_EQ(shown(log + death(4711, 1), {}, 1), Lines({":1 local-login stopped"}));
  EXPECT_EQ(shown(log, {child(4711, "corvane-ls :1")}),
            Lines({":1 local-login runs, process 4711: was stopped, and still runs"}));
  log += dm_line("method_start_thread() for actor_code:2, display_num:1") + launch(1, 2, 4712);
  EXPECT_EQ(shown(log, {child(4711, "corvane-ls :1"), child(4712, "corvane-ls :1")}),
            Lines({":1 local-login runs, process 4711", ":1 local-login runs, process 4712"}));
}

TEST_F(CtlRows, a_program_that_changed_its_title_is_recognised_by_the_log) {
  EXPECT_EQ(shown(launch(1, 2, 4711), {child(4711, "login: waiting")}),
            Lines({":1 local-login runs, process 4711"}));
  EXPECT_EQ(shown("", {child(4711, "login: waiting")}), Lines({":-1 (unknown) runs, process 4711"}));
}

TEST_F(CtlRows, init_station_is_ready_and_has_no_process) {
  EXPECT_EQ(shown(dm_line("init_group_thread() for actor_code:1, display_num:5"), {}),
            Lines({":5 init-station ready"}));
  EXPECT_EQ(shown(launch(5, 1, 4711), {}), Lines({":5 init-station ready"}));
}

// ---- the command line ----

struct Parsed {
  CommandLine line;
  std::string wrong;
};

Parsed parsed_words(const Words& words) {
  Parsed result;
  result.wrong = command_line_parse(words, &result.line);
  return result;
}

TEST_F(CtlCommandLine, options_may_be_anywhere) {
  const Parsed start = parsed_words({"--session", "start", ":1.0", "--no-wait", "xhotkey", "USB"});
  EXPECT_EQ(start.wrong, "");
  EXPECT_EQ(start.line.words, Words({"start", ":1", "xhotkey", "USB"}));
  EXPECT_EQ(start.line.name, ":1 xhotkey");
  EXPECT_EQ(start.line.display, 1);
  EXPECT_STREQ(start.line.actor->name, "xhotkey");
  EXPECT_EQ(start.line.options, std::set<std::string>({"--no-wait", "--session"}));
  EXPECT_EQ(parsed_words({"start", ":1", "xhotkey"}).line.words[3], "COMMON");
  EXPECT_EQ(parsed_words({"stop", ":1", "xhotkey"}).line.words.size(), 3U);
  EXPECT_EQ(parsed_words({"status", "--bus", "unix:path=/x"}).line.bus, "unix:path=/x");
  EXPECT_EQ(parsed_words({"status", "-v"}).line.options, std::set<std::string>({"--verbose"}));
  EXPECT_EQ(parsed_words({"status"}).line.display, -1);
  EXPECT_EQ(parsed_words({"nonsense", "--help"}).wrong, "");
}

TEST_F(CtlCommandLine, an_unknown_word_gets_the_valid_ones_and_a_close_one_as_a_suggestion) {
  const std::string actors =
      "; there are init-station local-login remote-login press-fkey click-mouse disable-station xhotkey";
  const std::string commands = "; there are start stop status watch actors";
  const std::string options =
      "; there are --bus ADDRESS --help --json --no-wait --session -v --verbose --version";
  const std::vector<std::pair<Words, std::string>> wrong = {
      {{"strat"}, "no such command: strat" + commands + "; did you mean start?"},
      {{"dance"}, "no such command: dance" + commands},
      {{"start", ":1", "local-logn"}, "no such actor: local-logn" + actors + "; did you mean local-login?"},
      {{"stop", ":1", "login"}, "no such actor: login" + actors},
      {{"start", ":1", "xhotkey", "usb"}, "no such type: usb; there are PCI USB COMMON"},
      {{"--jsno", "status"}, "no such option: --jsno" + options + "; did you mean --json?"},
      {{"status", "--bus"}, "no such option: --bus" + options},
      {{"stop", "1", "xhotkey"}, "no display: 1; displays are written :0, :1"},
      {{"status", ":-1"}, "no display: :-1; displays are written :0, :1"},
      {{"stop", ":1\033[2J", "xhotkey"}, "no display: :1\\x1b[2J; displays are written :0, :1"},
      {{"start", ":1"}, "too many or too few words for start; see corvane-ctl --help"},
      {{"stop", ":1", "xhotkey", "USB"}, "too many or too few words for stop; see corvane-ctl --help"},
      {{"status", ":1", ":2"}, "too many or too few words for status; see corvane-ctl --help"},
      {{"actors", ":1"}, "too many or too few words for actors; see corvane-ctl --help"},
      {{}, "no command; see corvane-ctl --help"},
  };
  for (const auto& [words, said] : wrong) EXPECT_EQ(parsed_words(words).wrong, said);
}

// ---- texts ----

TEST_F(CtlText, control_characters_are_escaped) {
  EXPECT_EQ(text_escaped("a\033[31m\r\n\t\x7f"), "a\\x1b[31m\\x0d\\x0a\\x09\\x7f");
  EXPECT_EQ(text_escaped("b\xc3\xa4r \xe2\x82\xac"), "b\xc3\xa4r \xe2\x82\xac");
  EXPECT_EQ(text_escaped("\xc2\x9b"
                         "31m"),
            "\\x9b31m");
  EXPECT_EQ(text_escaped("\xff\xc3"), "\\xff\\xc3");
}

TEST_F(CtlText, a_json_string_is_valid_for_any_bytes) {
  EXPECT_EQ(text_escaped("a\"b\\c\n", true), R"(a\u0022b\u005cc\u000a)");
  EXPECT_EQ(text_escaped("\xc2\x9b\xff", true), R"(\u00c2\u009b\u00ff)");
  EXPECT_EQ(text_escaped("\xc2\x9b", true), R"(\u009b)");
}

}  // namespace
