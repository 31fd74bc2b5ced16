// KTC command path on loopback against a peer that answers at once:
//   query round trip (median, p99) with the adaptive and the literal drain;
//   TransferFile of a 4 MiB image (MiB/s), adaptive and literal;
//   a raw socket ping-pong with the same frame sizes as the floor;
//   verified TLS against plain TCP in the same run, both to the virtual lidar: the query
//   round trip's median ratio and the 4 MiB transfer's rate ratio.
// Options: --queries N (2000), --literal-queries N (2000), --mib N (4), --literal-mib N (4),
// --tls-queries N (2000), --tls-rounds N (5 transfers each), --tls-only (the TLS comparison
// alone).
// The literal drain costs 50 ms per exchange: its full run takes about five minutes.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "../../tests/support/test_certificates.h"
#include "common/loopback_peer.h"
#include "ktc_client.h"
#include "virtual_lidar.h"

using namespace quarn::lidar;
using Clock = std::chrono::steady_clock;
using Bytes = std::vector<uint8_t>;
using bench::KtcAnswerPeer;
using bench::ReadAll;
using bench::WriteAll;

namespace {

constexpr size_t kQueryPayload = 4;
constexpr size_t kReplyPayload = 16;

struct Stats {
  double median_us = 0;
  double p99_us = 0;
};

Stats Summarise(std::vector<double> us) {
  std::sort(us.begin(), us.end());
  Stats s;
  if (us.empty()) return s;
  s.median_us = us[us.size() / 2];
  s.p99_us = us[std::min(us.size() - 1, static_cast<size_t>(us.size() * 0.99))];
  return s;
}

std::unique_ptr<KtcClient> Connect(uint16_t port) {
  auto client =
      std::make_unique<KtcClient>("127.0.0.1", port, false, KtcClient::kClientTcp, 1, "", "", "", 4000, 4000, 10.0f);
  const auto deadline = Clock::now() + std::chrono::seconds(10);
  while (!client->IsOpen() && Clock::now() < deadline) std::this_thread::sleep_for(std::chrono::milliseconds(2));
  if (!client->IsOpen()) {
    std::fprintf(stderr, "cannot connect to the loopback peer\n");
    std::exit(1);
  }
  return client;
}

Stats QueryRoundTrips(bool literal, int count) {
  KtcAnswerPeer peer(kReplyPayload);
  auto client = Connect(peer.port());
  client->SetLiteralDrain(literal);
  const Bytes payload(kQueryPayload, 0x01);
  Bytes result;
  std::vector<double> us;
  us.reserve(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) {
    const auto start = Clock::now();
    if (client->QueryCommand(payload, result, 0x07) != 0 || result.size() != kReplyPayload) {
      std::fprintf(stderr, "query %d failed (last return code %d)\n", i, client->GetLastReturnCode());
      std::exit(1);
    }
    us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  return Summarise(std::move(us));
}

// A bare blocking TCP socket to a loopback port: the floor the client is compared with.
int ConnectLoopback(uint16_t port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(port);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) std::exit(1);
  return fd;
}

Stats RawRoundTrips(int count) {
  KtcAnswerPeer peer(kReplyPayload);
  const int fd = ConnectLoopback(peer.port());
  Bytes request = {0x47, 0x74, 0x07, 0, 0, 0, 0, kQueryPayload, 1, 1, 1, 1};
  Bytes reply(8 + kReplyPayload);
  std::vector<double> us;
  for (int i = 0; i < count; ++i) {
    const auto start = Clock::now();
    if (!WriteAll(fd, request.data(), request.size()) || !ReadAll(fd, reply.data(), reply.size())) std::exit(1);
    us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  ::close(fd);
  return Summarise(std::move(us));
}

Bytes Image(size_t bytes) {
  Bytes image(bytes);
  uint32_t x = 12345;
  for (auto& b : image) {
    x = x * 1103515245u + 12345u;
    b = static_cast<uint8_t>(x >> 24);
  }
  return image;
}

double TransferMBps(bool literal, size_t bytes) {
  KtcAnswerPeer peer(0);
  auto client = Connect(peer.port());
  client->SetLiteralDrain(literal);
  const Bytes image = Image(bytes);
  std::atomic<uint32_t> progress{0};
  const auto start = Clock::now();
  if (client->TransferFile(image, 0x0A, false, progress) != 0) {
    std::fprintf(stderr, "transfer failed at piece %u\n", progress.load());
    std::exit(1);
  }
  const double s = std::chrono::duration<double>(Clock::now() - start).count();
  return static_cast<double>(bytes) / (1024.0 * 1024.0) / s;
}

// The same frames as TransferFile sends, written and acknowledged on a bare socket.
double RawTransferMBps(size_t bytes) {
  KtcAnswerPeer peer(0);
  const int fd = ConnectLoopback(peer.port());
  Ktc_1_0_parser parser;
  std::vector<Bytes> pieces;
  parser.KtcFilestreamSend(Image(bytes), 0x0A, pieces);
  std::vector<Bytes> frames(pieces.size());
  for (size_t i = 0; i < pieces.size(); ++i) parser.KtcStreamEncode(pieces[i], frames[i], 0x0A);
  uint8_t ack[8];
  const auto start = Clock::now();
  for (const Bytes& f : frames) {
    if (!WriteAll(fd, f.data(), f.size()) || !ReadAll(fd, ack, sizeof(ack))) std::exit(1);
  }
  const double s = std::chrono::duration<double>(Clock::now() - start).count();
  ::close(fd);
  return static_cast<double>(bytes) / (1024.0 * 1024.0) / s;
}

// The same virtual lidar serving plain TCP and TLS, each client on its transport. The
// two are measured alternately (query by query, transfer by transfer), so that a load
// change on the machine falls on both alike; a transfer's rate is the best of `rounds`
// (on a shared machine a load spike can spoil three transfers of one side in a row).
struct TlsComparison {
  Stats tcp_query, tls_query;
  double tcp_mbps = 0, tls_mbps = 0;
};

struct SimLink {
  std::unique_ptr<varkel::sim::VirtualLidar> sim;
  std::unique_ptr<KtcClient> client;
};

SimLink StartLink(const simtest::TestPki& pki, bool tls) {
  varkel::sim::SimOptions o;
  o.config_dir = VARKEL_SOURCE_DIR "/Config/varID";
  o.port = 0;
  o.live_values = false;
  o.tls = tls;
  o.tls_cert = tls ? pki.Cert("sensor") : "";
  o.tls_key = tls ? pki.Key("sensor") : "";
  SimLink link;
  link.sim = std::make_unique<varkel::sim::VirtualLidar>(o);
  std::string error;
  if (!link.sim->Start(&error)) {
    std::fprintf(stderr, "virtual lidar: %s\n", error.c_str());
    std::exit(1);
  }
  link.client = std::make_unique<KtcClient>("127.0.0.1", link.sim->port(), false,
                                            tls ? KtcClient::kClientVerifiedTls : KtcClient::kClientTcp, 1, "", "",
                                            tls ? pki.Cert("ca") : "", 4000, 4000, 10.0f);
  const auto deadline = Clock::now() + std::chrono::seconds(10);
  while (!link.client->IsOpen() && Clock::now() < deadline) std::this_thread::sleep_for(std::chrono::milliseconds(2));
  if (!link.client->IsOpen()) {
    std::fprintf(stderr, "cannot connect to the virtual lidar: %s\n", link.client->ConnectError().c_str());
    std::exit(1);
  }
  return link;
}

double QueryUs(KtcClient& client) {
  Bytes result;
  const auto start = Clock::now();
  if (client.QueryCommand({}, result, 0x07) != 0) std::exit(1);
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

double TransferRate(KtcClient& client, const Bytes& image) {
  std::atomic<uint32_t> progress{0};
  const auto start = Clock::now();
  if (client.TransferFile(image, 0x0A, false, progress) != 0) {
    std::fprintf(stderr, "transfer failed at piece %u\n", progress.load());
    std::exit(1);
  }
  const double s = std::chrono::duration<double>(Clock::now() - start).count();
  return static_cast<double>(image.size()) / (1024.0 * 1024.0) / s;
}

TlsComparison CompareTls(int queries, size_t bytes, int rounds) {
  simtest::TestPki pki;
  SimLink tcp = StartLink(pki, false);
  SimLink tls = StartLink(pki, true);
  TlsComparison out;
  std::vector<double> tcp_us, tls_us;
  for (int i = 0; i < queries; ++i) {
    tcp_us.push_back(QueryUs(*tcp.client));
    tls_us.push_back(QueryUs(*tls.client));
  }
  out.tcp_query = Summarise(tcp_us);
  out.tls_query = Summarise(tls_us);
  const Bytes image = Image(bytes);
  for (int round = 0; round < rounds; ++round) {
    out.tcp_mbps = std::max(out.tcp_mbps, TransferRate(*tcp.client, image));
    out.tls_mbps = std::max(out.tls_mbps, TransferRate(*tls.client, image));
  }
  return out;
}

int Arg(int argc, char** argv, const char* name, int fallback) {
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::strcmp(argv[i], name) == 0) return std::atoi(argv[i + 1]);
  }
  return fallback;
}

void PlainFigures(int argc, char** argv) {
  const int queries = Arg(argc, argv, "--queries", 2000);
  const int literal_queries = Arg(argc, argv, "--literal-queries", 2000);
  const size_t mib = static_cast<size_t>(Arg(argc, argv, "--mib", 4));
  const size_t literal_mib = static_cast<size_t>(Arg(argc, argv, "--literal-mib", 4));

  const Stats raw = RawRoundTrips(queries);
  const Stats adaptive = QueryRoundTrips(false, queries);
  const Stats literal = QueryRoundTrips(true, literal_queries);
  std::printf("query round trip (request %zu B, reply %zu B payload)\n", kQueryPayload, kReplyPayload);
  std::printf("  raw socket floor   n=%-5d median %9.1f us  p99 %9.1f us\n", queries, raw.median_us, raw.p99_us);
  std::printf("  adaptive drain     n=%-5d median %9.1f us  p99 %9.1f us  median/floor %.2f\n", queries,
              adaptive.median_us, adaptive.p99_us, adaptive.median_us / raw.median_us);
  std::printf("  literal drain      n=%-5d median %9.1f us  p99 %9.1f us  median/floor %.2f\n", literal_queries,
              literal.median_us, literal.p99_us, literal.median_us / raw.median_us);
  std::printf("  literal/adaptive median ratio %.1f  (target: adaptive median < 1000 us: %s)\n",
              literal.median_us / adaptive.median_us, adaptive.median_us < 1000.0 ? "met" : "MISSED");

  const double raw_mbps = RawTransferMBps(mib << 20);
  const double adaptive_mbps = TransferMBps(false, mib << 20);
  const double literal_mbps = TransferMBps(true, literal_mib << 20);
  std::printf("TransferFile (1024-byte pieces)\n");
  std::printf("  raw socket floor   %zu MiB  %8.2f MiB/s\n", mib, raw_mbps);
  std::printf("  adaptive drain     %zu MiB  %8.2f MiB/s  floor/ours time ratio %.2f\n", mib, adaptive_mbps,
              raw_mbps / adaptive_mbps);
  std::printf("  literal drain      %zu MiB  %8.2f MiB/s  floor/ours time ratio %.2f\n", literal_mib, literal_mbps,
              raw_mbps / literal_mbps);
  std::printf("  adaptive/literal throughput ratio %.1f  (target: adaptive >= 5 MiB/s: %s)\n",
              adaptive_mbps / literal_mbps, adaptive_mbps >= 5.0 ? "met" : "MISSED");
}

void ReportTls(int tls_queries, size_t mib, int rounds) {
  const TlsComparison t = CompareTls(tls_queries, mib << 20, rounds);
  const double query_ratio = t.tls_query.median_us / t.tcp_query.median_us;
  const double rate_ratio = t.tls_mbps / t.tcp_mbps;
  std::printf("verified TLS against plain TCP (virtual lidar, same run)\n");
  std::printf("  query plain TCP    n=%-5d median %9.1f us  p99 %9.1f us\n", tls_queries, t.tcp_query.median_us,
              t.tcp_query.p99_us);
  std::printf("  query TLS          n=%-5d median %9.1f us  p99 %9.1f us\n", tls_queries, t.tls_query.median_us,
              t.tls_query.p99_us);
  std::printf("  TLS/plain query median ratio %.2f  (target: <= 1.3: %s)\n", query_ratio,
              query_ratio <= 1.3 ? "met" : "MISSED");
  std::printf("  transfer plain TCP %zu MiB  %8.2f MiB/s  (best of %d)\n", mib, t.tcp_mbps, rounds);
  std::printf("  transfer TLS       %zu MiB  %8.2f MiB/s\n", mib, t.tls_mbps);
  std::printf("  TLS/plain transfer rate ratio %.2f  (target: >= 0.8: %s)\n", rate_ratio,
              rate_ratio >= 0.8 ? "met" : "MISSED");
}

}  // namespace

int main(int argc, char** argv) {
  bool tls_only = false;
  for (int i = 1; i < argc; ++i) tls_only = tls_only || std::strcmp(argv[i], "--tls-only") == 0;
  if (!tls_only) PlainFigures(argc, argv);
  ReportTls(Arg(argc, argv, "--tls-queries", 2000), static_cast<size_t>(Arg(argc, argv, "--mib", 4)),
            std::max(1, Arg(argc, argv, "--tls-rounds", 5)));
  return 0;
}
