// SPDX-License-Identifier: MIT
// echo-gdbus.c: a peer for calls: the echo service on GDBus, GLib's D-Bus library.
//
// usage: bench-echo-gdbus NAME
#include <gio/gio.h>

static void handle(GDBusConnection* connection, const gchar* sender, const gchar* path,
                   const gchar* interface, const gchar* member, GVariant* arguments,
                   GDBusMethodInvocation* call, gpointer data) {
  (void)connection, (void)sender, (void)path, (void)interface, (void)member, (void)arguments, (void)data;
  g_dbus_method_invocation_return_value(call, g_variant_new("(s)", "How are you?"));
}

static const GDBusInterfaceVTable functions = {.method_call = handle};
static GDBusNodeInfo* node;

static void serve(GDBusConnection* connection, const gchar* name, gpointer data) {
  (void)name, (void)data;
  g_dbus_connection_register_object(connection, "/bench", node->interfaces[0], &functions, NULL, NULL, NULL);
}

int main(int argc, char** argv) {
  if (argc != 2) return 1;
  node = g_dbus_node_info_new_for_xml(
      "<node><interface name='bench.Service'><method name='HelloWorld'>"
      "<arg type='s' direction='out'/></method></interface></node>",
      NULL);
  g_bus_own_name(G_BUS_TYPE_SESSION, argv[1], G_BUS_NAME_OWNER_FLAGS_NONE, serve, NULL, NULL, NULL, NULL);
  g_main_loop_run(g_main_loop_new(NULL, FALSE));
}
