// SPDX-License-Identifier: MIT
// corvane-xh.c: the hot-key watcher of the demonstration. It takes F12 from all windows of a station, and
// shows how often F12 was typed.
//
// usage: corvane-xh -display DISPLAY
#include <X11/keysym.h>
#include <stdio.h>

#include "demo/window.h"

static void draw(const DemoWindow* window, int seen) {
  char text[64];
  if (seen == 0) {
    snprintf(text, sizeof text, "hot key F12");
  } else {
    snprintf(text, sizeof text, "hot key F12 seen: %d", seen);
  }
  cairo_t* drawing = window_draw_begin(window);
  draw_box(drawing, window->box, 0, seen ? green : ink);
  draw_text(drawing, 320, 333, 28, white, text);
  window_draw_end(window, drawing);
}

int main(int argc, char** argv) {
  Display* display = display_of_option(argc, argv);
  XGrabKey(display, XKeysymToKeycode(display, XK_F12), AnyModifier, DefaultRootWindow(display), False,
           GrabModeAsync, GrabModeAsync);
  const DemoWindow window = window_show(display, (Box){120, 300, 400, 46}, "Hot key", 1, 0);
  for (int seen = 0;;) {
    XEvent event;
    XNextEvent(display, &event);
    if (event.type == KeyPress) ++seen;
    draw(&window, seen);
    if (event.type == KeyPress) {  // the title last: a program that reads it finds the drawing complete
      char title[64];
      snprintf(title, sizeof title, "Hot key, seen %d", seen);
      XStoreName(display, window.id, title);
    }
  }
}
