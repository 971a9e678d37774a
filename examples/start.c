/* SPDX-License-Identifier: MIT */
/* start.c: starts the login window on display :1, in C with libdbus (Debian's package libdbus-1-dev).
 *
 * Compile it with
 *     cc -o start start.c $(pkg-config --cflags --libs dbus-1)
 * and run it as root. It prints "queued" or "refused"; it exits with 1 if there is no answer. */
#include <dbus/dbus.h>
#include <stdio.h>

int main(void) {
  DBusError error = DBUS_ERROR_INIT;
  DBusConnection* bus = dbus_bus_get(DBUS_BUS_SYSTEM, &error);
  if (!bus) {
    fprintf(stderr, "%s: %s\n", error.name, error.message);
    return 1;
  }
  DBusMessage* call =
      dbus_message_new_method_call("com.corvane.ControlServer", "/com/corvane/ControlServer/DisplayManager",
                                   "com.corvane.ControlServer.DisplayManager", "Start");
  const char* display = ":1";
  const char* actor = "local-login";
  const char* type = "PCI";
  dbus_message_append_args(call, DBUS_TYPE_STRING, &display, DBUS_TYPE_STRING, &actor, DBUS_TYPE_STRING,
                           &type, DBUS_TYPE_INVALID);
  DBusMessage* reply = dbus_connection_send_with_reply_and_block(bus, call, DBUS_TIMEOUT_USE_DEFAULT, &error);
  dbus_bool_t queued;
  if (!reply || !dbus_message_get_args(reply, &error, DBUS_TYPE_BOOLEAN, &queued, DBUS_TYPE_INVALID)) {
    fprintf(stderr, "%s: %s\n", error.name, error.message);
    return 1;
  }
  puts(queued ? "queued" : "refused");
  return 0;
}
