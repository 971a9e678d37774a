// SPDX-License-Identifier: MIT
// corvane-x11-put-image.c: covers a station's screen with an image of a bundle, in the demonstration.
//
// A bundle is a sequence of images: a line with the name and the size in bytes, then a PNG file of that size.
//
// usage: corvane-x11-put-image DISPLAY BUNDLE IMAGE
#include <stdio.h>
#include <string.h>

#include "demo/window.h"

static cairo_status_t read_bundle(void* bundle, unsigned char* data, unsigned length) {
  return fread(data, 1, length, bundle) == length ? CAIRO_STATUS_SUCCESS : CAIRO_STATUS_READ_ERROR;
}

// The image of this name; null if the bundle has none that can be read.
static cairo_surface_t* load_image(FILE* bundle, const char* wanted) {
  char name[64];
  long size;
  while (fscanf(bundle, "%63s %ld", name, &size) == 2 && fgetc(bundle) == '\n' && size >= 0) {
    if (strcmp(name, wanted) == 0) {
      cairo_surface_t* image = cairo_image_surface_create_from_png_stream(read_bundle, bundle);
      return cairo_surface_status(image) == CAIRO_STATUS_SUCCESS ? image : NULL;
    }
    if (fseek(bundle, size, SEEK_CUR) != 0) return NULL;
  }
  return NULL;
}

int main(int argc, char** argv) {
  if (argc != 4) {
    fprintf(stderr, "usage: %s DISPLAY BUNDLE IMAGE\n", argv[0]);
    return 2;
  }
  FILE* bundle = fopen(argv[2], "rb");
  cairo_surface_t* image = bundle ? load_image(bundle, argv[3]) : NULL;
  if (!image) {
    fprintf(stderr, "no image %s in %s\n", argv[3], argv[2]);
    return 1;
  }
  fclose(bundle);

  Display* display = display_open(argv[1]);
  const Box screen = {0, 0, screen_width, screen_height};
  char title[128];
  snprintf(title, sizeof title, "Image %s", argv[3]);
  const DemoWindow window = window_show(display, screen, title, 1, 0);
  for (;;) {
    XEvent event;
    XNextEvent(display, &event);
    cairo_t* drawing = window_draw_begin(&window);
    cairo_scale(drawing, screen.width / cairo_image_surface_get_width(image),
                screen.height / cairo_image_surface_get_height(image));
    cairo_set_source_surface(drawing, image, 0, 0);
    cairo_paint(drawing);
    window_draw_end(&window, drawing);
  }
}
