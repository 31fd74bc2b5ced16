// The controller as an object: property rules, settings file, model list and selection,
// and the page layout the window reads.

#include <QDir>
#include <QFile>
#include <QSettings>
#include <QSignalSpy>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "manager_test_support.h"

using vktest::TestManager;

namespace {

class ManagerObject : public vktest::ManagerTest {
 protected:
  void SetUp() override {
    ManagerTest::SetUp();
    vktest::WriteTable(root_, "Testa", vktest::TestaTable());
  }
};

// A property as text; lists joined with blanks.
std::string Text(const QVariant& v) {
  if (v.userType() == QMetaType::QStringList || v.userType() == QMetaType::QVariantList)
    return v.toStringList().join(' ').toStdString();
  return v.toString().toStdString();
}

}  // namespace

TEST_F(ManagerObject, PropertyWriteRulesAndMessages) {
  TestManager m;
  QSignalSpy init(&m, &VarkelManager::initInfoChanged);
  m.setProperty("udpPort", "70000");
  EXPECT_EQ(m.property("udpPort").toString(), "4464");  // low 16 bits
  EXPECT_EQ(vktest::WhatOf([&] { m.setUdpPort("port"); }), "invalid stoi argument");
  EXPECT_EQ(vktest::WhatOf([&] { m.setUdpPort("99999999999"); }), "stoi argument out of range");
  EXPECT_EQ(m.property("udpPort").toString(), "4464");
  m.setProperty("baud_rate", "fast");
  EXPECT_EQ(m.property("baud_rate").toString(), "0");
  EXPECT_EQ(init.count(), 0);  // the connection fields' setters emit nothing

  QSignalSpy dl(&m, &VarkelManager::isDownloadLogChanged);
  for (bool on : {false, true, true}) m.setProperty("IsDownloadLog", on);
  EXPECT_EQ(dl.count(), 1);
  EXPECT_TRUE(m.property("IsDownloadLog").toBool());
}

TEST_F(ManagerObject, SettingsAreReadKeyByKeyAndConnectWritesFiveOfThem) {
  QDir().mkpath(QFileInfo(VarkelManager::SettingsFilePath()).absolutePath());
  {
    QSettings s(VarkelManager::SettingsFilePath(), QSettings::IniFormat);
    s.setValue("udp_port", 7000);
    s.setValue("ktc_port", "9400");
    s.setValue("point_cloud_baudrate", "junk");
  }
  {
    TestManager m;
    EXPECT_EQ(m.property("udpPort").toString(), "7000");
    EXPECT_EQ(m.property("port").toString(), "9400");
    EXPECT_EQ(m.property("baud_rate").toString(), "0");               // wrong type: lenient 0
    EXPECT_EQ(m.property("ip_address").toString(), "192.168.1.201");  // absent: default
    m.setProperty("ip_address", "127.0.0.1");
    m.setProperty("port", "1");  // nothing listens there: the attempt fails quickly
    m.setProperty("serial_port_485", "/dev/null485");
    m.setProperty("serial_port_232", "/dev/null232");
    m.setProperty("baud_rate", "3125000");
    m.setProperty("udpPort", "1234");
    ASSERT_TRUE(m.ConnectLidar());
  }  // the destructor waits for the attempt
  QSettings s(VarkelManager::SettingsFilePath(), QSettings::IniFormat);
  std::string stored;
  for (const char* key :
       {"device_ip_address", "ktc_port", "rs485_com", "rs232_com", "point_cloud_baudrate", "udp_port"})
    stored += s.value(key).toString().toStdString() + " ";
  EXPECT_EQ(stored, "127.0.0.1 1 /dev/null485 /dev/null232 3125000 7000 ");

  TestManager again;  // and a new controller reads them back
  EXPECT_EQ(again.property("baud_rate").toString(), "3125000");
  EXPECT_EQ(again.property("udpPort").toString(), "7000");
}

