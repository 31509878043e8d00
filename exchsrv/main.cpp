#include <cstdio>
#include <cstring>

#include "core/version.h"

int main(int argc, char** argv) {
  for (int i = 1; i < argc; i++) {
    if (strcmp(argv[i], "--version") == 0) {
      fprintf(stderr, "Version: %s %s\nDate: %s\n", exch_version, exch_product, exch_build_date);
      return 0;
    }
  }
  // The server loop is not built yet: for now the daemon reports what it is and stops.
  fprintf(stderr, "Version: %s %s\nDate: %s\n", exch_version, exch_product, exch_build_date);
  return 0;
}
