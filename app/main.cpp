#include "app/entry.h"

int main(int argc, char** argv) { return sensorlay::runEntry(argc, argv); }
