// Serial: frame bytes against fixed hex worked out from the frame layout (CRCs computed apart
// from our encoder), the stream splitter, the ring, the port-name rule, then the source and
// the command client over pseudo-terminals, the test playing the sensor. UDP on loopback.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <future>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>

#include "frame_assembler.h"
#include "hex.h"
#include "hex_text.h"
#include "ktc_serial_client.h"
#include "listening.h"
#include "log_capture.h"
#include "logger.h"
#include "packet_ring.h"
#include "platform/serial_port_name.h"
#include "serial_client.h"
#include "serial_frame.h"
#include "serial_source.h"
#include "socket_source.h"

namespace quarn::lidar {

// terminal_rate.cpp: the rate the terminal itself reports, through a second descriptor.
uint32_t TerminalRate(const std::string& path);

namespace {

using std::chrono::milliseconds, std::chrono::seconds;

using vktest::FromHex;
using vktest::LogCapture;

// The test holds the master side; the code under test opens `path`.
struct Pty {
  Pty() {
    termios raw{};
    cfmakeraw(&raw);
    char name[256] = {};
    if (openpty(&master, &slave, name, &raw, nullptr) != 0) throw std::runtime_error("no pseudo-terminal");
    path = name;
  }
  ~Pty() {
    CloseMaster();
    ::close(slave);
  }
  void CloseMaster() { ::close(std::exchange(master, -1)); }
  bool Write(const std::vector<uint8_t>& b) { return ::write(master, b.data(), b.size()) == ssize_t(b.size()); }
  // Reads until `count` bytes have come or none came for `timeout_ms`.
  std::vector<uint8_t> Read(size_t count, int timeout_ms = 10000) {
    std::vector<uint8_t> out(count);
    size_t got = 0;
    for (pollfd p{master, POLLIN, 0}; got < count && ::poll(&p, 1, timeout_ms) == 1;) {
      const ssize_t n = ::read(master, &out[got], count - got);
      if (n <= 0) break;
      got += static_cast<size_t>(n);
    }
    out.resize(got);
    return out;
  }
  int master = -1, slave = -1;
  std::string path;
};

// A copy of `bytes` with one byte changed.
std::vector<uint8_t> With(std::vector<uint8_t> bytes, size_t at, uint8_t value) {
  bytes.at(at) = value;
  return bytes;
}

// Replies to command 0x0A (body 03 0a 0b 00 00, CRC least significant byte first) and to an
// OTA frame (command 0x81, status 0, CRC most significant byte first).
const auto kCommandReply = FromHex("24 4c 44 43 4d 44 2c 03 0a 0b 00 00 04 03 02 01 19 7b 5e ed ee ff");
const auto kOtaReply = FromHex("24 4c 44 4f 54 41 2c 01 81 00 0d 0c 0b 0a db 3b 9a 0c ee ff");

TEST(SerialFrame, FramesMatchTheTable) {
  // Empty payload: 7 + 1 + 1 + 4 + 4 + 2 = 19 bytes; the CRC covers 6 bytes and 2 zeros.
  EXPECT_EQ(BuildCommandFrame(0x05, {}, 0x12345678),
            FromHex("24 4c 44 43 4d 44 2c 01 05 78 56 34 12 0f 7e 6d db ee ff"));
  EXPECT_EQ(BuildCommandFrame(0x0A, {0x0B, 0x00}, 0xA1B2C3D4),
            FromHex("24 4c 44 43 4d 44 2c 03 0a 0b 00 d4 c3 b2 a1 b7 f2 2b 1f ee ff"));
  // The length byte wraps: 255 payload bytes count as 0.
  const auto long_frame = BuildCommandFrame(0x01, std::vector<uint8_t>(255, 0xAA), 0);
  EXPECT_EQ(long_frame.size(), 19u + 255u);
  EXPECT_EQ(long_frame[7], 0x00);

  // OTA frames: big-endian fields, CRC most significant byte first.
  const uint8_t data[] = {0xDE, 0xAD, 0xBE, 0xEF, 0x01};
  EXPECT_EQ(BuildOtaFrame(0x02, 1, 0x400, data, sizeof(data)),
            FromHex("24 4c 44 4f 54 41 2c 00 00 00 02 00 00 00 01 00 00 04 00 00 00 00 05 de ad be ef 01 "
                    "5a 01 a8 18 ee ff"));
  EXPECT_EQ(BuildOtaFrame(0x09, 0, 0, nullptr, 0).size(), 29u);

  // Two frames of one command differ in nonce and CRC only.
  const auto a = BuildCommandFrame(0x07, {1, 2}, FreshNonce());
  const auto b = BuildCommandFrame(0x07, {1, 2}, FreshNonce());
  ASSERT_EQ(a.size(), b.size());
  EXPECT_TRUE(std::equal(a.begin(), a.begin() + 11, b.begin()));
  EXPECT_FALSE(std::equal(a.begin() + 11, a.begin() + 15, b.begin() + 11)) << "nonce";
  EXPECT_FALSE(std::equal(a.begin() + 15, a.begin() + 19, b.begin() + 15)) << "CRC";
}

TEST(SerialFrame, ReplyCheck) {
  const struct {
    const char* name;
    int kind;
    std::vector<uint8_t> reply;
    const char* body;  // null: the check fails
  } rows[] = {
      {"command", kReplyCheckCommand, kCommandReply, "03 0a 0b 00 00"},
      {"ota", kReplyCheckOta, kOtaReply, "01 81 00"},
      // Each kind reads the CRC in its own byte order only.
      {"command reply as ota", kReplyCheckOta, kCommandReply, nullptr},
      {"ota reply as command", kReplyCheckCommand, kOtaReply, nullptr},
      {"unknown kind", 3, kCommandReply, nullptr},
      {"18 bytes, one short of the smallest frame", kReplyCheckOta,
       FromHex("24 4c 44 4f 54 41 2c 01 81 00 0d 0c 0b 0a db 3b ee ff"), nullptr},
      {"wrong trailer", kReplyCheckCommand, With(kCommandReply, 21, 0xFE), nullptr},
      {"CRC mismatch", kReplyCheckCommand, With(kCommandReply, 10, 0x01), nullptr},
      // A reply's length byte counts only the bytes after the command; here the command is
      // counted too, as in a request, with a valid CRC.
      {"request length rule", kReplyCheckCommand,
       FromHex("24 4c 44 43 4d 44 2c 04 0a 0b 00 00 04 03 02 01 0b d2 9e fa ee ff"), nullptr},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    std::vector<uint8_t> body = {0x99};
    EXPECT_EQ(CheckReply(row.kind, row.reply, body), row.body != nullptr);
    EXPECT_EQ(body, row.body ? FromHex(row.body) : std::vector<uint8_t>());
  }
}

TEST(FrameAssembler, SplitsRepliesFromDataWhateverTheLineCarries) {
  const std::vector<uint8_t> pause;  // a quiet line
  const std::vector<uint8_t> cut(kCommandReply.begin(), kCommandReply.begin() + 12);
  const auto junk = FromHex("01 02 24 03 ee ff 04");  // a stray '$' and a stray trailer
  const auto trailer_in_nonce = With(With(kCommandReply, 12, 0xEE), 13, 0xFF);
  const auto miscounted = With(kCommandReply, 7, 0x04);  // promises one byte more than comes
  auto endless = FromHex("24 4c 44 4f 54 41 2c");        // a tag, then no trailer
  endless.resize(3007, 0x11);
  using Frames = std::vector<std::vector<uint8_t>>;
  const struct {
    const char* name;
    Frames steps;
    Frames frames;
    std::vector<uint8_t> data;
    size_t frames_at_pause;
  } rows[] = {
      {"junk, then replies", {junk, kCommandReply, trailer_in_nonce}, {kCommandReply, trailer_in_nonce}, junk, 0},
      // A miscounted reply ends at its trailer once the line is quiet or more bytes come;
      // it is handed on whole, for the reply check to refuse.
      {"miscounted, a pause", {miscounted, pause}, {miscounted}, {}, 1},
      {"miscounted, more bytes", {miscounted, FromHex("55 66")}, {miscounted}, FromHex("55 66"), 0},
      // Half a frame is held through a pause and given up as data when the next frame comes.
      {"cut, a pause, a whole one", {cut, pause, kCommandReply}, {kCommandReply}, cut, 0},
      {"more than a frame holds", {endless, kCommandReply}, {kCommandReply}, endless, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    FrameAssembler assembler;
    Frames frames;
    std::vector<uint8_t> data;
    const FrameAssembler::Sink sink = [&](FrameAssembler::Kind kind, const uint8_t* p, size_t n) {
      auto& to = kind == FrameAssembler::Kind::kFrame ? frames.emplace_back() : data;
      to.insert(to.end(), p, p + n);
    };
    for (const auto& step : row.steps) {
      const size_t frames_before = frames.size(), data_before = data.size();
      if (step.empty()) assembler.Idle(sink);
      // Byte by byte: a frame handed on before its last byte would show as a wrong frame.
      for (const uint8_t& b : step) assembler.Feed(&b, 1, sink);
      if (step.empty()) EXPECT_EQ(frames.size() - frames_before, row.frames_at_pause);
      if (step.empty()) EXPECT_EQ(data.size(), data_before) << "a pause hands on no data";
    }
    EXPECT_EQ(frames, row.frames);
    EXPECT_EQ(data, row.data);
    EXPECT_EQ(assembler.Pending(), 0u);
  }
}

TEST(PacketRing, KeepsTheNewest) {
  PacketRing ring(3);
  for (uint8_t i = 1; i <= 5; ++i) ring.Push(&i, 1);
  EXPECT_EQ(ring.Overwritten(), 2u);
  uint8_t out[kPacketSlotDataSize];
  ASSERT_EQ(ring.TryPop(out, sizeof(out)), 1);
  EXPECT_EQ(out[0], 3);
}

TEST(SerialPortName, DeviceNamespacePrefixKeysOnLength) {
  using serial_platform::WithDeviceNamespacePrefix;
  EXPECT_EQ(WithDeviceNamespacePrefix("COM3"), "COM3");
  EXPECT_EQ(WithDeviceNamespacePrefix("COM12"), "\\\\.\\COM12");
  EXPECT_EQ(WithDeviceNamespacePrefix("\\\\.\\COM12"), "\\\\.\\COM12");
#ifndef _WIN32
  EXPECT_EQ(serial_platform::NativePortName("/dev/ttyUSB0"), "/dev/ttyUSB0");
  Pty pty;
  EXPECT_TRUE(serial_platform::IsPseudoTerminal(pty.path));
  EXPECT_FALSE(serial_platform::IsPseudoTerminal("/dev/null"));
#endif
}

TEST(SerialSource, ReceiveTypeChoosesTheRateAndFastRatesAreHonoured) {
  Pty pty;
  LogCapture log;
  for (const uint32_t type : {0u, 1u}) {
    const uint32_t rate = type == 0 ? 3000000 : 3125000;
    SerialSource source(pty.path, 3125000, 3000000);
    source.SetReceiveType(type);
    source.SetAutoReceive(false);
    if (!source.Open()) {
      // A terminal that refuses the rate must say so; it must not pretend.
      EXPECT_TRUE(log.Has(kLogError, "SerialSource::Open(), port " + pty.path, true)) << rate;
      EXPECT_FALSE(source.IsOpened());
      continue;
    }
    EXPECT_EQ(source.OpenBaudRate(), rate);
    EXPECT_EQ(TerminalRate(pty.path), rate);
  }
  SerialSource other(pty.path, 115200, 9600);
  other.SetReceiveType(2);
  EXPECT_FALSE(other.Open());
  EXPECT_TRUE(log.Has(kLogError, "not support receiveStype, open error"));

  SerialSource missing("/dev/ttyVARKEL-none", 9600, 9600);
  EXPECT_FALSE(missing.Open() || missing.IsOpened());
  uint8_t buf[16];
  EXPECT_EQ(missing.Receive(buf, sizeof(buf), 10), -1);
  EXPECT_EQ(missing.Send(buf, 1, 0), -1);
  EXPECT_EQ(missing.Clear(SerialSource::kClearInput), -1);
}

// Each case runs with the receive thread and with readers reading the port themselves.
class SerialSourceModes : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    source_.SetAutoReceive(GetParam());
    ASSERT_TRUE(source_.Open());
  }
  // A reader waiting for a reply that never comes.
  std::future<int> WaitingReader() {
    auto reader = std::async(std::launch::async, [this] { return source_.Receive(buf_, sizeof(buf_), 60000); });
    std::this_thread::sleep_for(milliseconds(50));
    return reader;
  }
  Pty pty_;
  SerialSource source_{pty_.path, 9600, 3000000};
  uint8_t buf_[kPacketSlotDataSize];
};

TEST_P(SerialSourceModes, RepliesAndDataArriveWholeAndApart) {
  // Data, then a reply cut in two with a pause between, then more data.
  ASSERT_TRUE(pty_.Write(FromHex("aa bb cc 24 4c 44 43 4d 44 2c 03 0a")));
  std::thread sensor([&] {
    std::this_thread::sleep_for(milliseconds(60));
    pty_.Write(FromHex("0b 00 00 04 03 02 01 19 7b 5e ed ee ff dd ee"));
  });
  const int n = source_.Receive(buf_, sizeof(buf_), 10000);
  sensor.join();
  ASSERT_EQ(n, static_cast<int>(kCommandReply.size()));
  EXPECT_EQ(std::vector<uint8_t>(buf_, buf_ + n), kCommandReply);

  std::vector<uint8_t> data;
  while (data.size() < 5) {
    const int d = source_.ReceiveData(buf_, sizeof(buf_), 5000);
    ASSERT_GT(d, 0);
    data.insert(data.end(), buf_, buf_ + d);
  }
  EXPECT_EQ(data, FromHex("aa bb cc dd ee"));

  // Send reaches the sensor as it is.
  ASSERT_EQ(source_.Send(kCommandReply.data(), kCommandReply.size(), 0), static_cast<int>(kCommandReply.size()));
  EXPECT_EQ(pty_.Read(kCommandReply.size()), kCommandReply);
}

TEST_P(SerialSourceModes, SilenceTimesOutAndClearDropsStaleReplies) {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(source_.Receive(buf_, sizeof(buf_), 150), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(150));
  UdpPacket packet;
  EXPECT_EQ(source_.Receive(packet, 1500, 0, 20000), 0);
  EXPECT_TRUE(packet.timeout);

  // Whether the reply already sits in the ring (thread) or still in the port (direct),
  // clearing drops it.
  ASSERT_TRUE(pty_.Write(kCommandReply));
  std::this_thread::sleep_for(milliseconds(100));
  EXPECT_EQ(source_.Clear(SerialSource::kClearInput), 0);
  EXPECT_EQ(source_.Receive(buf_, sizeof(buf_), 100), 0);
}

TEST_P(SerialSourceModes, CloseOrAVanishedDeviceEndsAWaitingRead) {
  auto reader = WaitingReader();
  source_.Close();
  ASSERT_EQ(reader.wait_for(seconds(10)), std::future_status::ready);
  EXPECT_EQ(reader.get(), -1);
  source_.Close();  // twice is harmless
  EXPECT_FALSE(source_.IsOpened());

  // Open again; then the device goes, and the source says why.
  LogCapture log;
  ASSERT_TRUE(source_.Open());
  reader = WaitingReader();
  pty_.CloseMaster();
  ASSERT_EQ(reader.wait_for(seconds(10)), std::future_status::ready);
  EXPECT_EQ(reader.get(), -1);
  EXPECT_FALSE(source_.IsOpened());
  EXPECT_TRUE(source_.DeviceLost());
  const std::string why = GetParam() ? "SerialSource receive thread ended, port " : "SerialSource read failed, port ";
  EXPECT_TRUE(log.Has(kLogError, why + pty_.path + ": device gone", true));
  EXPECT_EQ(source_.Send(buf_, 1, 0), -1);
}

INSTANTIATE_TEST_SUITE_P(ThreadAndDirect, SerialSourceModes, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "ReceiveThread" : "DirectRead"; });

