// SPDX-License-Identifier: MIT
// pidfile.cpp: the reader of the pid file.
//
// The first two lines of an input are where the links of the own and of the other executable point to, an
// empty one that the link cannot be read; all behind them is the pid file. Without a second line there is
// none.
//
// The file is empty when it is opened and gets its contents from the fake sleep, as from a daemon that is
// just starting: so it must be read after the wait.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "common/daemon.h"
#include "tests/fuzz/harness.h"
#include "tests/fuzz/texts.h"

namespace {

struct Scene {
  std::string own_target, other_target;
  bool file_exists = false;
  std::string contents;

  // What the product did.
  std::string log;
  std::string links;  // that it read, each once
  int sleeps = 0;
  FILE* file = nullptr;
  char* own_link = nullptr;  // the buffer that the own link was read into last
};

thread_local Scene* scene;  // null outside the product, and in the fuzzer's own threads
int pid_file = -1;          // in memory

void log_to_scene(Logger*, const char* format, ...) __attribute__((format(printf, 2, 3)));
void log_to_scene(Logger*, const char* format, ...) {
  char line[512];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  scene->log += line;
}

Scene scene_of(std::string_view input) {
  Scene made;
  const std::vector<std::string> lines = lines_of(input);
  if (!lines.empty()) made.own_target = lines[0];
  if (lines.size() > 1) made.other_target = lines[1];
  const size_t first = input.find('\n');
  const size_t second = first == input.npos ? input.npos : input.find('\n', first + 1);
  made.file_exists = second != input.npos;
  if (made.file_exists) made.contents = input.substr(second + 1);
  return made;
}

FILE* remember(FILE* file) {
  if (scene) scene->file = file;
  return file;
}

}  // namespace

extern "C" {
FILE* __real_fopen(const char* path, const char* mode);
FILE* __wrap_fopen(const char* path, const char* mode);
FILE* __wrap_fopen(const char* path, const char* mode) {
  return remember(__real_fopen(path, mode));
}

FILE* __real_fopen64(const char* path, const char* mode);
FILE* __wrap_fopen64(const char* path, const char* mode);
FILE* __wrap_fopen64(const char* path, const char* mode) {
  return remember(__real_fopen64(path, mode));
}

unsigned __real_sleep(unsigned seconds);
unsigned __wrap_sleep(unsigned seconds);
unsigned __wrap_sleep(unsigned seconds) {
  if (!scene) return __real_sleep(seconds);
  expect(seconds == 2, "a wait of 2 s, not %u", seconds);
  ++scene->sleeps;
  const std::string& contents = scene->contents;
  expect(pwrite(pid_file, contents.data(), contents.size(), 0) == static_cast<ssize_t>(contents.size()),
         "room for the pid file");
  return 0;
}

ssize_t __real_readlink(const char* path, char* buffer, size_t size);
ssize_t __wrap_readlink(const char* path, char* buffer, size_t size);
ssize_t __wrap_readlink(const char* path, char* buffer, size_t size) {
  if (!scene) return __real_readlink(path, buffer, size);
  const bool own = strcmp(path, "/proc/self/exe") == 0;
  if (own) scene->own_link = buffer;
  if (size == 16) scene->links += std::string(path) + " ";
  const std::string& target = own ? scene->own_target : scene->other_target;
  if (target.empty()) {
    errno = ENOENT;
    return -1;
  }
  const size_t length = std::min(target.size(), size);
  memcpy(buffer, target.data(), length);
  return static_cast<ssize_t>(length);
}
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string path = [] {
    pid_file = memfd_create("pid-file", 0);
    expect(pid_file >= 0, "a file in memory");
    return "/proc/self/fd/" + std::to_string(pid_file);
  }();
  expect(ftruncate(pid_file, 0) == 0, "an empty pid file");

  Scene made = scene_of({reinterpret_cast<const char*>(data), size});
  Logger logger = {.level = LOG_LEVEL_DEBUG, .name = "scene", .fp = nullptr, .write = log_to_scene};
  int pid = 0;
  scene = &made;
  const std::string ending = ending_of(
      [&] { pid = daemon_get_pid(made.file_exists ? path.c_str() : "/proc/self/fd/none", &logger); });
  scene = nullptr;

  if (!made.file_exists) {
    expect(ending == "return" && pid == 0, "0 without a file, not %s with %d", ending.c_str(), pid);
    expect(made.log == "could not open pid file: /proc/self/fd/none for reading.\n", "other than %s",
           made.log.c_str());
    expect(made.sleeps == 0, "no wait for a missing file");
    return 0;
  }
  expect(made.sleeps == 1, "one wait, not %d", made.sleeps);

  const Number number = number_at(made.contents, 0);
  if (!number.found) {
    expect(ending == "return" && pid == 0, "0 without a number, not %s with %d", ending.c_str(), pid);
    expect(made.log.empty() && made.links.empty(), "silence, not %s", made.log.c_str());
    return 0;
  }

  const bool own_read = !made.own_target.empty();
  const bool other_read = !made.other_target.empty();
  std::string expected_log = own_read ? "" : "cannot readlink\n";
  std::string expected_links = "/proc/self/exe ";
  const std::string digits = std::to_string(number.value);
  if (digits.size() > 6) {  // "/proc/", the number, "/exe" and a zero have 17 bytes
    expect(ending == "abort", "abort for %s, not %s with %d", digits.c_str(), ending.c_str(), pid);
    fclose(made.file);
    if (own_read) free(made.own_link);
  } else {
    if (!other_read) expected_log += "cannot readlink\n";
    expected_links += "/proc/" + digits + "/exe ";
    const bool someone_else = own_read && other_read && made.own_target != made.other_target;
    const long long expected = someone_else ? 0 : number.value;
    expect(ending == "return" && pid == expected, "%lld, not %s with %d", expected, ending.c_str(), pid);
  }
  expect(made.log == expected_log, "%s, not %s", expected_log.c_str(), made.log.c_str());
  expect(made.links == expected_links, "%s, not %s", expected_links.c_str(), made.links.c_str());
  return 0;
}
