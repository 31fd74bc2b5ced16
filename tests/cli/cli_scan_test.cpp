// varkel-cli scan on loopback: a sensor of each frame version, a closed port, a listener
// that never answers and one that answers something else.

#include <gtest/gtest.h>

#include <future>
#include <string>

#include <nlohmann/json.hpp>

#include "../libquarn/KtcClient/test_support.h"
#include "cli_fixture.h"
#include "test_certificates.h"

namespace {

using namespace varkel::cli::testing;
using Json = nlohmann::json;

class CliScanTest : public CliTest {};

TEST_F(CliScanTest, ScanTellsSensorsFromClosedSilentAndForeignPorts) {
  varkel::sim::SimOptions o = Options();
  o.ktc_version = 2;
  auto started = Started(o);
  ASSERT_NE(started, nullptr);
  varkel::sim::VirtualLidar& v2 = *started;
  // A listener that never answers, and one that answers something else at once.
  ktc_test::ScriptedPeer silent, foreign;
  auto answered = std::async(std::launch::async, [&] {
    const std::string http = "HTTP/1.0 400 Bad Request\r\n\r\n";
    return foreign.Accept() && foreign.Write({http.begin(), http.end()});
  });
  const uint16_t closed = vktest::FreePort(SOCK_STREAM);

  const std::string ports = std::to_string(sim_->port()) + "," + std::to_string(v2.port()) + "," +
                            std::to_string(closed) + "," + std::to_string(silent.port()) + "," +
                            std::to_string(foreign.port());
  Result scan = Run({"--json", "--timeout", "300", "scan", "127.0.0.1/32", "--ports", ports}, false);
  ASSERT_EQ(scan.status, 0) << scan.err;
  Json rows = Json::parse(scan.out);
  ASSERT_EQ(rows.size(), 5u) << scan.out;
  for (Json& row : rows) {
    EXPECT_EQ(row["address"], "127.0.0.1");
    if (row.contains("rtt_ms")) {
      EXPECT_GT(row["rtt_ms"].get<double>(), 0.0);
      EXPECT_LT(row["rtt_ms"].get<double>(), 300.0);
      row.erase("rtt_ms");
    }
  }
  const std::string pn = sim_->Value("PN");
  EXPECT_EQ(rows[0],
            (Json{{"address", "127.0.0.1"}, {"port", sim_->port()}, {"status", "KTC 1.0"}, {"part_number", pn}}));
  EXPECT_EQ(rows[1], (Json{{"address", "127.0.0.1"}, {"port", v2.port()}, {"status", "KTC 2.0"}, {"part_number", pn}}));
  EXPECT_EQ(rows[2], (Json{{"address", "127.0.0.1"}, {"port", closed}, {"status", "refused"}}));
  EXPECT_EQ(rows[3], (Json{{"address", "127.0.0.1"},
                           {"port", silent.port()},
                           {"status", "silent"},
                           {"detail", "connected, no reply within 300 ms"}}));
  EXPECT_EQ(rows[4], (Json{{"address", "127.0.0.1"},
                           {"port", foreign.port()},
                           {"status", "not KTC"},
                           {"detail", "answered 48 54 54 50 2F 31 2E 30"}}));
  EXPECT_TRUE(answered.get());

  // Nothing answering is a failure a script can test for.
  Result none = Run({"--timeout", "300", "scan", "127.0.0.1", "--ports", std::to_string(closed)}, false);
  EXPECT_EQ(none.status, 3);
  EXPECT_NE(none.out.find("127.0.0.1:" + std::to_string(closed) + "  refused"), std::string::npos) << none.out;
  EXPECT_EQ(none.err, "varkel-cli: no address of 127.0.0.1 answers KTC\n");
}

TEST_F(CliScanTest, ScanRefusesWideNetworksAndBadPortsBeforeSendingAnything) {
  const struct {
    std::vector<std::string> args;
    std::string says;
  } cases[] = {
      {{"scan", "10.0.0.0/16"}, "/16 is too wide: /24 at most"},
      {{"scan", "10.0.0.0/33"}, "'/33' is no prefix length"},
      {{"scan", "10.0.0.0/"}, "'/' is no prefix length"},
      {{"scan", "sensor.local"}, "'sensor.local' is no IPv4 address"},
      {{"scan", "127.0.0.1", "--ports", "80,x"}, "'x' in --ports is no port"},
      {{"scan", "127.0.0.1", "--ports", "0"}, "'0' in --ports is no port"},
      {{"scan", "127.0.0.1", "--ports", "1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17"}, "17 ports, 16 at most"},
  };
  for (const auto& c : cases) {
    const Result r = Run(c.args, false);
    EXPECT_EQ(r.status, 2) << c.args[1];
    EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
  }
}

TEST_F(CliScanTest, ScanOfAPrefixVisitsEveryHostAddressInParallel) {
  // 127.0.0.0/29: six host addresses, all on loopback; only .1 runs the sensor. Done in
  // parallel, six closed ports answer about at once, far inside one time-out each.
  Result scan = Run({"--json", "scan", "127.0.0.1/29", "--ports", std::to_string(sim_->port())}, false);
  ASSERT_EQ(scan.status, 0) << scan.err;
  const Json rows = Json::parse(scan.out);
  ASSERT_EQ(rows.size(), 6u);
  for (size_t i = 0; i < rows.size(); ++i) {
    EXPECT_EQ(rows[i]["address"], "127.0.0." + std::to_string(i + 1));
    EXPECT_EQ(rows[i]["status"], i == 0 ? "KTC 1.0" : "refused") << rows[i];
  }
}

}  // namespace

