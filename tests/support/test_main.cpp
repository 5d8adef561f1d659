// The test programs' entry: the socket layer is started once for the whole
// run (Windows needs that before the first socket; elsewhere it is cheap).
#include <gtest/gtest.h>

#include "pl_net.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  PlNetStartup();
  int result = RUN_ALL_TESTS();
  PlNetCleanup();
  return result;
}