TEST_F(ManagerObject, ModelListIsSortedWithoutMarvoKtcUnlessStartedForOneModel) {
  for (const char* model : {"beta", "Alpha", "Marvo-KTC", "Zelto"})
    vktest::WriteTable(root_, model, vktest::TestaTable());
  QDir().mkpath(QString::fromStdString(root_ + "/Config/varID/folder.csv"));  // not a file
  TestManager m;
  EXPECT_EQ(m.property("LidarModelList").toStringList(), (QStringList{"Alpha", "beta", "Testa", "Zelto"}));

  QSignalSpy list(&m, &VarkelManager::lidarModelListChanged);
  // "" and a model without a table change nothing. The host viewer reaches Marvo-KTC this
  // way, although the combo never lists it.
  for (const char* name : {"", "Gamma", "Marvo-KTC"}) m.SetVMNowName(name);
  EXPECT_EQ(list.count(), 1);
  EXPECT_EQ(m.getVMNowName(), "Marvo-KTC");
  EXPECT_EQ(m.property("connectType").toInt(), 2);
  EXPECT_EQ(m.property("LidarModelList").toStringList(), QStringList{"Marvo-KTC"});
}

TEST_F(ManagerObject, ModelSelectionSetsTypeAndSignalsInOrder) {
  for (const char* model : {"Zelto", "Zelto-KTC", "zelto"}) vktest::WriteTable(root_, model, vktest::TestaTable());
  TestManager m;
  vktest::SignalLog log(&m);
  m.InitConfigFileParser("Zelto");
  log.Flush();
  ASSERT_GE(log.Trace().size(), 5u);  // after the table's own fault report
  EXPECT_EQ(std::vector<std::string>(log.Trace().end() - 5, log.Trace().end()),
            (std::vector<std::string>{"zeltoLidarInfoChanged", "connectTypeChanged", "lidarClearModel",
                                      "lidarModelChanged", "lidarShowModel"}));
  // Model names are compared whole and with their case.
  for (const auto& c : std::vector<std::pair<const char*, int>>{{"Zelto", 1}, {"Zelto-KTC", 2}, {"zelto", 0}}) {
    m.InitConfigFileParser(c.first);
    EXPECT_EQ(m.property("connectType").toInt(), c.second) << c.first;
  }
  EXPECT_EQ(m.property("level1List").toStringList(), (QStringList{"Device", "Status"}));
}

TEST_F(ManagerObject, ABrokenTableIsReportedAndLeavesNoTable) {
  TestManager m;
  m.InitConfigFileParser("Testa");
  ASSERT_EQ(m.property("level1List").toList().size(), 2);

  std::string broken = vktest::TestaTable();
  broken.replace(broken.find("1,2,0x01,,,PN,0,"), 16, "1,2,0x01,,,PN,x,");
  vktest::WriteTable(root_, "Broken", broken);
  vktest::SignalLog log(&m);
  m.InitConfigFileParser("Broken");
  log.Flush();
  EXPECT_EQ(log.Count("errorMessageChanged"), 1);
  EXPECT_EQ(log.Count("lidarShowModel"), 1);  // the pages still empty themselves
  const std::string text = m.property("errorMessage").toString().toStdString();
  for (const char* part : {"Broken.csv", "row 4", "invalid stoi argument"})
    EXPECT_NE(text.find(part), std::string::npos) << text;
  EXPECT_TRUE(log.Has("ERROR: " + text)) << text;
  EXPECT_TRUE(m.property("level1List").toList().isEmpty() && m.property("myMap").toList().isEmpty());
  EXPECT_FALSE(m.CheckVarExistsInConfigFileByName("SN"));

  m.InitConfigFileParser("Missing");  // no file at all
  log.Flush();
  EXPECT_EQ(log.Count("errorMessageChanged"), 2);
  EXPECT_NE(m.property("errorMessage").toString().indexOf("Missing.csv"), -1);
}

