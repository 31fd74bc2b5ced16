// The simulator's field of view: 0x23 answers the channel and the ten angles, 0x22 takes
// the channel and five start angles, and a malformed write changes nothing.

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>

#include "ktc_client.h"
#include "sim_test_support.h"
#include "virtual_lidar.h"

using quarn::lidar::KtcClient;
using simtest::Hex;
using varkel::sim::FovBlock;
using varkel::sim::SimOptions;
using varkel::sim::VirtualLidar;

TEST(SimFov, ReadsAndWritesTheRangesAndRefusesMalformedWrites) {
  SimOptions o;
  o.model = "Quenta";
  o.config_dir = simtest::ShippedTableDir();
  o.port = 0;
  o.live_values = false;
  VirtualLidar sim(o);
  std::string error;
  ASSERT_TRUE(sim.Start(&error)) << error;
  KtcClient client("127.0.0.1", sim.port(), false, KtcClient::kClientTcp, 1, "", "", "", 1500, 1500, 10.0f, 0);
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!client.IsOpen() && std::chrono::steady_clock::now() < end)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));

  std::vector<uint8_t> reply;
  ASSERT_EQ(client.QueryCommand({}, reply, 0x23), 0);
  EXPECT_EQ(reply, Hex("00 0000 0000 0000 0000 0000 8ca0 8ca0 8ca0 8ca0 8ca0"));

  ASSERT_EQ(client.QueryCommand(Hex("02 0001 0002 0003 0004 8ca0"), reply, 0x22), 0);
  EXPECT_EQ(sim.FovStart(), (FovBlock::Angles{1, 2, 3, 4, 36000}));
  EXPECT_EQ(sim.Value("FOV Channel"), "2");

  for (const char* bad : {"03 0001 0002 0003 0004", "03 0001 0002 0003 0004 8ca1", "03 0001 0002 0003 0004 0005 06"}) {
    EXPECT_EQ(client.QueryCommand(Hex(bad), reply, 0x22), -1) << bad;
    EXPECT_EQ(client.GetLastReturnCode(), 4) << bad;
  }
  EXPECT_EQ(sim.FovStart(), (FovBlock::Angles{1, 2, 3, 4, 36000}));
  EXPECT_EQ(sim.FovEnd(), (FovBlock::Angles{36000, 36000, 36000, 36000, 36000}));
  EXPECT_EQ(sim.Value("FOV Channel"), "2");
}
