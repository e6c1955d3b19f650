#include "app/entry.h"

#include <cstdio>

#include "tools/tools.h"

namespace sensorlay {

int runEntry(int, char**) {
  std::fprintf(stderr, "the command line is not built yet\n");
  return 1;
}

}  // namespace sensorlay
