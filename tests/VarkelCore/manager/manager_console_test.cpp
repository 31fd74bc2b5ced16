// The raw command console against the virtual lidar: what goes out on the wire, the reply
// texts, the history, the refusals and their messages, in each connection type.

#include <QDateTime>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "console_request.h"
#include "manager_test_support.h"

using Bytes = std::vector<uint8_t>;

namespace {

const char kKtcQueryFailed[] = "Query ktc command fail. Please input right ktc command header and payload.";
const char kTooLong[] =
    "WARNING: This return payload is too long, only the first 1024 bytes are displayed. For a complete payload "
    "please use the log bytes flow function.";
const char kSerialNotReady[] = "lidar is not connected, or lidar is upgrade";

// Testa with two long raw reads: one just fits the shown payload, one does not.
std::string ConsoleTable() {
  return vktest::TestaTable() +
         "9,1,0x40,,,Fits Block,0,raw,,,,,,1_1_5_6,1024,0,,\n"
         "9,2,0x41,,,Long Block,0,raw,,,,,,1_1_6_6,1500,0,,\n";
}

std::string Zeros(size_t n) {
  std::string text;
  for (size_t i = 0; i < n; ++i) text += i ? " 00" : "00";
  return text;
}

class ManagerConsole : public vktest::ManagerTest {
 protected:
  void LoadAndConnect(const std::string& model = "Testa") {
    Load(model, ConsoleTable());
    ASSERT_TRUE(Connect());
    QObject::connect(m_.get(), &VarkelManager::sendCommandHistoryChanged, [this] { ++history_signals_; });
  }

  // Sends and returns what the console printed on standard output.
  std::string Send(const std::string& cmd, const std::string& payload) {
    testing::internal::CaptureStdout();
    m_->SendCommand(QString::fromStdString(cmd), QString::fromStdString(payload));
    return testing::internal::GetCapturedStdout();
  }

  std::string Header() { return m_->getSendKtcCommandReturnHeader().toStdString(); }
  std::string Payload() { return m_->getSendKtcCommandReturnPayload().toStdString(); }
  std::string HistoryAt(int i, const char* key) {
    return m_->getSendCommandHistory().at(i).toMap().value(key).toString().toStdString();
  }
  uint64_t RequestsSeen() {
    uint64_t n = 0;
    for (int cmd = 0; cmd < 256; ++cmd) n += sim_->CommandCount(static_cast<uint8_t>(cmd));
    return n;
  }

  int history_signals_ = 0;
};

}  // namespace

TEST_F(ManagerConsole, RequestsAndRepliesAsHexText) {
  LoadAndConnect();
  ASSERT_TRUE(sim_->SetValue("Enable", "1"));
  ASSERT_TRUE(sim_->SetValue("Threshold", "4660"));  // 0x1234
  m_->SetLogBytesFlowStatus(true);
  const struct {
    const char *cmd, *payload;
    uint8_t sent_cmd;
    Bytes sent;
    const char *header, *reply, *recorded_cmd, *recorded_payload;
  } cases[] = {
      // A read with an empty payload; the reply's fields, upper case.
      {"06", "", 0x06, {}, "47 74 06 00 00 00 00 03", "01 12 34", "06", ""},
      // A set: the pieces in either spelling become the bytes; the reply is empty.
      {"0x26", "0x01 02 0x0A", 0x26, {0x01, 0x02, 0x0A}, "47 74 26 00 00 00 00 00", "", "26", "01 02 0A"},
      // Blanks around either text are not pieces.
      {" 0X7 ", " 0xff 0 ", 0x07, {0xFF, 0x00}, "47 74 07 00 00 00 00 00", "", "7", "ff 0"},
  };
  int expected_count = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.cmd);
    sim_->ResetCounters();
    history_signals_ = 0;
    EXPECT_EQ(Send(c.cmd, c.payload), "");
    EXPECT_EQ(sim_->CommandCount(c.sent_cmd), 1u);
    EXPECT_EQ(sim_->LastPayload(c.sent_cmd), c.sent);
    EXPECT_EQ(Header(), c.header);
    EXPECT_EQ(Payload(), c.reply);
    EXPECT_EQ(history_signals_, 1);
    EXPECT_EQ(m_->getCommandLogCnt(), ++expected_count);
    EXPECT_EQ(HistoryAt(0, "send_cmd_history"), c.recorded_cmd);
    EXPECT_EQ(HistoryAt(0, "send_payload_history"), c.recorded_payload);
  }
  EXPECT_EQ(sim_->Value("Threshold"), "522");  // the first set reached the register
  EXPECT_EQ(Error(), "");

  // The whole request frame of the set, as the byte flow shows it.
  log_->Flush();
  EXPECT_TRUE(log_->Has("BYTES: SEND: 47 74 26 00 00 00 00 03 01 02 0a ")) << testing::PrintToString(log_->Trace());
}

