// Splitting a serial byte stream into whole replies and streamed data; the ring that
// carries them; the port-name rule.
#include "frame_assembler.h"

#include <gtest/gtest.h>

#include <thread>

#include "packet_ring.h"
#include "platform/serial_port_name.h"
#include "serial_frame.h"
#include "test_support.h"

namespace quarn::lidar {
namespace {

using test_support::Cat;
using test_support::Hex;

struct Collected {
  std::vector<std::vector<uint8_t>> frames;
  std::vector<uint8_t> data;
  FrameAssembler::Sink Sink() {
    return [this](FrameAssembler::Kind kind, const uint8_t* p, size_t n) {
      if (kind == FrameAssembler::Kind::kFrame) {
        frames.emplace_back(p, p + n);
      } else {
        data.insert(data.end(), p, p + n);
      }
    };
  }
};

const auto kReply = Hex("24 4c 44 43 4d 44 2c 03 0a 0b 00 00 04 03 02 01 19 7b 5e ed ee ff");

TEST(FrameAssembler, SeparatesRepliesFromDataAndNeverEmitsHalfAFrame) {
  const auto points = Hex("01 02 24 03 ee ff 04");  // a stray '$' and a stray trailer
  const auto stream = Cat({points, kReply, kReply, points});
  FrameAssembler assembler;
  Collected out;
  const auto sink = out.Sink();
  for (size_t i = 0; i < stream.size(); ++i) {
    assembler.Feed(&stream[i], 1, sink);
    // Until the last byte of the first reply, no frame may appear.
    if (i + 1 < points.size() + kReply.size()) ASSERT_TRUE(out.frames.empty()) << i;
  }
  ASSERT_EQ(out.frames.size(), 2u);
  EXPECT_EQ(out.frames[0], kReply);
  EXPECT_EQ(out.frames[1], kReply);
  EXPECT_EQ(out.data, Cat({points, points}));
}

TEST(FrameAssembler, TrailerInsideTheNonceDoesNotCutAFrame) {
  auto reply = kReply;
  reply[12] = 0xEE;  // nonce bytes ... 0x04 0x03 -> EE FF ahead of the real end
  reply[13] = 0xFF;
  FrameAssembler assembler;
  Collected out;
  assembler.Feed(reply.data(), reply.size(), out.Sink());
  ASSERT_EQ(out.frames.size(), 1u);
  EXPECT_EQ(out.frames[0].size(), reply.size());
}

TEST(FrameAssembler, MiscountedLengthEndsAtTheTrailerOnceTheLineIsQuiet) {
  auto miscounted = kReply;
  miscounted[7] = 0x04;  // promises one byte more than comes
  FrameAssembler assembler;
  Collected out;
  assembler.Feed(miscounted.data(), miscounted.size(), out.Sink());
  EXPECT_TRUE(out.frames.empty());
  assembler.Idle(out.Sink());
  ASSERT_EQ(out.frames.size(), 1u);
  EXPECT_EQ(out.frames[0], miscounted);  // handed on whole, for the reply check to refuse

  // Without a pause, the next bytes settle it the same way.
  Collected next;
  const auto stream = Cat({miscounted, Hex("55 66")});
  assembler.Feed(stream.data(), stream.size(), next.Sink());
  ASSERT_EQ(next.frames.size(), 1u);
  EXPECT_EQ(next.frames[0], miscounted);
  EXPECT_EQ(next.data, Hex("55 66"));
}

TEST(FrameAssembler, CutOrEndlessFramesBecomeData) {
  FrameAssembler assembler;
  Collected out;
  // Half a frame, then silence: held back, never delivered as a reply; when the next frame
  // comes, the cut one is given up as data.
  assembler.Feed(kReply.data(), 12, out.Sink());
  assembler.Idle(out.Sink());
  EXPECT_TRUE(out.frames.empty() && out.data.empty());
  EXPECT_EQ(assembler.Pending(), 12u);
  assembler.Feed(kReply.data(), kReply.size(), out.Sink());
  ASSERT_EQ(out.frames.size(), 1u);
  EXPECT_EQ(out.frames[0], kReply);
  EXPECT_EQ(out.data, std::vector<uint8_t>(kReply.begin(), kReply.begin() + 12));
  EXPECT_EQ(assembler.Pending(), 0u);

  // A tag followed by more than a frame can hold and no trailer: data, and the stream goes on.
  Collected more;
  auto endless = Cat({Hex("24 4c 44 4f 54 41 2c"), std::vector<uint8_t>(3000, 0x11), kReply});
  assembler.Feed(endless.data(), endless.size(), more.Sink());
  ASSERT_EQ(more.frames.size(), 1u);
  EXPECT_EQ(more.frames[0], kReply);
  EXPECT_EQ(more.data.size(), 3007u);
}

TEST(PacketRing, KeepsTheNewestAndWakesWaitersOnShutdown) {
  PacketRing ring(3);
  for (uint8_t i = 1; i <= 5; ++i) ring.Push(&i, 1);
  EXPECT_EQ(ring.Overwritten(), 2u);
  uint8_t out[kPacketSlotDataSize];
  ASSERT_EQ(ring.TryPop(out, sizeof(out)), 1);
  EXPECT_EQ(out[0], 3);

  const auto soon = std::chrono::steady_clock::now() + std::chrono::milliseconds(20);
  ring.Clear();
  EXPECT_EQ(ring.Pop(out, sizeof(out), soon), 0);

  std::thread closer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ring.Shutdown();
  });
  const auto far = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  EXPECT_EQ(ring.Pop(out, sizeof(out), far), -1);
  closer.join();
}

TEST(SerialPortName, DeviceNamespacePrefixKeysOnLength) {
  using serial_platform::WithDeviceNamespacePrefix;
  EXPECT_EQ(WithDeviceNamespacePrefix("COM3"), "COM3");
  EXPECT_EQ(WithDeviceNamespacePrefix("COM12"), "\\\\.\\COM12");
  EXPECT_EQ(WithDeviceNamespacePrefix("\\\\.\\COM12"), "\\\\.\\COM12");
#ifndef _WIN32
  EXPECT_EQ(serial_platform::NativePortName("/dev/ttyUSB0"), "/dev/ttyUSB0");
  test_support::Pty pty;
  ASSERT_TRUE(pty.ok());
  EXPECT_TRUE(serial_platform::IsPseudoTerminal(pty.SlavePath()));
  EXPECT_FALSE(serial_platform::IsPseudoTerminal("/dev/null"));
#endif
}

}  // namespace
}  // namespace quarn::lidar
