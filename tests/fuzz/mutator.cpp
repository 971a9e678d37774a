// SPDX-License-Identifier: MIT
// mutator.cpp: mutates message inputs so that most of them remain valid messages.
//
// libdbus rejects a message after almost any change to its bytes, so the handlers would see almost none.
// Three mutations in four therefore change a message's fields and arguments; the fourth changes bytes.
#include <cstring>
#include <random>
#include <string>

#include "tests/fuzz/harness.h"
#include "tests/fuzz/messages.h"

namespace {

using Random = std::minstd_rand;

constexpr const char* interfaces[] = {nullptr, "com.corvane.ControlServer.DisplayManager",
                                      "com.corvane.ControlServer.Dummy", "org.freedesktop.DBus.Peer"};
constexpr const char* members[] = {"Start", "Stop", "HelloWorld", "start"};
constexpr const char* senders[] = {nullptr, ":1.2"};
constexpr const char* words[] = {
    ":0",         ":1.0",         "host:2",          ":13",         ":-1",
    ":1x",        ":99999999999", "init-station",    "local-login", "remote-login",
    "press-fkey", "click-mouse",  "disable-station", "xhotkey",     "Xhotkey",
    "PCI",        "USB",          "COMMON",          "pci",         ""};
constexpr size_t longest_text = 128;

template <typename T, size_t N>
T one_of(const T (&choices)[N], Random& random) {
  return choices[random() % N];
}

bool one_in(unsigned n, Random& random) {
  return random() % n == 0;
}

void append(DBusMessage* message, const char* text) {
  dbus_message_append_args(message, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
}

std::string changed_text(const char* text, Random& random) {
  if (one_in(2, random)) return one_of(words, random);
  uint8_t bytes[longest_text] = {};
  size_t size = strnlen(text, sizeof bytes);
  memcpy(bytes, text, size);
  size = LLVMFuzzerMutate(bytes, size, sizeof bytes);
  const std::string changed(reinterpret_cast<char*>(bytes), size);
  return dbus_validate_utf8(changed.c_str(), nullptr) ? changed.c_str() : text;
}

// Each text may change or be dropped. Arguments from the first one of another type on are dropped.
void copy_arguments(DBusMessage* from, DBusMessage* to, Random& random) {
  DBusMessageIter argument;
  dbus_message_iter_init(from, &argument);
  while (dbus_message_iter_get_arg_type(&argument) == DBUS_TYPE_STRING) {
    const char* text = nullptr;
    dbus_message_iter_get_basic(&argument, &text);
    dbus_message_iter_next(&argument);
    if (one_in(12, random)) continue;
    append(to, one_in(4, random) ? changed_text(text, random).c_str() : text);
  }
  if (one_in(6, random)) append(to, one_of(words, random));
  if (one_in(12, random)) {
    const dbus_uint32_t number = 7;
    dbus_message_append_args(to, DBUS_TYPE_UINT32, &number, DBUS_TYPE_INVALID);
  }
}

const char* kept_or(const char* old, const char* other, Random& random) {
  return one_in(6, random) ? other : old;
}

MessageOwner changed_message(DBusMessage* from, Random& random) {
  const bool call = !one_in(12, random);
  MessageOwner made(dbus_message_new(call ? DBUS_MESSAGE_TYPE_METHOD_CALL : DBUS_MESSAGE_TYPE_SIGNAL));
  const char* interface = kept_or(dbus_message_get_interface(from), one_of(interfaces, random), random);
  const char* member = kept_or(dbus_message_get_member(from), one_of(members, random), random);
  dbus_message_set_path(made.get(), "/com/corvane/ControlServer/DisplayManager");
  dbus_message_set_interface(made.get(), interface || call ? interface : interfaces[1]);
  dbus_message_set_member(made.get(), member ? member : members[0]);
  dbus_message_set_sender(made.get(),
                          kept_or(dbus_message_get_sender(from), one_of(senders, random), random));
  dbus_message_set_no_reply(made.get(), one_in(6, random));
  dbus_message_set_serial(made.get(), static_cast<dbus_uint32_t>(random() | 1U));
  copy_arguments(from, made.get(), random);
  return made;
}

std::string bytes_of(DBusMessage* message) {
  char* bytes = nullptr;
  int size = 0;
  if (!dbus_message_marshal(message, &bytes, &size)) return "";
  std::string copy(bytes, static_cast<size_t>(size));
  dbus_free(bytes);
  return copy;
}

}  // namespace

size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size, unsigned seed) {
  Random random(seed);
  const std::vector<MessageOwner> messages = messages_of({reinterpret_cast<const char*>(data), size});
  if (messages.empty() || one_in(4, random)) return LLVMFuzzerMutate(data, size, max_size);

  const size_t chosen = random() % messages.size();
  const MessageOwner changed = changed_message(messages[chosen].get(), random);
  const bool add = one_in(3, random);
  const bool drop = one_in(8, random);
  std::string bytes;
  for (size_t i = 0; i < messages.size(); ++i) {
    if (i != chosen || add) bytes += bytes_of(messages[i].get());
    if (i == chosen && (add || !drop)) bytes += bytes_of(changed.get());
  }
  if (bytes.empty() || bytes.size() > max_size) return LLVMFuzzerMutate(data, size, max_size);
  memcpy(data, bytes.data(), bytes.size());
  return bytes.size();
}