// Commands go out on one pseudo-terminal (UART), replies come back on the other (RS485),
// where the sensor also streams data.
class SerialClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    command_->SetReceiveType(1);
    command_->SetAutoReceive(false);
    ASSERT_TRUE(command_->Open() && data_->Open());
    // Called on the thread of the exchange; read only after it has ended.
    client_.SetLogCallback([this](const std::string& line) { lines_.push_back(line); });
  }
  Pty uart_, rs485_;
  std::shared_ptr<SerialSource> command_ = std::make_shared<SerialSource>(uart_.path, 9600, 3125000);
  std::shared_ptr<SerialSource> data_ = std::make_shared<SerialSource>(rs485_.path, 115200, 3000000);
  SerialClient client_{command_, data_};
  std::vector<std::string> lines_;
  std::vector<uint8_t> body_;
  uint8_t cmd_ = 0, status_ = 0xFF;
};

TEST_F(SerialClientTest, CommandRoundTripAmidStreamedData) {
  std::vector<uint8_t> request;
  std::thread sensor([&] {
    request = uart_.Read(21);
    for (const auto& part : {FromHex("11 22 33"), kCommandReply, FromHex("44 55")}) rs485_.Write(part);
  });
  EXPECT_EQ(client_.SendCommand(0x0A, {0x0B, 0x00}, body_, 10000), SerialClient::kOk);
  sensor.join();
  EXPECT_EQ(body_, FromHex("03 0a 0b 00 00"));

  // What reached the sensor is the request for this command, with whatever nonce it drew.
  ASSERT_EQ(request.size(), 21u);
  const uint32_t nonce = request[11] | request[12] << 8 | request[13] << 16 | static_cast<uint32_t>(request[14]) << 24;
  EXPECT_EQ(request, BuildCommandFrame(0x0A, {0x0B, 0x00}, nonce));
  EXPECT_EQ(lines_, std::vector<std::string>({"SEND: " + ToHexSpaced(request), "RECV: " + ToHexSpaced(kCommandReply)}));
}

