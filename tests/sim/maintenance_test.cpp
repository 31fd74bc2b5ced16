// Restart and log downloads of the simulated sensor, through hand-written frames and the
// program's own KTC client, on the default model's table. The controller's maintenance
// tests and the fault matrix cover reset, read-back and the failure modes.

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "sim_test_support.h"

namespace ql = quarn::lidar;
using simtest::FromHex;
using varkel::sim::VirtualLidar;

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRestartMs = 250;

std::unique_ptr<VirtualLidar> StartQuenta(int ktc_version = 1) {
  auto o = simtest::Options("Quenta", simtest::kShippedTableDir);
  o.restart_delay_ms = kRestartMs;
  return simtest::StartSim(o, ktc_version);
}

// Reads until the peer closes; true when it did so within 20 s.
bool ClosedByPeer(int fd) {
  uint8_t b[64];
  const auto end = Clock::now() + std::chrono::seconds(20);
  while (Clock::now() < end) {
    const ssize_t n = ::recv(fd, b, sizeof(b), 0);
    if (n == 0 || (n < 0 && errno == ECONNRESET)) return true;
    if (n < 0) return false;
  }
  return false;
}

// 0 for a successful exchange, else the client's last return code.
int Query(ql::KtcClient& c, uint8_t cmd, const std::vector<uint8_t>& payload) {
  std::vector<uint8_t> r;
  return c.QueryCommand(payload, r, cmd) == 0 ? 0 : c.GetLastReturnCode();
}

TEST(SimRestart, AnswersDropsEveryConnectionStaysAwayForTheDelayAndComesBackOnTheSamePort) {
  auto sim = StartQuenta();
  // Long enough that a loaded machine still finds the port closed while it lasts.
  const int delay_ms = 3000;
  sim->SetRestartDelay(delay_ms);
  const uint16_t port = sim->port();
  ASSERT_TRUE(sim->SetValue("Run Time", "3601"));
  ASSERT_TRUE(sim->SetValue("Total Run Time", "7200"));
  const int bystander = simtest::ConnectRaw(port);
  const int fd = simtest::ConnectRaw(port);
  ASSERT_TRUE(fd >= 0 && bystander >= 0);

  // Command 0x10, empty payload, and its empty reply with code 0.
  const auto asked = Clock::now();
  EXPECT_EQ(simtest::Exchange(fd, FromHex("47 74 10 00 00 00 00 00"), 8), FromHex("47 74 10 00 00 00 00 00"));
  EXPECT_TRUE(ClosedByPeer(fd));
  EXPECT_TRUE(ClosedByPeer(bystander));
  ::close(fd);
  ::close(bystander);
  EXPECT_EQ(simtest::ConnectRaw(port), -1);  // refused while restarting
  EXPECT_TRUE(vktest::PollUntil([&] { return sim->RestartCount() == 1; }));

  int again = -1;
  EXPECT_TRUE(vktest::PollUntil([&] { return (again = simtest::ConnectRaw(port)) >= 0; }));
  EXPECT_GE(Clock::now() - asked, std::chrono::milliseconds(delay_ms));
  // The run time starts again; the total goes on.
  // Run time (4 bytes) and total (8 bytes) lead the reply to extended code 0x1A05.
  const auto times = simtest::Exchange(again, FromHex("47 74 ff 00 00 00 00 04 00 00 1a 05"), 8 + 0x24);
  ASSERT_EQ(times.size(), 8u + 0x24);
  EXPECT_EQ(std::vector<uint8_t>(times.begin(), times.begin() + 24),
            FromHex("47 74 ff 00 00 00 00 24 00001a05 00000000 0000000000001c20"));
  EXPECT_EQ(sim->Value("Run Time"), "0 h 0 min 0 s");
  EXPECT_EQ(sim->Value("Total Run Time"), "2 h 0 min 0 s");
  EXPECT_EQ(std::make_pair(sim->RestartCount(), sim->ResetCount()), std::make_pair(uint64_t{1}, uint64_t{0}));

  // Stopping does not wait out a restart's delay.
  sim->SetRestartDelay(60000);
  EXPECT_EQ(simtest::Exchange(again, FromHex("47 74 10 00 00 00 00 00"), 8), FromHex("47 74 10 00 00 00 00 00"));
  ::close(again);
  EXPECT_TRUE(vktest::PollUntil([&] { return sim->RestartCount() == 2; }));
  const auto stopping = Clock::now();
  sim->Stop();
  EXPECT_LT(Clock::now() - stopping, std::chrono::seconds(10));
}