TEST_F(ManagerConsole, LongRepliesAreCutWithAWarning) {
  LoadAndConnect();
  // The two raw get-only rows are logs to the sensor: their reply is a body of the log size.
  const struct {
    const char *cmd, *log, *length_field, *error;
    uint32_t size;
  } cases[] = {{"40", "Fits Block", "00 00 04 00", "", 1024}, {"41", "Long Block", "00 00 05 DC", kTooLong, 1500}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.cmd);
    sim_->SetLogSize(c.size);
    m_->setErrorMsg("");
    Send(c.cmd, "");
    EXPECT_EQ(Header(), std::string("47 74 ") + c.cmd + " 00 " + c.length_field);
    // The first 1024 bytes, in the console's hex text (its digits are checked on short replies).
    EXPECT_EQ(Payload(), varkel::UpperHexSpaced(sim_->LogBody(c.log)->data(), 1024));
    EXPECT_EQ(Error(), c.error);
  }
}

TEST_F(ManagerConsole, HistoryKeepsTheTenNewestWithTheirTime) {
  LoadAndConnect();
  for (int i = 0; i <= 10; ++i) {
    char payload[8];
    std::snprintf(payload, sizeof(payload), "%02X", i);
    Send("07", payload);
  }
  EXPECT_EQ(sim_->CommandCount(7), 11u);
  EXPECT_EQ(m_->getCommandLogCnt(), 10);
  ASSERT_EQ(m_->getSendCommandHistory().size(), 10);
  EXPECT_EQ(HistoryAt(0, "send_payload_history"), "0A");  // newest first
  EXPECT_EQ(HistoryAt(9, "send_payload_history"), "01");  // "00", the oldest, is gone

  // Local time, year-month-day and hours:minutes:seconds, taken at the send.
  const QDateTime time =
      QDateTime::fromString(QString::fromStdString(HistoryAt(0, "record_time")), "yyyy-MM-dd HH:mm:ss");
  ASSERT_TRUE(time.isValid()) << HistoryAt(0, "record_time");
  EXPECT_LE(std::abs(time.secsTo(QDateTime::currentDateTime())), 5);
}

TEST_F(ManagerConsole, TextsThatAreNoHexBytesSendNothing) {
  LoadAndConnect();
  Send("07", "01");
  const std::string header_before = Header();
  const struct {
    const char *cmd, *payload, *out, *error;
  } cases[] = {
      {"zz", "", "Invalid_argument\n", "Incorrect KTC header was entered. Parsing failed."},
      {"", "01", "Invalid_argument\n", "Incorrect KTC header was entered. Parsing failed."},
      {"0x", "", "Invalid_argument\n", "Incorrect KTC header was entered. Parsing failed."},
      {"7g", "", "Invalid_argument\n", "Incorrect KTC header was entered. Parsing failed."},
      {"100", "", "Out_of_range\n", "Incorrect KTC header was entered. Parsing failed."},
      {"123456789ABCDEF0", "", "Out_of_range\n", "Incorrect KTC header was entered. Parsing failed."},
      {"07", "01 0xGG", "Invalid_argument\n", "Incorrect KTC payload was entered. Parsing failed."},
      {"07", "01  02", "Invalid_argument\n", "Incorrect KTC payload was entered. Parsing failed."},
      {"07", "0x", "Invalid_argument\n", "Incorrect KTC payload was entered. Parsing failed."},
      {"07", "100", "Out_of_range\n", "Incorrect KTC payload was entered. Parsing failed."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.cmd) + " / " + c.payload);
    m_->setErrorMsg("");
    sim_->ResetCounters();
    history_signals_ = 0;
    EXPECT_EQ(Send(c.cmd, c.payload), c.out);
    EXPECT_EQ(Error(), c.error);
    EXPECT_EQ(RequestsSeen(), 0u);
    EXPECT_EQ(history_signals_, 0);
    EXPECT_EQ(m_->getCommandLogCnt(), 1);
    EXPECT_EQ(Header(), header_before);  // the last reply stays shown
  }
}