TEST_F(SerialClientTest, SilenceVanishedLineAndClosedSourcesHaveTheirCodes) {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(client_.SendCommand(0x01, {}, body_, 200), SerialClient::kErrBadReply);  // the empty block fails the check
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(200));
  EXPECT_EQ(lines_.back(), "RECV: ");
  EXPECT_EQ(uart_.Read(19).size(), 19u);

  auto waiting = std::async(std::launch::async, [&] { return client_.SendCommand(0x02, {0x01}, body_, 60000); });
  uart_.Read(20);  // the command went out; the reply never comes
  rs485_.CloseMaster();
  ASSERT_EQ(waiting.wait_for(seconds(10)), std::future_status::ready);
  EXPECT_EQ(waiting.get(), SerialClient::kErrReadFailed);
  EXPECT_EQ(client_.SendCommand(0x02, {0x01}, body_, 100), SerialClient::kErrNotReady);

  EXPECT_EQ(SerialClient(command_, nullptr).SendOtaFrame(1, 2, nullptr, 0, 3, cmd_, status_),
            SerialClient::kErrNotReady);
  command_->Close();
  EXPECT_EQ(SerialClient(command_, data_).WaitReply(cmd_, status_, 10), SerialClient::kErrNotReady);
}

// Another source standing in for the lidar, sending to `port` at `ip`.
std::unique_ptr<SocketSource> Lidar(uint16_t port, const std::string& ip = "127.0.0.1") {
  auto lidar = std::make_unique<SocketSource>(0, "127.0.0.1", "");
  EXPECT_TRUE(lidar->Open() && lidar->SetClientAddress(ip, port));
  return lidar;
}

