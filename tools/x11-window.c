/*
 * x11-window: draws one window filled with a colour on the X display named by DISPLAY, at the
 * top-left corner, for a bounded time, so that a test has known pixels on a screen to share.
 *
 *   x11-window WIDTHxHEIGHT RRGGBB SECONDS
 *
 * Exits 0 after SECONDS (at most 600), 1 when the display cannot be opened, 2 on bad arguments.
 */
#define _POSIX_C_SOURCE 200809L

#include <X11/Xlib.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

int main(int argc, char** argv) {
  unsigned width = 0, height = 0, colour = 0;
  int seconds = 0;
  if (argc != 4 || sscanf(argv[1], "%ux%u", &width, &height) != 2 ||
      sscanf(argv[2], "%6x", &colour) != 1 || (seconds = atoi(argv[3])) <= 0 || seconds > 600 ||
      width == 0 || height == 0) {
    fprintf(stderr, "usage: x11-window WIDTHxHEIGHT RRGGBB SECONDS (1 to 600)\n");
    return 2;
  }
  Display* display = XOpenDisplay(NULL);
  if (display == NULL) {
    fprintf(stderr, "x11-window: cannot open the display\n");
    return 1;
  }
  const int screen = DefaultScreen(display);
  /* A 24-bit true-colour screen takes the colour as its pixel value. */
  Window window =
      XCreateSimpleWindow(display, RootWindow(display, screen), 0, 0, width, height, 0, 0, colour);
  XSetWindowAttributes attributes;
  attributes.override_redirect = True; /* no window manager moves it */
  XChangeWindowAttributes(display, window, CWOverrideRedirect, &attributes);
  XMapRaised(display, window);
  XClearWindow(display, window);
  XSync(display, False);
  printf("x11-window: %ux%u of %06x shown for %d s\n", width, height, colour, seconds);
  fflush(stdout);
  struct timespec rest = {seconds, 0};
  nanosleep(&rest, NULL);
  XDestroyWindow(display, window);
  XCloseDisplay(display);
  return 0;
}
