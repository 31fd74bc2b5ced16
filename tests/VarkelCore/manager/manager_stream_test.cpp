// The Data Stream page's model against the virtual lidar's stream on loopback: figures,
// a destination elsewhere named, and "Send data here" writing it back through Save.

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "listening.h"
#include "manager_test_support.h"
#include "stream_monitor_model.h"

namespace {

// One page with the destination rows a sensor's table has.
const std::string kStreama = vktest::kTableHeader +
                             "0,Output,Destination,,,,,,,,,,,,,,,\n"
                             "1,1,0x2C,0x2D,1,Destination IP,1,IP,192.168.1.100,,,,,1_1_1_1,4,0,,\n"
                             "1,2,0x2C,0x2D,2,Data Port,1,uint16,2368,1024~65535,,,,1_1_2_1,2,0,,\n";

class ManagerStream : public vktest::ManagerTest {
 protected:
  void SetUp() override {
    ManagerTest::SetUp();
    Load("Streama", kStreama);
    // The sensor again, now streaming to this machine.
    sim_->Stop();
    varkel::sim::SimOptions o;
    o.model = "Streama";
    o.config_dir = root_ + "/Config/varID";
    o.port = 0;
    o.live_values = false;
    o.udp_target = "127.0.0.1:" + std::to_string(vktest::FreeUdpPort());
    o.udp_rate = 100;
    sim_ = std::make_unique<varkel::sim::VirtualLidar>(o);
    std::string error;
    ASSERT_TRUE(sim_->Start(&error)) << error;
    ASSERT_TRUE(Connect());
    model_ = qobject_cast<StreamMonitorModel*>(m_->getStreamMonitor());
    ASSERT_NE(model_, nullptr);
    model_->SetQuietPeriod(std::chrono::milliseconds(300));
  }
  // Refreshes until `done` holds.
  bool RefreshUntil(const std::function<bool()>& done) {
    return log_->Wait([&] {
      model_->Refresh();
      return done();
    });
  }
  std::string Figure(const char* label) {
    for (const QVariant& row : model_->figures())
      if (row.toList()[0].toString() == label) return row.toList()[1].toString().toStdString();
    return "";
  }
  StreamMonitorModel* model_ = nullptr;
};

TEST_F(ManagerStream, ADestinationElsewhereIsNamedAndSendDataHereBringsTheStreamBack) {
  model_->Start();
  ASSERT_TRUE(model_->listening()) << model_->error().toStdString();
  // The port is the sensor's "Data Port".
  EXPECT_EQ(std::to_string(model_->port()), sim_->Value("Data Port"));
  ASSERT_TRUE(RefreshUntil([&] { return Figure("Datagrams") != "0" && !Figure("Datagrams").empty(); }));
  EXPECT_TRUE(model_->diagnosis().isEmpty()) << model_->diagnosis().join("\n").toStdString();
  ASSERT_EQ(model_->senders().size(), 1);
  EXPECT_TRUE(model_->sendHereQuestion().isEmpty());

  ASSERT_TRUE(sim_->SetValue("Destination IP", "192.0.2.7"));
  ASSERT_TRUE(RefreshUntil([&] { return !model_->sendHereQuestion().isEmpty(); }));
  EXPECT_TRUE(model_->diagnosis().join("\n").contains(
      "The sensor sends its data to 192.0.2.7, which is not an address of this machine."))
      << model_->diagnosis().join("\n").toStdString();
  EXPECT_EQ(model_->sendHereQuestion().toStdString(),
            "Change the sensor's Destination IP from 192.0.2.7 to 127.0.0.1?");

  model_->SendDataHere();
  EXPECT_EQ(sim_->Value("Destination IP"), "127.0.0.1");
  EXPECT_EQ(m_->getSuccessMessage().toStdString(), "The sensor now sends its data here.");
  ASSERT_TRUE(RefreshUntil([&] { return Figure("Datagrams") != "0"; }));
  EXPECT_TRUE(model_->sendHereQuestion().isEmpty());
}

}  // namespace
