#include "platform/net.h"

#include <gtest/gtest.h>

#include <cerrno>

using quarn::lidar::net::ErrorText;

TEST(NetErrorText, GivesTheSystemTextForKnownAndUnknownNumbers) {
  EXPECT_EQ(ErrorText(ECONNREFUSED), "Connection refused");
  EXPECT_EQ(ErrorText(EADDRINUSE), "Address already in use");
  // An unknown number still yields some text, never an empty string or a crash.
  EXPECT_FALSE(ErrorText(99999).empty());
}
