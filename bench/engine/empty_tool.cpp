// The smallest tool: parses its switches and starts the program. Measures the engine's own start-up cost.
#include "kel.h"

int main(int argc, char** argv) {
  if (KEL_Init(argc, argv)) return 1;
  KEL_StartProgramProbed();
}
