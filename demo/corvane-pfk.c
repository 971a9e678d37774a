// SPDX-License-Identifier: MIT
// corvane-pfk.c: the injector of the demonstration. It presses F1 or clicks once, as a user at the station
// would.
//
// Then it waits for a signal: if it exited, the daemon would restart it, and it would press again.
//
// usage: corvane-pfk -display DISPLAY [--mouse] [--verbose] [--logfile FILE]
#include <X11/extensions/XTest.h>
#include <X11/keysym.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "demo/window.h"

int main(int argc, char** argv) {
  int mouse = 0, verbose = 0;
  FILE* log = stderr;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--mouse") == 0) mouse = 1;
    if (strcmp(argv[i], "--verbose") == 0) verbose = 1;
    if (strcmp(argv[i], "--logfile") == 0 && i + 1 < argc) log = fopen(argv[i + 1], "a");
  }
  if (!log) {
    perror("the log file");
    return 1;
  }
  Display* display = display_of_option(argc, argv);
  int unused;
  if (!XTestQueryExtension(display, &unused, &unused, &unused, &unused)) {
    fprintf(log, "%s has no XTEST extension\n", DisplayString(display));
    return 1;
  }
  for (int down = 1; down >= 0; --down) {
    if (mouse) {
      XTestFakeButtonEvent(display, 1, down, CurrentTime);
    } else {
      XTestFakeKeyEvent(display, XKeysymToKeycode(display, XK_F1), down, CurrentTime);
    }
  }
  XSync(display, False);
  if (verbose) fprintf(log, "%s on %s\n", mouse ? "clicked" : "pressed F1", DisplayString(display));
  fflush(log);
  for (;;) pause();
}
