// Datagrams per second through SocketSource::Receive against a plain recvfrom loop with the
// same socket options, and serial command round trips per second over pseudo-terminals.
#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

#include "crc32_mpeg2.h"
#include "logger.h"
#include "serial_client.h"
#include "socket_source.h"

using namespace quarn::lidar;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kBatch = 64;  // datagrams queued per round: well inside the receive buffer
constexpr int kPayload = 512;
constexpr int kRounds = 2000;

sockaddr_in Loopback(uint16_t port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return a;
}

uint16_t BoundPort(int fd) {
  sockaddr_in a{};
  socklen_t n = sizeof(a);
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &n);
  return ntohs(a.sin_port);
}

// The socket SocketSource::Open makes, made by hand.
int PlainSocket() {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  timeval tv{0, 20000};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
  sockaddr_in a = Loopback(0);
  bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL, 0) | O_NONBLOCK);
  const int size = 26214400;
  setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
  return fd;
}

void Fill(int sender, uint16_t port) {
  static const std::vector<uint8_t> payload(kPayload, 0x5A);
  const sockaddr_in to = Loopback(port);
  for (int i = 0; i < kBatch; ++i) {
    sendto(sender, payload.data(), payload.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
  }
}

// Drains one batch; returns datagrams received.
int DrainSource(SocketSource& source, UdpPacket& packet) {
  int got = 0;
  while (got < kBatch) {
    const int n = source.Receive(packet, 1500, 0, 20000);
    if (n > 0) {
      ++got;
    } else if (n == 0) {
      break;  // the batch is short: datagrams were dropped
    }
  }
  return got;
}

int DrainPlain(int fd, uint8_t* buffer) {
  int got = 0;
  while (got < kBatch) {
    sockaddr_in from{};
    socklen_t size = sizeof(from);
    const ssize_t n = recvfrom(fd, buffer, 1500, 0, reinterpret_cast<sockaddr*>(&from), &size);
    if (n >= 0) {
      ++got;
      continue;
    }
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 20) <= 0) break;
  }
  return got;
}

void UdpBench() {
  SocketSource source(0, "127.0.0.1", "");
  if (!source.Open()) {
    std::printf("udp: SocketSource failed to open\n");
    return;
  }
  const int plain = PlainSocket();
  const int sender = socket(AF_INET, SOCK_DGRAM, 0);
  auto packet = std::make_unique<UdpPacket>();
  std::vector<uint8_t> buffer(65536);

  // Per-round times, so that a round in which the machine stalled the reader can be told
  // apart: the median round is the figure, the total is shown beside it.
  std::vector<double> source_us, plain_us;
  long source_count = 0, plain_count = 0;
  auto run_source = [&] {
    Fill(sender, source.BoundPort());
    const auto t0 = Clock::now();
    const int got = DrainSource(source, *packet);
    source_us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count() / got);
    source_count += got;
  };
  auto run_plain = [&] {
    Fill(sender, BoundPort(plain));
    const auto t0 = Clock::now();
    const int got = DrainPlain(plain, buffer.data());
    plain_us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count() / got);
    plain_count += got;
  };
  for (int round = 0; round < kRounds; ++round) {
    // Alternate the order so that neither always runs first after the other's fill.
    if (round % 2 == 0) {
      run_source();
      run_plain();
    } else {
      run_plain();
      run_source();
    }
  }
  auto median = [](std::vector<double> v) {
    std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(v.size() / 2), v.end());
    return v[v.size() / 2];
  };
  const double source_rate = 1e6 / median(source_us);
  const double plain_rate = 1e6 / median(plain_us);
  std::printf(
      "udp: SocketSource::Receive %.0f datagrams/s, plain recvfrom %.0f datagrams/s (median of %d rounds of %d; "
      "%ld and %ld received), ratio %.3f\n",
      source_rate, plain_rate, kRounds, kBatch, source_count, plain_count, source_rate / plain_rate);
  close(sender);
  close(plain);
}

std::vector<uint8_t> Reply() {
  // "$LDCMD," length 3, command 0x0A, three bytes, nonce, CRC least significant first, EE FF.
  std::vector<uint8_t> r = {'$', 'L', 'D', 'C', 'M', 'D', ',', 3, 0x0A, 0x0B, 0, 0, 4, 3, 2, 1};
  const uint32_t crc = Crc32Mpeg2ZeroPadded4(&r[7], r.size() - 7);
  for (int i = 0; i < 4; ++i) r.push_back(static_cast<uint8_t>(crc >> (8 * i)));
  r.push_back(0xEE);
  r.push_back(0xFF);
  return r;
}

void SerialBench() {
  termios raw{};
  cfmakeraw(&raw);
  int uart_master = -1, uart_slave = -1, rs485_master = -1, rs485_slave = -1;
  char uart_name[256] = {}, rs485_name[256] = {};
  if (openpty(&uart_master, &uart_slave, uart_name, &raw, nullptr) != 0 ||
      openpty(&rs485_master, &rs485_slave, rs485_name, &raw, nullptr) != 0) {
    std::printf("serial: no pseudo-terminals\n");
    return;
  }
  auto command = std::make_shared<SerialSource>(uart_name, 9600, 3125000);
  command->SetReceiveType(1);
  command->SetAutoReceive(false);
  auto data = std::make_shared<SerialSource>(rs485_name, 115200, 3000000);
  if (!command->Open() || !data->Open()) {
    std::printf("serial: sources failed to open\n");
    return;
  }
  SerialClient client(command, data);
  std::atomic<bool> stop{false};
  std::thread sensor([&] {
    const std::vector<uint8_t> reply = Reply();
    uint8_t buf[256];
    size_t have = 0;
    while (!stop.load()) {
      pollfd p{uart_master, POLLIN, 0};
      if (poll(&p, 1, 20) <= 0) continue;
      const ssize_t n = read(uart_master, buf + have, sizeof(buf) - have);
      if (n <= 0) break;
      have += static_cast<size_t>(n);
      // Each request is 21 bytes (two payload bytes); answer each whole one.
      while (have >= 21) {
        write(rs485_master, reply.data(), reply.size());
        std::copy(buf + 21, buf + have, buf);
        have -= 21;
      }
    }
  });
  std::vector<uint8_t> body;
  long ok = 0, failed = 0;
  const auto start = Clock::now();
  while (Clock::now() - start < std::chrono::seconds(2)) {
    if (client.SendCommand(0x0A, {0x0B, 0x00}, body, 2000) == 0) {
      ++ok;
    } else {
      ++failed;
    }
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  stop.store(true);
  sensor.join();
  std::printf("serial: %.0f command round trips/s over pseudo-terminals (%ld ok, %ld failed)\n", ok / seconds, ok,
              failed);
  command->Close();
  data->Close();
  close(uart_master);
  close(uart_slave);
  close(rs485_master);
  close(rs485_slave);
}

}  // namespace

int main() {
  UdpBench();
  SerialBench();
  return 0;
}
