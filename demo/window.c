// SPDX-License-Identifier: MIT
// window.c: a display, a window on it, and drawing in it.
#include "demo/window.h"

#include <X11/Xatom.h>
#include <X11/Xutil.h>
#include <cairo/cairo-xlib.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

const Color white = {1, 1, 1}, ink = {34 / 255.0, 42 / 255.0, 56 / 255.0}, pale = {0.9, 0.91, 0.94},
            green = {0, 153 / 255.0, 51 / 255.0};

Display* display_open(const char* name) {
  Display* display = XOpenDisplay(name);
  if (!display) {
    fprintf(stderr, "cannot open display %s\n", name);
    exit(1);
  }
  return display;
}

Display* display_of_option(int argc, char** argv) {
  for (int i = 1; i + 1 < argc; ++i) {
    if (strcmp(argv[i], "-display") == 0) return display_open(argv[i + 1]);
  }
  fprintf(stderr, "usage: %s -display DISPLAY\n", argv[0]);
  exit(2);
}

DemoWindow window_show(Display* display, Box box, const char* title, int on_top, long events) {
  const int screen = DefaultScreen(display);
  const double x_scale = (double)DisplayWidth(display, screen) / screen_width;
  const double y_scale = (double)DisplayHeight(display, screen) / screen_height;
  const int x = (int)lround(box.x * x_scale), y = (int)lround(box.y * y_scale);
  const int width = (int)lround(box.width * x_scale), height = (int)lround(box.height * y_scale);

  XSetWindowAttributes attributes = {.override_redirect = True, .event_mask = events | ExposureMask};
  DemoWindow window = {.display = display, .box = box};
  window.id = XCreateWindow(display, DefaultRootWindow(display), x, y, (unsigned)width, (unsigned)height, 0,
                            CopyFromParent, InputOutput, CopyFromParent, CWOverrideRedirect | CWEventMask,
                            &attributes);
  window.surface =
      cairo_xlib_surface_create(display, window.id, DefaultVisual(display, screen), width, height);
  cairo_surface_set_device_scale(window.surface, x_scale, y_scale);

  // The pid of the window's process; Xlib wants it as a long.
  const long pid = getpid();
  XChangeProperty(display, window.id, XInternAtom(display, "_NET_WM_PID", False), XA_CARDINAL, 32,
                  PropModeReplace, (const unsigned char*)&pid, 1);
  XStoreName(display, window.id, title);
  if (on_top) {
    XMapRaised(display, window.id);
  } else {
    XLowerWindow(display, window.id);
    XMapWindow(display, window.id);
  }
  return window;
}

cairo_t* window_draw_begin(const DemoWindow* window) {
  cairo_t* drawing = cairo_create(window->surface);
  cairo_push_group(drawing);  // shown only when it is complete
  cairo_translate(drawing, -window->box.x, -window->box.y);
  cairo_select_font_face(drawing, "DejaVu Sans", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_BOLD);
  return drawing;
}

void window_draw_end(const DemoWindow* window, cairo_t* drawing) {
  cairo_pop_group_to_source(drawing);
  cairo_paint(drawing);
  cairo_destroy(drawing);
  cairo_surface_flush(window->surface);
  XFlush(window->display);
}

void draw_box(cairo_t* drawing, Box box, double radius, Color color) {
  const double right = box.x + box.width, bottom = box.y + box.height;
  cairo_new_sub_path(drawing);
  cairo_arc(drawing, right - radius, box.y + radius, radius, -M_PI_2, 0);
  cairo_arc(drawing, right - radius, bottom - radius, radius, 0, M_PI_2);
  cairo_arc(drawing, box.x + radius, bottom - radius, radius, M_PI_2, M_PI);
  cairo_arc(drawing, box.x + radius, box.y + radius, radius, M_PI, 1.5 * M_PI);
  cairo_close_path(drawing);
  cairo_set_source_rgb(drawing, color.red, color.green, color.blue);
  cairo_fill(drawing);
}

void draw_text(cairo_t* drawing, double x, double y, double size, Color color, const char* text) {
  cairo_text_extents_t extents;
  cairo_set_font_size(drawing, size);
  cairo_text_extents(drawing, text, &extents);
  cairo_move_to(drawing, x - extents.x_bearing - extents.width / 2, y);
  cairo_set_source_rgb(drawing, color.red, color.green, color.blue);
  cairo_show_text(drawing, text);
}