// Direct mode may cost one -1 before a select; a datagram already sent arrives within two
// calls of a generous time-out.
int ReceiveOne(SocketSource& source, UdpPacket& packet) {
  int n = -1;
  for (int i = 0; i < 3 && n <= 0; ++i) n = source.Receive(packet, 1500, 0, 999999);
  return n;
}

TEST(SocketSource, LoopbackBothWaysWithTheOpenLogLines) {
  LogCapture log;
  const int balance = net::StartupBalance();
  // A group that is not an address is refused, but does not fail the open.
  auto source = std::make_unique<SocketSource>(0, "127.0.0.1", "239.300.1.1");
  ASSERT_TRUE(source->Open());
  EXPECT_TRUE(log.Has(kLogError, "Multicast IP error, set correct multicast ip address or keep it empty"));
  EXPECT_TRUE(log.Has(kLogProgress, "OS current udp socket recv buff size is: ", true));
  EXPECT_TRUE(log.Has(kLogProgress, "SocketSource::Open succeed, sock:" + std::to_string(source->Socket())));
  EXPECT_EQ(net::StartupBalance(), balance + 1);

  auto lidar = Lidar(source->BoundPort());
  const uint8_t points[] = {'p', 't', 's'};
  ASSERT_EQ(lidar->Send(points, 3, 0), 3);
  auto packet = std::make_unique<UdpPacket>();
  ASSERT_EQ(ReceiveOne(*source, *packet), 3);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(packet->data), 3), "pts");
  EXPECT_EQ(packet->sender_ip, htonl(INADDR_LOOPBACK));
  EXPECT_EQ(packet->sender_port, lidar->BoundPort());

  EXPECT_EQ(source->Send(points, 2, 0), -1);
  EXPECT_TRUE(log.Has(kLogError, "SocketSource::Send, client ip is empty"));
  EXPECT_FALSE(source->SetClientAddress("not-an-ip", 1));
  ASSERT_TRUE(source->SetClientAddress("127.0.0.1", lidar->BoundPort()));
  EXPECT_EQ(source->Send(points, 2, 0), 2);
  ASSERT_EQ(ReceiveOne(*lidar, *packet), 2);
  EXPECT_EQ(packet->sender_port, source->BoundPort());

  source.reset();  // the destructor closes and cleans up
  lidar.reset();
  EXPECT_TRUE(log.Has(kLogProgress, "SocketSource::Close()"));
  EXPECT_EQ(net::StartupBalance(), balance);
}

