// varkel-cli stream against the virtual lidar's data stream on loopback.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pcap/pcap.h>
#include <sys/socket.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "../sim/sim_test_support.h"
#include "cli_fixture.h"
#include "listening.h"
#include "wait_until.h"

namespace varkel::cli::testing {
namespace {

using Json = nlohmann::json;

class CliStreamTest : public CliTest {
 protected:
  // The virtual lidar again, now streaming to this machine's `data_port_`.
  void SetUp() override {
    CliTest::SetUp();
    sim_->Stop();
    data_port_ = vktest::FreeUdpPort();
    varkel::sim::SimOptions o = Options();
    o.udp_target = "127.0.0.1:" + std::to_string(data_port_);
    o.udp_rate = 200;
    sim_ = Started(o);
    ASSERT_NE(sim_, nullptr);
  }
  uint16_t data_port_ = 0;
};

size_t PcapCount(const std::string& file) {
  char err[PCAP_ERRBUF_SIZE];
  pcap_t* p = pcap_open_offline(file.c_str(), err);
  if (!p) return 0;
  size_t n = 0;
  pcap_pkthdr* h = nullptr;
  const u_char* d = nullptr;
  while (pcap_next_ex(p, &h, &d) == 1) ++n;
  pcap_close(p);
  return n;
}

TEST_F(CliStreamTest, CountsTheSensorsStreamAndRecordsEveryDatagram) {
  const Result r = Run({"stream", "--seconds", "1", "--json", "--pcap", File("s.pcap")});
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  const Json j = Json::parse(r.out);
  // The port is the sensor's "Data Port".
  EXPECT_EQ(j["port"], data_port_);
  EXPECT_GT(j["datagrams"].get<int>(), 0);
  EXPECT_EQ(j["bytes"], j["datagrams"].get<int>() * 516);
  ASSERT_EQ(j["senders"].size(), 1u);
  EXPECT_EQ(j["senders"][0]["address"], "127.0.0.1");
  EXPECT_EQ(j["size"]["median"], 516);
  EXPECT_EQ(j["kernel_drops"], 0);
  EXPECT_TRUE(j["diagnosis"].empty()) << j["diagnosis"];
  EXPECT_EQ(PcapCount(File("s.pcap")), j["datagrams"].get<size_t>());
}

TEST_F(CliStreamTest, ADestinationElsewhereIsNamedAndTheAdvisedCommandBringsTheStreamBack) {
  ASSERT_EQ(Run({"set", "Destination IP=192.0.2.7"}).status, 0);
  ASSERT_TRUE(vktest::PollUntil([&] { return sim_->DatagramsWithheld() > 0; }));
  const Result r = Run({"stream", "--seconds", "1"});
  EXPECT_EQ(r.status, kExitSensor) << r.out << r.err;
  EXPECT_NE(r.out.find("The sensor sends its data to 192.0.2.7, which is not an address of this machine."),
            std::string::npos)
      << r.out;
  const std::string advice = "varkel-cli --host 127.0.0.1 --port " + std::to_string(sim_->port()) +
                             " --model Quenta set \"Destination IP=127.0.0.1\"";
  EXPECT_NE(r.out.find("To send the data here: " + advice), std::string::npos) << r.out;

  ASSERT_EQ(Run({"set", "Destination IP=127.0.0.1"}).status, 0);
  EXPECT_EQ(Run({"stream", "--seconds", "1"}).status, 0);
}

TEST_F(CliStreamTest, ABusyPortIsAnErrorAndWithoutASensorOnlyFiguresAreGiven) {
  uint16_t busy = 0;
  const int holder = vktest::HoldPort(SOCK_DGRAM, &busy);
  Result r = Run({"stream", "--data-port", std::to_string(busy), "--seconds", "0.2"});
  EXPECT_EQ(r.status, kExitBadInput);
  EXPECT_EQ(r.err, "varkel-cli: port " + std::to_string(busy) +
                       " is in use by another program; close it or listen on another port\n");
  ::close(holder);

  // No --host: the settings' sensor is never asked.
  const std::string quiet = std::to_string(vktest::FreeUdpPort());
  r = Run({"stream", "--data-port", quiet, "--seconds", "0.3"}, false);
  EXPECT_EQ(r.status, kExitSensor);
  EXPECT_NE(r.out.find("No sensor is connected"), std::string::npos) << r.out;

  // A sensor that does not answer: it still listens and says why there is no diagnosis.
  r = Run(
      {"--port", std::to_string(vktest::FreePort(SOCK_STREAM)), "stream", "--data-port", quiet, "--seconds", "0.3"});
  EXPECT_EQ(r.status, kExitSensor);
  EXPECT_NE(r.out.find("did not answer"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("so no diagnosis could be made."), std::string::npos) << r.out;
}

}  // namespace
}  // namespace varkel::cli::testing
