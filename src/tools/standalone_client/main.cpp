#include "utils/version.h"

#include <cstring>

int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], "-v") == 0) {
    version(argv[0]);
    return 0;
  }
  return -1;
}