TEST(SocketSource, IdleSocketCostsOneMinusOneThenTimesOut) {
  SocketSource source(0, "127.0.0.1", "");
  ASSERT_TRUE(source.Open());
  auto packet = std::make_unique<UdpPacket>();
  EXPECT_EQ(source.Receive(*packet, 1500, 0, 30000), -1);
  EXPECT_FALSE(packet->timeout);
  EXPECT_TRUE(source.InSelectMode());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(source.Receive(*packet, 1500, 0, 30000), 0);
  EXPECT_TRUE(packet->timeout);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(25));

  // A datagram ends select mode; the next read is direct again.
  ASSERT_EQ(Lidar(source.BoundPort())->Send(reinterpret_cast<const uint8_t*>("x"), 1, 0), 1);
  EXPECT_EQ(source.Receive(*packet, 1500, 0, 5000000), 1);
  EXPECT_FALSE(source.InSelectMode());
}

TEST(SocketSource, ASocketNumberedBeyondASelectSetStillWaitsAndReceives) {
  // Fill the descriptor table up to FD_SETSIZE, so the source's socket lands beyond what
  // an fd_set holds (a program with many connections open gets there).
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  if (limit.rlim_max != RLIM_INFINITY && limit.rlim_max < FD_SETSIZE + 16)
    GTEST_SKIP() << "descriptor limit " << limit.rlim_max << " is below " << FD_SETSIZE + 16;
  const rlimit saved = limit;
  limit.rlim_cur = FD_SETSIZE + 16;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  std::vector<int> filler;  // descriptors are handed out lowest first
  for (int fd = 0; fd >= 0 && fd < FD_SETSIZE - 1;) {
    fd = ::open("/dev/null", O_RDONLY);
    if (fd >= 0) filler.push_back(fd);
  }

  {
    SocketSource source(0, "127.0.0.1", "");
    ASSERT_TRUE(source.Open());
    EXPECT_GE(source.Socket(), FD_SETSIZE);
    auto packet = std::make_unique<UdpPacket>();
    EXPECT_EQ(source.Receive(*packet, 1500, 0, 1000), -1);  // direct mode: nothing yet
    EXPECT_EQ(source.Receive(*packet, 1500, 0, 20000), 0);  // a real wait that times out
    EXPECT_TRUE(packet->timeout);
    ASSERT_EQ(Lidar(source.BoundPort())->Send(reinterpret_cast<const uint8_t*>("far"), 3, 0), 3);
    EXPECT_EQ(source.Receive(*packet, 1500, 0, 2000000), 3);
  }
  for (int fd : filler) ::close(fd);
  setrlimit(RLIMIT_NOFILE, &saved);
}