// Which body each log command and operation-log selector serves is the lidar's own: the
// controller's downloads compare what arrives with LogBody, so a mix-up shows only here.
TEST(SimLogs, EachLogAndOperationLogPartHasItsOwnBodyAndOtherSelectorsAreRefused) {
  auto sim = StartQuenta(2);
  sim->SetLogSize(70001);  // an odd size, so the last line is cut short
  EXPECT_EQ(sim->LogNames(), (std::vector<std::string>{"Operation Log", "Fault Log", "Event Log"}));
  std::vector<std::pair<std::string, std::vector<uint8_t>>> bodies;
  for (const char* name : {"Fault Log", "Event Log"})
    bodies.emplace_back(std::string(name) + " #1", *sim->LogBody(name));
  const std::pair<uint16_t, const char*> parts[] = {
      {0x0000, "bsw_warning"}, {0x0001, "asw_warning"}, {0x0100, "bsw_error"}, {0x0101, "asw_error"}};
  for (const auto& [selector, part] : parts)
    bodies.emplace_back(std::string(" Operation Log ") + part + " #1 ", *sim->LogBody("Operation Log", selector));
  for (size_t i = 0; i < bodies.size(); ++i) {
    EXPECT_EQ(bodies[i].second.size(), 70001u);
    EXPECT_NE(std::string(bodies[i].second.begin(), bodies[i].second.end()).find(bodies[i].first), std::string::npos);
    for (size_t j = i + 1; j < bodies.size(); ++j) EXPECT_NE(bodies[i].second, bodies[j].second) << i << " " << j;
  }
  // Any other selector or length, and a payload where the other logs take none.
  auto client = simtest::Connect(sim->port(), 2);
  for (const char* bad : {"", "00", "00 02", "02 00", "01 01 00", "ff ff"})
    EXPECT_EQ(Query(*client, 0x60, FromHex(bad)), 0x04) << '"' << bad << '"';
  EXPECT_EQ(Query(*client, 0x61, FromHex("00")), 0x04);
  EXPECT_FALSE(sim->LogBody("Operation Log"));
  EXPECT_FALSE(sim->LogBody("Operation Log", 0x0200));
  EXPECT_FALSE(sim->LogBody("Fault Log", 0x0000));
  EXPECT_FALSE(sim->LogBody("Restart"));
}

// Request frames from the frame tables, by hand: version 1 'G' 't' cmd 0 len32, version 2
// 'W' 'u' 1 cmd 0 0 0 0 len32, then the payload.
TEST(SimLogsGolden, OperationLogRequestsWrittenByHand) {
  auto sim1 = StartQuenta(1);
  auto sim2 = StartQuenta(2);
  sim1->SetLogSize(3000);
  sim2->SetLogSize(3000);
  const int v1 = simtest::ConnectRaw(sim1->port());
  const int v2 = simtest::ConnectRaw(sim2->port());
  ASSERT_TRUE(v1 >= 0 && v2 >= 0);

  auto expect_body = [](const std::vector<uint8_t>& reply, size_t header, const std::vector<uint8_t>& body) {
    ASSERT_EQ(reply.size(), header + 3000);
    EXPECT_EQ(std::vector<uint8_t>(reply.begin() + static_cast<std::ptrdiff_t>(header), reply.end()), body);
  };
  auto reply = simtest::Exchange(v1, FromHex("47 74 60 00 00 00 00 02 01 00"), 8 + 3000);
  EXPECT_EQ(std::vector<uint8_t>(reply.begin(), reply.begin() + 8), FromHex("47 74 60 00 00 00 0b b8"));
  expect_body(reply, 8, *sim1->LogBody("Operation Log", 0x0100));
  EXPECT_EQ(simtest::Exchange(v1, FromHex("47 74 60 00 00 00 00 02 02 00"), 8), FromHex("47 74 60 04 00 00 00 00"));

  reply = simtest::Exchange(v2, FromHex("57 75 01 60 00 00 00 00 00 00 00 02 00 01"), 12 + 3000);
  EXPECT_EQ(std::vector<uint8_t>(reply.begin(), reply.begin() + 12), FromHex("57 75 01 60 00 00 00 00 00 00 0b b8"));
  expect_body(reply, 12, *sim2->LogBody("Operation Log", 0x0001));
  ::close(v1);
  ::close(v2);
}

TEST(SimLogsLarge, ASlowReaderGetsEightMebibytesWhole) {
  auto sim = StartQuenta();
  // A reader with a small window that stops for a while, so that the sensor's writes wait
  // with its send buffer full. (The controller's 16 MiB download is its own test.)
  sim->SetLogSize(8u << 20);
  const int fd = simtest::ConnectRaw(sim->port(), 64 * 1024);
  ASSERT_GE(fd, 0);
  auto got = simtest::Exchange(fd, FromHex("47 74 62 00 00 00 00 00"), 8);
  EXPECT_EQ(got, FromHex("47 74 62 00 00 80 00 00"));
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  std::vector<uint8_t> body(8u << 20);
  EXPECT_EQ(::recv(fd, body.data(), body.size(), MSG_WAITALL), static_cast<ssize_t>(body.size()));
  EXPECT_TRUE(body == *sim->LogBody("Event Log"));
  ::close(fd);
}

}  // namespace
