// SPDX-License-Identifier: MIT
// corvane-ls.c: the login window of the demonstration. It fills a station's screen and shows the station, its
// own pid, and the last key or click that arrived.
//
// It stays below the other windows, even if it starts after them.
//
// usage: corvane-ls DISPLAY [-query HOST]
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "demo/window.h"

static const Color backgrounds[] = {{40 / 255.0, 80 / 255.0, 140 / 255.0},
                                    {107 / 255.0, 58 / 255.0, 128 / 255.0},
                                    {13 / 255.0, 107 / 255.0, 107 / 255.0}};

static void draw(const DemoWindow* window, const char* display, const char* host, const char* arrived) {
  const int station = abs(atoi(display + strcspn(display, ":") + 1));
  char title[64], login[64], process[64];
  snprintf(title, sizeof title, "Station %s", display);
  snprintf(login, sizeof login, host ? "Log in on %s" : "Log in", host);
  snprintf(process, sizeof process, "process %d", getpid());

  cairo_t* drawing = window_draw_begin(window);
  draw_box(drawing, window->box, 0, backgrounds[(station + 2) % 3]);
  draw_box(drawing, (Box){150, 30, 340, 248}, 16, white);
  draw_text(drawing, 320, 88, 46, ink, title);
  draw_text(drawing, 320, 126, 26, ink, login);
  draw_box(drawing, (Box){180, 150, 280, 56}, 10, *arrived ? green : pale);
  draw_text(drawing, 320, 188, 28, *arrived ? white : ink, *arrived ? arrived : "user name");
  draw_text(drawing, 320, 252, 26, ink, process);
  window_draw_end(window, drawing);
}

int main(int argc, char** argv) {
  if (argc != 2 && !(argc == 4 && strcmp(argv[2], "-query") == 0)) {
    fprintf(stderr, "usage: %s DISPLAY [-query HOST]\n", argv[0]);
    return 2;
  }
  const char* host = argc == 4 ? argv[3] : NULL;
  Display* display = display_open(argv[1]);
  char title[128];
  snprintf(title, sizeof title, host ? "Login on %s" : "Login", host);
  const DemoWindow window = window_show(display, (Box){0, 0, screen_width, screen_height}, title, 0,
                                        KeyPressMask | ButtonPressMask);
  for (char arrived[64] = "";;) {
    XEvent event;
    XNextEvent(display, &event);
    if (event.type == KeyPress) {
      const char* key = XKeysymToString(XLookupKeysym(&event.xkey, 0));
      snprintf(arrived, sizeof arrived, "key %s", key ? key : "?");
    } else if (event.type == ButtonPress) {
      snprintf(arrived, sizeof arrived, "click");
    }
    draw(&window, argv[1], host, arrived);
    if (*arrived) {  // the title last: a program that reads it finds the drawing complete
      snprintf(title, sizeof title, "Login, %s", arrived);
      XStoreName(display, window.id, title);
    }
  }
}
