#pragma once
// Helpers of the simulator's tests: hexadecimal literals, a started simulator and a
// connected client, and raw descriptors for exact bytes both ways.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "hex.h"
#include "ktc_client.h"
#include "sim_start.h"
#include "virtual_lidar.h"
#include "wait_until.h"

namespace simtest {

using vktest::FromHex;

inline const std::string kTestDataDir = std::string(VARKEL_SOURCE_DIR) + "/tests/sim/data";
inline const std::string kShippedTableDir = std::string(VARKEL_SOURCE_DIR) + "/Config/varID";

// Ephemeral port and fixed values, so tests can compare exact texts.
inline varkel::sim::SimOptions Options(const std::string& model = "SimTest", const std::string& dir = kTestDataDir) {
  return vktest::SimOptions(model, dir);
}

inline std::unique_ptr<varkel::sim::VirtualLidar> StartSim(varkel::sim::SimOptions o, int ktc_version = 1) {
  o.ktc_version = ktc_version;
  auto sim = std::make_unique<varkel::sim::VirtualLidar>(o);
  std::string error;
  EXPECT_TRUE(sim->Start(&error)) << error;
  return sim;
}

inline std::unique_ptr<quarn::lidar::KtcClient> Connect(uint16_t port, int version = 1, uint32_t recv_ms = 1500) {
  using quarn::lidar::KtcClient;
  auto c = std::make_unique<KtcClient>("127.0.0.1", port, false, KtcClient::kClientTcp, static_cast<uint8_t>(version),
                                       "", "", "", recv_ms, 1500, 10.0f, 0);
  EXPECT_TRUE(vktest::PollUntil([&] { return c->IsOpen(); }, std::chrono::seconds(10)));
  return c;
}

// A plain TCP connection to 127.0.0.1:port whose reads give up after 10 s, with a receive
// buffer of `window` bytes when given; -1 on failure.
inline int ConnectRaw(uint16_t port, int window = 0) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  const timeval limit{10, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  if (window > 0) ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &window, sizeof(window));
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0) return fd;
  ::close(fd);
  return -1;
}

// Sends the request and returns the next n bytes (fewer if the peer closes or goes quiet).
inline std::vector<uint8_t> Exchange(int fd, const std::vector<uint8_t>& request, size_t n) {
  if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size())) return {};
  std::vector<uint8_t> reply(n);
  const ssize_t r = ::recv(fd, reply.data(), n, MSG_WAITALL);
  reply.resize(r > 0 ? static_cast<size_t>(r) : 0);
  return reply;
}

}  // namespace simtest
