#include <gtest/gtest.h>

#include "Tests/Support/ScopedEnvironment.hpp"
#include "Tests/Support/TemporaryDirectory.hpp"

/// Runs the tests with the shared directory and the socket directory inside a folder of their own, so that no
/// test, and no program that one starts, writes anywhere else.
int main(int argumentCount, char** arguments) {
  ::testing::InitGoogleTest(&argumentCount, arguments);
  const quenzel::testing::TemporaryDirectory folder;
  const quenzel::testing::ScopedEnvironment environment{
      {{"QZL_SHARED_DIRECTORY", folder / "shared"}, {"QZL_SOCKET_DIRECTORY", folder / "sockets"}}};
  return RUN_ALL_TESTS();
}
