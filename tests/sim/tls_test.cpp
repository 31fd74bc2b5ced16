// KTC over verified TLS against the virtual lidar: a verified link carries reads, writes
// and files; each bad certificate ends with its own words and never with a link.

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "file_receiver.h"
#include "sim_test_support.h"
#include "test_certificates.h"
#include "verified_tls_client.h"

namespace {

using quarn::lidar::KtcClient;
using quarn::lidar::VerifiedTlsClient;
using simtest::FromHex;
using simtest::TestPki;

const TestPki& Pki() {
  static TestPki pki;
  return pki;
}

std::unique_ptr<varkel::sim::VirtualLidar> StartTlsSim(const std::string& cert, const std::string& client_ca = "",
                                                       const std::string& model = "Quenta") {
  auto sim = simtest::StartTlsLidar(Pki(), model, model == "Quenta" ? simtest::kShippedTableDir : simtest::kTestDataDir,
                                    cert, client_ca);
  EXPECT_NE(sim, nullptr) << cert;
  return sim;
}

struct Credentials {
  std::string ca = Pki().Cert("ca");
  std::string cert;
  std::string key;
};

// A verified-TLS client whose connect has come to an end: open, or failed for good.
std::unique_ptr<KtcClient> ConnectTls(uint16_t port, const Credentials& c, float timeout_s = 5.0f,
                                      const std::string& ip = "127.0.0.1") {
  auto client = std::make_unique<KtcClient>(ip, port, false, KtcClient::kClientVerifiedTls, 1, c.cert, c.key, c.ca,
                                            3000, 3000, timeout_s);
  EXPECT_TRUE(
      vktest::PollUntil([&] { return client->IsOpen() || !client->ConnectError().empty(); }, std::chrono::seconds(15)));
  return client;
}

TEST(VerifiedTls, ReadsWritesAndFilesCrossAVerifiedLink) {
  auto sim = StartTlsSim("sensor");
  auto client = ConnectTls(sim->port(), {});
  ASSERT_TRUE(client->IsOpen()) << client->ConnectError();
  EXPECT_EQ(client->PeerIssuer(), "Test Sensor CA");
  EXPECT_EQ(client->ConnectError(), "");

  std::vector<uint8_t> reply;
  ASSERT_EQ(client->QueryCommand({}, reply, 0x23), 0);
  EXPECT_EQ(reply, FromHex("00 0000 0000 0000 0000 0000 8ca0 8ca0 8ca0 8ca0 8ca0"));
  ASSERT_EQ(client->QueryCommand(FromHex("02 0001 0002 0003 0004 8ca0"), reply, 0x22), 0);
  EXPECT_EQ(sim->FovStart(), (varkel::sim::FovBlock::Angles{1, 2, 3, 4, 36000}));

  std::vector<uint8_t> data(70000);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>((i * 131) ^ (i >> 7));
  std::atomic<uint32_t> progress{0};
  ASSERT_EQ(client->TransferFile(data, 0x0A, false, progress), 0);
  const auto last = sim->LastTransfer();
  ASSERT_TRUE(last.has_value());
  EXPECT_TRUE(last->ok);
  EXPECT_EQ(last->sha256_hex, varkel::sim::Sha256Hex(data));
}

TEST(VerifiedTls, EachBadCertificateIsRefusedInItsOwnWords) {
  const auto expect_refusal = [](const std::string& sim_cert, const std::string& client_ca, const Credentials& c,
                                 const std::string& words) {
    auto sim = StartTlsSim(sim_cert, client_ca);
    auto client = ConnectTls(sim->port(), c);
    EXPECT_FALSE(client->IsOpen()) << sim_cert;
    EXPECT_EQ(client->ConnectError().substr(0, words.size()), words) << sim_cert;
    // Refused once means refused: the sensor saw one handshake, never a plain request.
    EXPECT_EQ(sim->CommandCount(0x23), 0u);
  };
  expect_refusal("self", "", {}, "certificate not trusted (self-signed)");
  expect_refusal("wrong", "", {}, "certificate is for 127.0.0.2, not 127.0.0.1");
  expect_refusal("expired", "", {}, "certificate expired on 20");
  expect_refusal("sensor", Pki().Cert("ca"), {}, "the sensor asked for a client certificate");
  expect_refusal("sensor", "", {"/nonexistent/ca.pem"}, "cannot read CA file /nonexistent/ca.pem");
  expect_refusal("sensor", "", {Pki().Cert("ca"), Pki().Cert("client"), Pki().Key("sensor")},
                 "key does not match certificate");
  // A CA that did not issue the sensor's certificate.
  expect_refusal("sensor", "", {Pki().Cert("self")}, "certificate not trusted (issued by Test Sensor CA");

  // With the client certificate the same sensor lets the program in.
  auto sim = StartTlsSim("sensor", Pki().Cert("ca"));
  auto client = ConnectTls(sim->port(), {Pki().Cert("ca"), Pki().Cert("client"), Pki().Key("client")});
  EXPECT_TRUE(client->IsOpen()) << client->ConnectError();
  std::vector<uint8_t> reply;
  EXPECT_EQ(client->QueryCommand({}, reply, 0x23), 0);
}

TEST(VerifiedTls, APlainPortIsNamedAfterTheHandshakeTimeOut) {
  auto plain = simtest::StartSim(simtest::Options());
  const auto start = std::chrono::steady_clock::now();
  auto client = ConnectTls(plain->port(), {}, 1.0f);
  EXPECT_FALSE(client->IsOpen());
  EXPECT_EQ(client->ConnectError(),
            "the sensor did not answer the TLS handshake within 1000 ms (is it a plain KTC port?)");
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

// The transport's reads are the plain one's: partial, bounded by the time-out, and one
// read that does not wait with kReceiveNonBlocking, also for bytes TLS already holds.
TEST(VerifiedTls, ReceiveReadsAsThePlainTransportDoes) {
  auto sim = StartTlsSim("sensor", "", "SimTest");
  VerifiedTlsClient tls;
  const std::string ca = Pki().Cert("ca");
  ASSERT_TRUE(tls.TryOpen(0, "127.0.0.1", sim->port(), false, nullptr, nullptr, ca.c_str(), 2)) << tls.LastError();
  EXPECT_EQ(tls.PeerIssuer(), "Test Sensor CA");
  uint8_t buffer[64];
  // Bounds only a wait of the whole time-out can break, on a machine however busy.
  ASSERT_EQ(tls.SetTimeout(5000, 5000), 0);
  auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(tls.Receive(buffer, sizeof(buffer), quarn::lidar::kReceiveNonBlocking), -1);
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(4000));
  ASSERT_EQ(tls.SetTimeout(300, 300), 0);
  t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(tls.Receive(buffer, sizeof(buffer), 0), -1);
  EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(250));

