// SPDX-License-Identifier: MIT
// window: what the actors of the demonstration have in common: a display, a window on it, and drawing in it.
//
// All of them draw on a screen of 640 x 360 units, whatever its real size is. They end when the display ends.
#pragma once

#include <X11/Xlib.h>
#include <cairo/cairo.h>

enum { screen_width = 640, screen_height = 360 };

typedef struct {
  double x, y, width, height;
} Box;

typedef struct {
  double red, green, blue;
} Color;

extern const Color white, ink, pale, green;

typedef struct {
  Display* display;
  Window id;
  cairo_surface_t* surface;
  Box box;
} DemoWindow;

/** The display of this name; ends the process with 1 when it cannot be opened. */
Display* display_open(const char* name);

/** The display that the word behind "-display" names; ends the process with 2 when there is none. */
Display* display_of_option(int argc, char** argv);

/**
 * Makes a window over the part `box` of the screen, beside all window managers, and shows it: on top of the
 * others or beneath all of them. It gets the events of `events` and is to be drawn at its first Expose.
 * The title tells whoever looks at the windows of the display what this one shows.
 */
DemoWindow window_show(Display* display, Box box, const char* title, int on_top, long events);

/** Begins a drawing of the whole window, in units of the screen; window_draw_end shows it. */
cairo_t* window_draw_begin(const DemoWindow* window);
void window_draw_end(const DemoWindow* window, cairo_t* drawing);

void draw_box(cairo_t* drawing, Box box, double radius, Color color);

/** A line of text, centred on x, standing on y. */
void draw_text(cairo_t* drawing, double x, double y, double size, Color color, const char* text);
