// SPDX-License-Identifier: MIT
// echo-sd-bus.c: a peer for calls: the echo service on sd-bus, systemd's D-Bus library.
//
// usage: bench-echo-sd-bus NAME
#include <systemd/sd-bus.h>

static int hello_world(sd_bus_message* call, void* data, sd_bus_error* error) {
  (void)data;
  (void)error;
  return sd_bus_reply_method_return(call, "s", "How are you?");
}

static const sd_bus_vtable functions[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("HelloWorld", "", "s", hello_world, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

int main(int argc, char** argv) {
  sd_bus* bus = NULL;
  if (argc != 2 || sd_bus_open_user(&bus) < 0 ||
      sd_bus_add_object_vtable(bus, NULL, "/bench", "bench.Service", functions, NULL) < 0 ||
      sd_bus_request_name(bus, argv[1], 0) < 0)
    return 1;
  for (;;) {
    int done = sd_bus_process(bus, NULL);
    if (done == 0) done = sd_bus_wait(bus, UINT64_MAX);
    if (done < 0) return 1;
  }
}