  const auto request = FromHex("47 74 05 00 00 00 00 01 01");
  const auto expected = FromHex("47 74 05 00 00 00 00 02 07 09");
  ASSERT_EQ(tls.Send(request.data(), static_cast<uint16_t>(request.size()), 0), static_cast<int>(request.size()));
  std::vector<uint8_t> got;
  ASSERT_EQ(tls.Receive(buffer, 3, 0), 3);  // a partial read of the reply
  got.assign(buffer, buffer + 3);
  // The rest is decrypted already: a read that does not wait still gets it.
  const int rest = tls.Receive(buffer, sizeof(buffer), quarn::lidar::kReceiveNonBlocking);
  ASSERT_GT(rest, 0);
  got.insert(got.end(), buffer, buffer + rest);
  EXPECT_EQ(got, expected);

  // The sensor going away reads as a closed connection.
  sim->Stop();
  EXPECT_EQ(tls.Receive(buffer, sizeof(buffer), 0), 0);
}

TEST(VerifiedTls, AnInterruptEndsTheReadInFlightAndEveryLaterOne) {
  // What a disconnect does to an exchange the sensor never answers.
  auto sim = StartTlsSim("sensor", "", "SimTest");
  VerifiedTlsClient tls;
  const std::string ca = Pki().Cert("ca");
  ASSERT_TRUE(tls.TryOpen(0, "127.0.0.1", sim->port(), false, nullptr, nullptr, ca.c_str(), 2)) << tls.LastError();
  ASSERT_EQ(tls.SetTimeout(30000, 30000), 0);
  std::atomic<bool> returned{false};
  int got = 1;
  std::thread reader([&] {
    uint8_t buffer[16];
    got = tls.Receive(buffer, sizeof(buffer), 0);
    returned = true;
  });
  // Interrupting before the read has begun must end it too, so no wait for it to start.
  tls.Interrupt();
  EXPECT_TRUE(vktest::PollUntil([&] { return returned.load(); }, std::chrono::seconds(15)))
      << "the read waited out its time-out";
  reader.join();
  EXPECT_LE(got, 0);
  const auto request = FromHex("47 74 05 00 00 00 00 01 01");
  EXPECT_LT(tls.Send(request.data(), static_cast<uint16_t>(request.size()), 0), 0);
  tls.Close();
}

TEST(VerifiedTls, TheVirtualLidarRefusesToStartWithBadFiles) {
  auto o = simtest::Options();
  o.tls = true;
  o.tls_cert = Pki().Cert("sensor");
  o.tls_key = Pki().Key("client");
  varkel::sim::VirtualLidar sim(o);
  std::string error;
  EXPECT_FALSE(sim.Start(&error));
  EXPECT_NE(error.find("cannot use key"), std::string::npos) << error;
}

}  // namespace
