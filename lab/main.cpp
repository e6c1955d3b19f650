#include "lab/lab.h"

int main(int argc, char** argv) { return sensorlay::lab::runLab(argc, argv); }
