// SPDX-License-Identifier: MIT
// fakes.cpp: stands in for what display-manager.cpp uses of common/, except texts and the fork; and for
// strdup(3).
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "common/heap.h"
#include "common/logger.h"
#include "common/stack-pool.h"
#include "tests/interleavings/memory.h"
#include "tests/interleavings/rules.h"

// Notes what a message says about its supervisor.
static void follow(Supervisor& self, std::string_view message) {
  if (message.starts_with("{DM} Unable to create child") || message == "{DM} Unable to allocate memory")
    self.has_failed = true;
}

static void write_message(Logger*, const char* format, ...) __attribute__((format(printf, 2, 3)));
static void write_message(Logger*, const char* format, ...) {
  constexpr std::string_view prefix = "%s:%i:%s: DEBUG: ";  // of file, line and function
  char line[512];                                           // no std::string: a dropped thread never frees it
  va_list arguments;
  va_start(arguments, format);
  va_arg(arguments, const char*);
  va_arg(arguments, int);
  va_arg(arguments, const char*);
  vsnprintf(line, sizeof line, format + prefix.size(), arguments);
  va_end(arguments);
  const std::string_view message(line, strcspn(line, "\n"));
  line[message.size()] = '\0';
  Thread* self = running_thread();
  schedule({"logs", self->memory});
  list_step("    ", message);
  if (message.find(freed_byte) != std::string_view::npos) fail("a message contains freed memory");
  check_owed(self, message);
  self->log.append(message).append("\n");
  if (self->body == process_station_events) {
    record({"decides", supervision});
    check_decision(state.stations[static_cast<size_t>(static_cast<Station*>(self->data)->display_num)],
                   message);
  }
  if (Supervisor* supervisor = supervisor_of(self)) follow(*supervisor, message);
}

static Logger logger = {.level = LOG_LEVEL_DEBUG, .name = "", .fp = nullptr, .write = write_message};
Logger* plogger = &logger;

int heap_keep_for_children(void*, size_t) {
  return 0;
}
void heap_leave_out_growth() {}
void stack_expect_worker() {}
void stack_expect_no_worker() {}
void stack_prepare_own() {}
void stack_return(void*) {}
void* stack_take() {
  return &state;
}

extern "C" char* __wrap_strdup(const char* text) {
  Supervisor* self = supervisor_of(running_thread());
  if (self && running_story.conditions.failing_argument != 0) {
    record({"allocates memory", &state.arguments});
    if (fails(&state.arguments, running_story.conditions.failing_argument)) {
      self->met_fault = true;
      running_thread()->owes = "{DM} Unable to allocate memory";
      return nullptr;
    }
  }
  auto* copy = static_cast<char*>(malloc(strlen(text) + 1));
  return strcpy(copy, text);  // NOLINT(clang-analyzer-security.insecureAPI.strcpy): it has that size
}
