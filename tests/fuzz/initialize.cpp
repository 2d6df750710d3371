// Before the first input, in every fuzz target.
#include "private_bus.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  enter_private_bus();
  return 0;
}
