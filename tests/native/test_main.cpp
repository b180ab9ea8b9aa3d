// Runs the tests that need no seam on the native platform, where a thread that reads replies initialises COM.
#include "platform/xml/XmlDom.h"

#include <gtest/gtest.h>

int main(int count, char **arguments) {
  CoInitialize(nullptr);
  testing::InitGoogleTest(&count, arguments);
  return RUN_ALL_TESTS();
}
