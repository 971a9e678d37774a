// SPDX-License-Identifier: MIT
// window: what the actors of the demonstration share: a display, a window on it, and drawing in it.
//
// All of them draw on a screen of 640 x 360 units, whatever its real size is. They exit when the display
// ends.
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

/** The display of this name; exits with 1 if it cannot be opened. */
Display* display_open(const char* name);

/** The display that the word after "-display" names; exits with 2 without one. */
Display* display_of_option(int argc, char** argv);

/**
 * Makes a window over the part `box` of the screen, without a window manager, and shows it above or below all
 * others. The window gets the events of `events`; the caller draws it at its first Expose. The title tells
 * programs what the window shows.
 */
DemoWindow window_show(Display* display, Box box, const char* title, int on_top, long events);

/** Begins a drawing of the whole window in units of the screen; window_draw_end shows it. */
cairo_t* window_draw_begin(const DemoWindow* window);
void window_draw_end(const DemoWindow* window, cairo_t* drawing);

void draw_box(cairo_t* drawing, Box box, double radius, Color color);

/** A line of text, centered on x, with its baseline at y. */
void draw_text(cairo_t* drawing, double x, double y, double size, Color color, const char* text);
