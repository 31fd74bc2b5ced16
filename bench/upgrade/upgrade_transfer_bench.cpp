// The generic firmware upgrade's transfer on loopback, side by side with its floor:
//   KtcClient::TransferFile of an image (4 MiB) in 1024-byte pieces, against
//   a bare stop-and-wait loop writing the very same request bytes and reading each
//   8-byte acknowledgement.
// Rounds alternate (floor, client, floor, client, ...) so both see the same machine load;
// the medians, their ratio and the median of the per-round ratios are printed.
// Target: client >= 80 % of the floor (the paired ratio). Options: --mib N (4), --rounds N (9).

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/loopback_peer.h"
#include "ktc_client.h"
#include "logger.h"

using namespace quarn::lidar;
using Clock = std::chrono::steady_clock;
using Bytes = std::vector<uint8_t>;
using bench::KtcAnswerPeer;
using bench::ReadAll;
using bench::WriteAll;

namespace {

Bytes Image(size_t bytes) {
  Bytes image(bytes);
  uint32_t x = 12345;
  for (auto& b : image) {
    x = x * 1103515245u + 12345u;
    b = static_cast<uint8_t>(x >> 24);
  }
  return image;
}

constexpr uint8_t kCmd = 0x50;

double ClientMiBps(const Bytes& image) {
  KtcAnswerPeer peer(0, true);
  auto client = std::make_unique<KtcClient>("127.0.0.1", peer.port(), false, KtcClient::kClientTcp, 1, "", "", "", 4000,
                                            4000, 10.0f);
  const auto deadline = Clock::now() + std::chrono::seconds(10);
  while (!client->IsOpen() && Clock::now() < deadline) std::this_thread::sleep_for(std::chrono::milliseconds(2));
  if (!client->IsOpen()) {
    std::fprintf(stderr, "cannot connect to the loopback peer\n");
    std::exit(1);
  }
  std::atomic<uint32_t> progress{0};
  const auto start = Clock::now();
  if (client->TransferFile(image, kCmd, false, progress) != 0) {
    std::fprintf(stderr, "transfer failed at piece %u\n", progress.load());
    std::exit(1);
  }
  const double s = std::chrono::duration<double>(Clock::now() - start).count();
  return static_cast<double>(image.size()) / (1024.0 * 1024.0) / s;
}

// The request bytes TransferFile sends for `image`: each piece frame inside a frame.
std::vector<Bytes> Requests(const Bytes& image) {
  Ktc_1_0_parser parser;
  std::vector<Bytes> pieces;
  parser.KtcFilestreamSend(image, kCmd, pieces);
  std::vector<Bytes> requests(pieces.size());
  for (size_t i = 0; i < pieces.size(); ++i) parser.KtcStreamEncode(pieces[i], requests[i], kCmd);
  return requests;
}

double FloorMiBps(const std::vector<Bytes>& requests, size_t bytes) {
  KtcAnswerPeer peer(0, true);
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(peer.port());
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) std::exit(1);
  uint8_t ack[8];
  const auto start = Clock::now();
  for (const Bytes& r : requests)
    if (!WriteAll(fd, r.data(), r.size()) || !ReadAll(fd, ack, sizeof(ack))) std::exit(1);
  const double s = std::chrono::duration<double>(Clock::now() - start).count();
  ::close(fd);
  return static_cast<double>(bytes) / (1024.0 * 1024.0) / s;
}

// What TransferFile does before its first piece: cut and checksum the whole image.
double FrameBuildMs(const Bytes& image) {
  Ktc_1_0_parser parser;
  std::vector<Bytes> frames;
  const auto start = Clock::now();
  parser.KtcFilestreamSend(image, kCmd, frames);
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

int Arg(int argc, char** argv, const char* name, int fallback) {
  for (int i = 1; i + 1 < argc; ++i)
    if (std::strcmp(argv[i], name) == 0) return std::atoi(argv[i + 1]);
  return fallback;
}

}  // namespace

int main(int argc, char** argv) {
  // The client's timing lines go to a log file of their own, not the user's.
  if (std::getenv("VARKEL_LOG_DIR") == nullptr) setenv("VARKEL_LOG_DIR", "/tmp/varkel-bench-logs", 1);
  const size_t mib = static_cast<size_t>(std::max(1, Arg(argc, argv, "--mib", 4)));
  const int rounds = std::max(1, Arg(argc, argv, "--rounds", 9));
  const Bytes image = Image(mib << 20);
  const std::vector<Bytes> requests = Requests(image);
  LOG_PROGRESS("upgrade_transfer_bench start");  // the logger's start-up is not measured

  std::vector<double> floor, client, build, paired;
  for (int i = 0; i < rounds; ++i) {
    floor.push_back(FloorMiBps(requests, image.size()));
    client.push_back(ClientMiBps(image));
    build.push_back(FrameBuildMs(image));
    // Each round against the floor measured just before it: load that comes and goes
    // (other programs on the machine) moves both alike.
    paired.push_back(client.back() / floor.back());
  }
  const double f = Median(floor);
  const double c = Median(client);
  std::printf("upgrade transfer, %zu MiB in %zu pieces of 1024 bytes, %d rounds, medians\n", mib, requests.size(),
              rounds);
  std::printf("  stop-and-wait floor      %8.2f MiB/s  (%6.1f us per piece)\n", f, 1e6 / (f * 1024.0));
  std::printf("  KtcClient::TransferFile  %8.2f MiB/s  (%6.1f us per piece)\n", c, 1e6 / (c * 1024.0));
  std::printf("  of which cutting and checksumming the image up front: %.2f ms\n", Median(build));
  const double r = Median(paired);
  std::printf("  client/floor ratio of the medians %.2f, median of the paired rounds %.2f\n", c / f, r);
  std::printf("  target: paired ratio >= 0.80: %s\n", r >= 0.80 ? "met" : "MISSED");
  Logger::GetInstance().Flush();
  return 0;
}