namespace {

// TLS only when asked on the command line. A scan counts a port only when its certificate
// is verified and KTC answers inside the handshake; a command on a refused sensor ends with
// the reason; the certificate options alone are a mistake.
TEST_F(CliScanTest, TlsIsVerifiedOrRefusedWithTheReason) {
  simtest::TestPki pki;
  auto good = simtest::StartTlsLidar(pki, "Quenta", kTables, "sensor");
  auto wrong = simtest::StartTlsLidar(pki, "Quenta", kTables, "wrong");
  ASSERT_TRUE(good && wrong);
  const std::string ports =
      std::to_string(good->port()) + "," + std::to_string(wrong->port()) + "," + std::to_string(sim_->port());
  Result scan = Run(
      {"--json", "--timeout", "500", "--tls", "--ca", pki.Cert("ca"), "scan", "127.0.0.1", "--ports", ports}, false);
  ASSERT_EQ(scan.status, 0) << scan.err;
  Json rows = Json::parse(scan.out);
  ASSERT_EQ(rows.size(), 3u) << scan.out;
  EXPECT_TRUE(rows[0].contains("rtt_ms"));
  rows[0].erase("rtt_ms");
  EXPECT_EQ(rows[0], (Json{{"address", "127.0.0.1"},
                           {"port", good->port()},
                           {"status", "KTC 1.0"},
                           {"part_number", good->Value("PN")},
                           {"detail", "TLS verified, issued by Test Sensor CA"}}));
  EXPECT_EQ(rows[1], (Json{{"address", "127.0.0.1"},
                           {"port", wrong->port()},
                           {"status", "TLS refused"},
                           {"detail", "certificate is for 127.0.0.2, not 127.0.0.1"}}));
  EXPECT_EQ(rows[2]["status"], "TLS refused");
  // The plain sensor saw the handshake only, never a plain probe.
  EXPECT_EQ(sim_->CommandCount(7), 0u);

  const auto at = [&](uint16_t port, const std::string& command) {
    return Run({"--host", "127.0.0.1", "--port", std::to_string(port), "--timeout", "1000", "--tls", "--ca",
                pki.Cert("ca"), command},
               false);
  };
  Result info = at(good->port(), "info");
  ASSERT_EQ(info.status, 0) << info.err;
  EXPECT_NE(info.out.find("TLS, verified, issued by Test Sensor CA"), std::string::npos) << info.out;
  Result refused = at(wrong->port(), "get");
  EXPECT_EQ(refused.status, 3);
  EXPECT_EQ(refused.err, "varkel-cli: no verified TLS connection to 127.0.0.1:" + std::to_string(wrong->port()) +
                             ": certificate is for 127.0.0.2, not 127.0.0.1\n");
  EXPECT_EQ(wrong->CommandCount(7), 0u);

  Result loose = Run({"--ca", pki.Cert("ca"), "get"});
  EXPECT_EQ(loose.status, 2);
  EXPECT_EQ(loose.err, "varkel-cli: --ca, --cert and --key go with --tls\n");
}

}  // namespace
