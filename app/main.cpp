#include <csignal>

#include "app/entry.h"

int main(int argc, char** argv) {
  // Under a file size limit a write that crosses it then fails like one on a
  // full disk, which the program reports and survives, instead of the signal
  // ending the process in the middle of a file.
  std::signal(SIGXFSZ, SIG_IGN);
  return sensorlay::runEntry(argc, argv);
}