TEST(SocketSource, PortHeldWithoutReuseFailsWithTheBindLine) {
  uint16_t held = 0;
  const int holder = vktest::HoldPort(SOCK_DGRAM, &held);  // bound without address reuse
  ASSERT_GE(holder, 0);
  const std::string port = std::to_string(held);
  LogCapture log;
  const int balance = net::StartupBalance();
  SocketSource source(held, "127.0.0.1", "");
  EXPECT_FALSE(source.Open());
  ::close(holder);
  EXPECT_TRUE(log.Has(kLogError, "SocketSource::Open(), bind failed, errno: " + std::to_string(EADDRINUSE)));
  EXPECT_EQ(net::StartupBalance(), balance);
  EXPECT_EQ(source.Send(reinterpret_cast<const uint8_t*>(port.data()), 1, 0), -1);
  EXPECT_TRUE(log.Has(kLogError, "SocketSource::Send, port " + port + ", sock -1 is not open"));
  EXPECT_FALSE(source.IsOpened());
  EXPECT_TRUE(log.Has(kLogWarning, "SocketSource::IsOpened(), port " + port + ", sock -1 is not open"));
}

TEST(SocketSource, MulticastOnLoopback) {
  const char* kGroup = "239.255.71.17";
  LogCapture log;
  SocketSource source(0, "", kGroup);
  ASSERT_TRUE(source.Open());
  if (!log.Has(kLogProgress, std::string("Recive data from multicast ip address ") + kGroup)) {
    GTEST_SKIP() << "this machine refuses to join a multicast group";
  }
  // Joined on any interface; join on loopback too and send through it: no other network.
  in_addr loop{htonl(INADDR_LOOPBACK)};
  ip_mreq m{{}, loop};
  inet_pton(AF_INET, kGroup, &m.imr_multiaddr);
  setsockopt(source.Socket(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &m, sizeof(m));
  auto lidar = Lidar(source.BoundPort(), kGroup);
  const uint8_t byte = 'm';
  if (setsockopt(lidar->Socket(), IPPROTO_IP, IP_MULTICAST_IF, &loop, sizeof(loop)) != 0 ||
      lidar->Send(&byte, 1, 0) != 1) {
    GTEST_SKIP() << "loopback cannot carry multicast here: " << std::strerror(errno);
  }
  auto packet = std::make_unique<UdpPacket>();
  ASSERT_EQ(ReceiveOne(source, *packet), 1);
  EXPECT_EQ(packet->data[0], 'm');
}

// A 5-byte image in mode 1 over the serial line: start, one piece, end, each answered; the
// frames as the upgrade page lays them out, written by hand (CRC-32/MPEG-2 of the image:
// b3 16 f8 ee).
TEST_F(SerialClientTest, OtaTransferSendsStartPieceAndEndInOrder) {
  const std::vector<uint8_t> image = {0xDE, 0xAD, 0xBE, 0xEF, 0x01};
  const auto start = FromHex("24 4c 44 4f 54 41 2c 00 00 00 01 00 00 00 05 00 00 00 01 00 00 00 00 c3 c5 36 67 ee ff");
  const auto piece =
      FromHex("24 4c 44 4f 54 41 2c 00 00 00 02 00 00 00 01 00 00 00 01 00 00 00 05 de ad be ef 01 a9 bb d8 ae ee ff");
  const auto end = FromHex("24 4c 44 4f 54 41 2c 00 00 00 03 00 00 00 05 b3 16 f8 ee 00 00 00 00 f0 7a f1 50 ee ff");
  // Replies [1, type, status], nonce 0x0A0B0C0D; the last one refuses with status 3.
  const auto taken_start = FromHex("24 4c 44 4f 54 41 2c 01 01 00 0d 0c 0b 0a f6 eb 74 69 ee ff");
  const auto taken_piece = FromHex("24 4c 44 4f 54 41 2c 01 02 00 0d 0c 0b 0a 27 12 cc 5a ee ff");
  const auto taken_end = FromHex("24 4c 44 4f 54 41 2c 01 03 00 0d 0c 0b 0a 68 45 a4 4b ee ff");
  const auto refused_piece = FromHex("24 4c 44 4f 54 41 2c 01 02 03 0d 0c 0b 0a 0a 6a db d2 ee ff");

  auto serial = std::make_shared<SerialClient>(command_, data_);
  quarn::lidar::KtcSerialClient link(serial);
  std::vector<std::vector<uint8_t>> frames;
  std::thread sensor([&] {
    frames.push_back(rs485_.Read(start.size()));
    rs485_.Write(taken_start);
    frames.push_back(rs485_.Read(piece.size()));
    rs485_.Write(taken_piece);
    frames.push_back(rs485_.Read(end.size()));
    rs485_.Write(taken_end);
  });
  std::atomic<uint32_t> progress{0};
  EXPECT_EQ(link.OtaTransfer(image, 1, progress), 0);
  sensor.join();
  EXPECT_EQ(frames, (std::vector<std::vector<uint8_t>>{start, piece, end}));
  EXPECT_EQ(progress.load(), 1u);

  // A refused piece ends the transfer with the sensor's status; no end frame follows.
  std::thread refusing([&] {
    rs485_.Read(start.size());
    rs485_.Write(taken_start);
    rs485_.Read(piece.size());
    rs485_.Write(refused_piece);
  });
  EXPECT_EQ(link.OtaTransfer(image, 1, progress), 3);
  refusing.join();
  // A reply that echoes another frame type is no answer to this one.
  std::thread confused([&] {
    rs485_.Read(start.size());
    rs485_.Write(taken_piece);
  });
  EXPECT_EQ(link.OtaTransfer(image, 1, progress), -2);
  confused.join();
  // Cancelled: nothing goes out any more.
  link.Cancel();
  EXPECT_EQ(link.OtaTransfer(image, 1, progress), -1);
}

}  // namespace
}  // namespace quarn::lidar
