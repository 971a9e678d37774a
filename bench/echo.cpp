// SPDX-License-Identifier: MIT
// echo.cpp: the bare floor for calls: answers HelloWorld and does nothing else.
//
// usage: bench-echo NAME
#include "bench/service.h"

static DBusHandlerResult handle(DBusConnection* connection, DBusMessage* message, void*) {
  if (!dbus_message_is_method_call(message, bench_interface, "HelloWorld"))
    return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
  bench_answer_hello(connection, message);
  return DBUS_HANDLER_RESULT_HANDLED;
}

int main(int, char** argv) {
  return bench_serve(argv[1], bench_path, handle);
}
