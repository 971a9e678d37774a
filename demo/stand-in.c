// SPDX-License-Identifier: MIT
// stand-in.c: stands in for an actor program: shows that it runs, and runs until it is ended.
#include <unistd.h>

int main(void) {
  for (;;) pause();
}