TEST_F(ManagerObject, PageLayoutForTheWindow) {
  TestManager m;
  vktest::SignalLog log(&m);
  m.InitConfigFileParser("Testa");
  log.Flush();

  const QVariantList level2 = m.property("level2List").toList();
  ASSERT_EQ(level2.size(), 2);
  const QVariantList page1 = level2[0].toList();
  ASSERT_EQ(page1.size(), 12);  // 4 identity rows, 8 network rows
  EXPECT_EQ(page1[0].toList(), (QVariantList{"SN", 0, 0, 0, 0}));
  EXPECT_EQ(page1[7].toList(), (QVariantList{"Mode", 3, 0, 1, 3}));
  EXPECT_EQ(page1[10].toList(), (QVariantList{"Threshold (mm)", 2, 0, 1, 6}));
  EXPECT_EQ(level2[1].toList()[0].toList(), (QVariantList{"Temperature (C)", 0, 1, 0, 0}));

  const QVariantList network = m.property("myMap").toList()[0].toList()[1].toList();
  const QVariantMap mode = network[3].toMap();
  EXPECT_EQ(mode["var_id"].toString() + " " + mode["current_val"].toString(), "5-1 0");
  EXPECT_EQ(mode["option_num"].toInt(), 3);
  EXPECT_EQ(mode["type"].toInt(), 3);
  EXPECT_EQ(mode["options"].toList(), (QVariantList{0, 1, 2}));
  EXPECT_EQ(mode["varname_value_to_option"].toStringList(), (QStringList{"Off", "Low", "High"}));
  const QVariantMap port = network[2].toMap();
  EXPECT_EQ(port["get_start_pos"].toInt(), 10);  // behind IP (4) and MAC (6)
  EXPECT_EQ(port["set_start_pos"].toInt(), 4);
  EXPECT_EQ(port["default_val"].toString(), "9347");

  // A switched row carries its switch's value; a type-2 row without one is a table fault.
  EXPECT_EQ(network[6].toMap()["switch_index"].toString(), "0");
  EXPECT_TRUE(log.Has("ERROR: config file error, Please check the configuration of type 2 of Orphan"));
  EXPECT_FALSE(log.Has("ERROR: config file error, Please check the configuration of type 2 of Threshold"));
  EXPECT_EQ(m.property("logRepeaterModel").toStringList(), QStringList{"Fault Log"});

  EXPECT_TRUE(m.isTimerUpdate(1, 0, 0));
  EXPECT_FALSE(m.isTimerUpdate(1, 0, 2) || m.isTimerUpdate(1, 1, 0) || m.isTimerUpdate(-1, 0, 0));
}

TEST_F(ManagerObject, LookupsByNameAndCaseForms) {
  std::string table = vktest::TestaTable();
  table.replace(table.find("Operation Log"), 13, "operation log");
  vktest::WriteTable(root_, "Lower", table);
  TestManager m;
  testing::internal::CaptureStdout();
  EXPECT_EQ(m.searchVarPtr("SN", "var_name"), nullptr);  // nothing loaded
  m.InitConfigFileParser("Lower");
  // A name matches as written or in lower case, on either side (the table has "Run Time").
  const std::pair<const char*, bool> names[] = {
      {"", false},        {"Restart", true},   {"restart", true}, {"Operation Log", true}, {"operation log", true},
      {"run time", true}, {"RUN TIME", false}, {"Reset", false}};
  for (const auto& n : names) EXPECT_EQ(m.CheckVarExistsInConfigFileByName(n.first), n.second) << n.first;

  ASSERT_NE(m.searchVarPtr("3-2", "var_id"), nullptr);
  EXPECT_EQ(m.searchVarPtr("3-2", "id"), m.searchVarPtr("Run Time", "name"));
  EXPECT_EQ(m.searchVarPtr("Run Time", "label"), nullptr);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("VarkelManager::searchVarPtr(): unknown search type\n"), std::string::npos);
}

TEST(ManagerInstance, CreatedOncePerProcess) {
  vktest::EnsureApp();
  std::atomic<VarkelManager*> seen[4];
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&, i] { seen[i] = VarkelManager::GetInstance(i == 0, QString("path-%1").arg(i)); });
  for (auto& t : threads) t.join();
  VarkelManager* first = VarkelManager::GetInstance(false, "other");
  for (auto& s : seen) EXPECT_EQ(s.load(), first);
  delete first;  // the window owns and deletes it; later calls are not expected
}