TEST_F(ManagerConsole, AFailedQueryClearsTheReplyAndAddsNoEntry) {
  LoadAndConnect();
  Send("06", "");
  ASSERT_FALSE(Header().empty());
  ASSERT_FALSE(Payload().empty());
  history_signals_ = 0;
  // 0x77 is unknown to the lidar: it answers with an error code.
  EXPECT_EQ(Send("77", "01"), "query command failed!\n");
  EXPECT_EQ(sim_->CommandCount(0x77), 1u);
  EXPECT_EQ(Header(), "");
  EXPECT_EQ(Payload(), "");
  EXPECT_EQ(m_->getCommandLogCnt(), 1);
  EXPECT_EQ(history_signals_, 1);
  EXPECT_EQ(Error(), kKtcQueryFailed);
  EXPECT_TRUE(m_->getIsConnected());
}

TEST_F(ManagerConsole, RestartAndResetCommandsDisconnect) {
  LoadAndConnect();
  sim_->SetRestartDelay(200);  // the sensor really restarts on 0x10
  const struct {
    const char *cmd, *payload, *message, *header_start;
  } cases[] = {{"10", "", "Lidar restart.", "47 74 10"}, {"0x25", "02", "Lidar reset.", "47 74 25"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.cmd);
    if (!m_->getIsConnected()) {
      ASSERT_TRUE(vktest::WaitListening(sim_->port()));
      ASSERT_TRUE(Connect());
    }
    Send(c.cmd, c.payload);
    EXPECT_FALSE(m_->getIsConnected());
    EXPECT_EQ(m_->getSuccessMessage().toStdString(), c.message);
    EXPECT_EQ(Header().substr(0, 8), c.header_start);  // the reply is shown and recorded first
    EXPECT_EQ(HistoryAt(0, "send_payload_history"), c.payload);
    log_->Flush();
    EXPECT_TRUE(log_->Has("INFO: Lidar disconnected"));
  }
}

TEST_F(ManagerConsole, KtcToASmallSensorUsesTheSerialMessages) {
  Load("Zelto-KTC", ConsoleTable());
  ASSERT_EQ(m_->getConnectType(), 2);
  ASSERT_TRUE(Connect());

  Send("07", "");
  EXPECT_EQ(Header(), "47 74 07 00 00 00 00 00");
  EXPECT_EQ(m_->getCommandLogCnt(), 1);
  const struct {
    const char *cmd, *payload, *error;
  } cases[] = {
      {"77", "",
       "Query Serial command fail. Please check BytesFlow in Log Window. Please input right Serial "
       "command header and payload."},
      {"zz", "", "Incorrect Serial header was entered. Parsing failed."},
      {"07", "xx", "Incorrect Serial payload was entered. Parsing failed."},
  };
  for (const auto& c : cases) {
    m_->setErrorMsg("");
    Send(c.cmd, c.payload);
    EXPECT_EQ(Error(), c.error) << c.cmd;
  }
}

TEST_F(ManagerConsole, SerialLinesConsole) {
  Load("Zelto", ConsoleTable(), true);
  ASSERT_EQ(m_->getConnectType(), 1);
  Send("2", "0A 01");
  EXPECT_EQ(Error(), kSerialNotReady);
  EXPECT_EQ(sim_->SerialCommandCount(2), 0u);

  varkel::sim::SmallSensorState state = sim_->SmallSensor();
  state.serial_number = "AB12";
  sim_->SetSmallSensor(state);
  ASSERT_TRUE(ConnectSmallSensor(true));
  // The information thread's first round is over; its next query is seconds away.
  ASSERT_TRUE(SmallSensorInfoRead());
  const uint64_t before = sim_->SerialCommandCount(2);

  // Header: the reply body's length byte and echoed command; payload: the rest.
  Send("0x02", "0A 0x01");
  EXPECT_EQ(sim_->SerialCommandCount(2), before + 1);
  EXPECT_EQ(sim_->LastSerialPayload(2), (Bytes{0x0A, 0x01}));
  EXPECT_EQ(Header(), "12 02");
  EXPECT_EQ(Payload(), "0A 01 41 42 31 32 " + Zeros(12));
  EXPECT_EQ(HistoryAt(0, "send_cmd_history"), "02");
  EXPECT_EQ(HistoryAt(0, "send_payload_history"), "0A 01");

  m_->setErrorMsg("");
  Send("2", "zz");
  EXPECT_EQ(Error(), "Incorrect Serial payload was entered. Parsing failed.");

  // A sensor that does not answer.
  sim_->SetLinkLost(true);
  EXPECT_EQ(Send("2", "0A 01"), "query command failed!\n");
  EXPECT_EQ(Error(), "Query Serial command fail. Please input right Serial command header and payload.");
  EXPECT_EQ(Header(), "");
  EXPECT_EQ(Payload(), "");
  EXPECT_EQ(m_->getCommandLogCnt(), 1);
  m_->Stop();
}
