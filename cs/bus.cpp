// SPDX-License-Identifier: MIT
// bus.cpp: connecting, watching, requesting the name, and passing ready data to libdbus.
//
// One connection, one descriptor, one thread. The daemon asks for the session bus, although its messages say
// system bus: the session bus address in its environment decides which bus that is. It watches only the
// readable side, because everything it sends is flushed before the next wait. When the connection is lost,
// libdbus ends the process.
#include "cs/bus.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "common/dbus-owners.h"
#include "common/logger.h"

static constexpr useconds_t first_memory_pause_microseconds = 1000;
static constexpr useconds_t max_memory_pause_microseconds = 1000 * 1000;
static constexpr long max_descriptors = 253;  // SCM_MAX_FD of unix(7): no message carries more
static constexpr const char* service_name = "com.corvane.ControlServer";

// The last pause of the current shortage of memory, 0 while there is none. Main thread only.
static useconds_t memory_pause = 0;

static const char* watch_kind(unsigned flags) {
  const bool readable = (flags & DBUS_WATCH_READABLE) != 0;
  const bool writable = (flags & DBUS_WATCH_WRITABLE) != 0;
  if (readable && writable) return "readwrite";
  if (readable) return "read";
  if (writable) return "write";
  return "no read or write";
}

dbus_bool_t ccs_add_watch(DBusWatch* watch, void* data) {
  auto* bus = static_cast<BusState*>(data);
  const unsigned flags = dbus_watch_get_flags(watch);
  log_debug("Adding a %s watch on fd %d using newly-set watch function\n", watch_kind(flags),
            dbus_watch_get_socket(watch));
  if ((flags & DBUS_WATCH_READABLE) != 0) {
    bus->watch = watch;
    bus->fd = dbus_watch_get_socket(watch);
    log_debug("READ Watch on fd %d\n", bus->fd);
  }
  return TRUE;
}

void ccs_toggle_watch(DBusWatch*, void*) {
  log_debug("{II} ccs_toggle_watch()\n");
}

void ccs_remove_watch(DBusWatch*, void*) {
  log_debug("{II} ccs_remove_watch()\n");
}

bool ccs_get_system_conn(BusState* bus) {
  BusError error;
  DBusConnection* connection = dbus_bus_get(DBUS_BUS_SESSION, error.get());
  if (error.is_set()) {
    log_debug("{EE}Failed to connect system DBus: %s\n", error.message());
    return false;
  }
  bus->connection = connection;
  if (!connection) return false;

  // libdbus closes the connection when a message carries more descriptors than it expects, or when more
  // arrive at once than the process may open. No caller may be able to do that to the daemon.
  dbus_connection_set_max_message_unix_fds(connection, max_descriptors);
  dbus_connection_set_max_received_unix_fds(connection, max_descriptors);
  return true;
}

// libdbus calls ccs_toggle_watch for a removal, and ccs_remove_watch for a toggle. That is deliberate: both
// only write a line to the log, and readers of the log know a removal by the line "ccs_toggle_watch".
bool ccs_set_watch_functions(BusState* bus) {
  const BusError error;  // the call below never sets it, so its message is null
  if (!dbus_connection_set_watch_functions(bus->connection, ccs_add_watch, ccs_toggle_watch, ccs_remove_watch,
                                           bus, nullptr)) {
    log_debug("dbus_connection_set_watch_functions(): %s\n", error.message());
    return false;
  }
  ccs_dispatch_one(bus->connection);
  return true;
}

bool ccs_request_service_name(BusState* bus) {
  BusError error;
  log_debug("Request service name: %s\n", service_name);
  const int result =
      dbus_bus_request_name(bus->connection, service_name, DBUS_NAME_FLAG_REPLACE_EXISTING, error.get());
  if (result == -1) {
    log_debug("{EE} dbus_bus_request_name(): %s\n", error.message());
    return false;
  }
  ccs_dispatch_one(bus->connection);
  return true;
}

bool ccs_build_read_set(const BusState* bus, fd_set* readable) {
  if (bus->fd < 0 || bus->fd >= FD_SETSIZE) {
    log_debug("{EE} Watch on fd %d is beyond what select() can hold\n", bus->fd);
    return false;
  }
  FD_ZERO(readable);
  FD_SET(bus->fd, readable);
  return true;
}

// The next message to be dispatched, which stays in the queue. Null when the queue is empty.
static MessageOwner first_message(DBusConnection* connection) {
  DBusMessage* first = dbus_connection_borrow_message(connection);
  if (!first) return nullptr;
  MessageOwner kept(dbus_message_ref(first));
  dbus_connection_return_message(connection, first);
  return kept;
}

void ccs_dispatch_one(DBusConnection* connection) {
  const MessageOwner first = first_message(connection);
  const bool is_call = first && dbus_message_get_type(first.get()) == DBUS_MESSAGE_TYPE_METHOD_CALL;
  if (!is_call) dbus_connection_dispatch(connection);
}

// When libdbus has no memory to dispatch a message, the message stays first in the queue, and libdbus may
// report that data remains instead of the shortage.
DBusDispatchStatus ccs_dispatch_all(DBusConnection* connection) {
  dbus_connection_ref(connection);
  DBusDispatchStatus status = DBUS_DISPATCH_DATA_REMAINS;
  MessageOwner first;
  while (status == DBUS_DISPATCH_DATA_REMAINS) {
    status = dbus_connection_dispatch(connection);
    if (status != DBUS_DISPATCH_DATA_REMAINS) break;
    MessageOwner next = first_message(connection);
    if (next && next == first) status = DBUS_DISPATCH_NEED_MEMORY;
    first = std::move(next);
  }
  dbus_connection_unref(connection);
  return status;
}

// Gives other processes time to free memory. The daemon cannot stop serving, so a shortage may last: it is
// logged when it begins, and each pause is twice as long as the one before, up to a second.
static void pause_for_memory() {
  if (memory_pause == 0) log_debug("{EE} No memory for the next message\n");
  memory_pause = memory_pause == 0 ? first_memory_pause_microseconds
                                   : std::min(2 * memory_pause, max_memory_pause_microseconds);
  usleep(memory_pause);
}

static void dispatch_and_flush(DBusConnection* connection) {
  do {
    while (ccs_dispatch_all(connection) == DBUS_DISPATCH_NEED_MEMORY) pause_for_memory();
    dbus_connection_flush(connection);  // also reads while it waits for room to write
    // libdbus may report only now that it had no memory for a call that it holds.
  } while (dbus_connection_get_dispatch_status(connection) != DBUS_DISPATCH_COMPLETE);
}

void ccs_dispatch_and_flush(DBusConnection* connection) {
  dispatch_and_flush(connection);
  memory_pause = 0;
}

bool ccs_is_ready(const BusState* bus, const fd_set* ready) {
  return bus->fd >= 0 && bus->fd < FD_SETSIZE && FD_ISSET(bus->fd, ready);
}

// The messages that arrived before are dispatched even when the watch cannot be handled. The unread data then
// makes select(2) return at once, so only the pause prevents a busy loop.
void ccs_serve_watch(const BusState* bus) {
  const bool is_handled = dbus_watch_handle(bus->watch, DBUS_WATCH_READABLE) != 0;
  dispatch_and_flush(bus->connection);
  if (is_handled) {
    memory_pause = 0;
  } else {
    pause_for_memory();
  }
}
