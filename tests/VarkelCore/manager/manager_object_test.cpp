// The controller as an object: its meta-object contract, property rules, messages,
// settings file, model list and selection, and the page layout the window reads.

#include <QDir>
#include <QFile>
#include <QMetaMethod>
#include <QSettings>
#include <QSignalSpy>

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>

#include "logger.h"
#include "manager_test_support.h"

using vktest::TestManager;

namespace {

class ManagerObject : public ::testing::Test {
 protected:
  void SetUp() override {
    vktest::EnsureApp();
    QFile::remove(VarkelManager::SettingsFilePath());
    root_ = vktest::MakeInstallRoot();
    vktest::WriteTable(root_, "Testa", vktest::TestaTable());
  }
  void TearDown() override { QFile::remove(VarkelManager::SettingsFilePath()); }

  void WriteSettings(const std::function<void(QSettings&)>& fill) {
    QDir().mkpath(QFileInfo(VarkelManager::SettingsFilePath()).absolutePath());
    QSettings s(VarkelManager::SettingsFilePath(), QSettings::IniFormat);
    fill(s);
    s.sync();
  }

  std::string root_;
};

// The class's own methods of one kind, in meta-object order, joined with blanks.
std::string MethodNames(QMetaMethod::MethodType type) {
  const QMetaObject& mo = VarkelManager::staticMetaObject;
  std::string names;
  for (int i = mo.methodOffset(); i < mo.methodCount(); ++i)
    if (mo.method(i).methodType() == type) names += (names.empty() ? "" : " ") + mo.method(i).name().toStdString();
  return names;
}

}  // namespace

TEST_F(ManagerObject, MetaObjectKeepsSignalAndInvokableOrder) {
  EXPECT_STREQ(VarkelManager::staticMetaObject.className(), "VarkelManager");
  EXPECT_EQ(MethodNames(QMetaMethod::Signal),
            "isConnectedChanged lidarModelChanged lidarClearModel lidarShowModel myMapChanged fovConfigChanged "
            "isUpgradingChanged sendCommandHistoryChanged errorMessageChanged successMessageChanged "
            "isDownloadLogChanged lidarModelListChanged isResetAllSettingsVisibleChanged sendLogMessage "
            "downloadFinished downloadOperationLogFinished someVarOutOfRange connectTypeChanged "
            "zeltoLidarInfoChanged isGetPBLVersionChanged initInfoChanged myTimerMapChanged");
  // Defaulted arguments appear twice, as Qt makes one method per arity.
  EXPECT_EQ(MethodNames(QMetaMethod::Method),
            "InitConfigFileParser InitConfigFileParser ConnectLidar CheckLidarConnection Run Stop SetText ClearSetMap "
            "getSetMapSize StartGetConfigFile GetLidarModuleInfo UpdateSingleVarInfo UpdateSingleVarInfo "
            "CheckVarIsWithinRange CheckVarIsWithinRange CheckModuleVarsWithinRange SetMultiFovConfig UpdateUI "
            "setErrorMsg setSuccessMsg "
            "SetLogBytesFlowStatus GetIsConnectingLidar CheckVarExistsInConfigFileByName getLidarSN getLidarPN "
            "setModuleIndexUse getVMNowName isTimerUpdate");

  const QMetaObject& mo = VarkelManager::staticMetaObject;
  QMetaProperty udp = mo.property(mo.indexOfProperty("udpPort"));
  EXPECT_TRUE(udp.isWritable());
  EXPECT_EQ(std::string(udp.notifySignal().name().constData()), "initInfoChanged");
  EXPECT_FALSE(mo.property(mo.indexOfProperty("IsConnected")).isWritable());
  EXPECT_FALSE(mo.property(mo.indexOfProperty("upgradeProgress")).hasNotifySignal());
}

TEST_F(ManagerObject, DefaultsWithoutASettingsFile) {
  TestManager m;
  EXPECT_EQ(m.property("ip_address").toString(), "192.168.1.201");
  EXPECT_EQ(m.property("port").toString(), "9347");
  EXPECT_EQ(m.property("serial_port_485").toString(), "/dev/ttyUSB0");
  EXPECT_EQ(m.property("serial_port_232").toString(), "/dev/ttyUSB1");
  EXPECT_EQ(m.property("baud_rate").toString(), "3000000");
  EXPECT_EQ(m.property("udpPort").toString(), "2368");
  EXPECT_EQ(m.property("upgradeProgressTotalLen").toInt(), 1);
  EXPECT_EQ(m.property("upgradeProgress").toInt(), 0);
  EXPECT_FALSE(m.property("IsConnected").toBool());
  EXPECT_EQ(m.property("connectType").toInt(), 0);
  const QStringList fov = m.property("FovList").toStringList();
  EXPECT_EQ(fov, (QStringList{"0.0", "0.0", "0.0", "0.0", "0.0", "360.0", "360.0", "360.0", "360.0", "360.0"}));
  EXPECT_EQ(m.property("ZeltoLidarInfo").toStringList(),
            (QStringList{"xx.xx.xx.xx", "xxxxxxxx", "xxxxxxxx", "xxxxxxxx"}));
  EXPECT_EQ(m.getLidarSN(), "");  // no table yet
  EXPECT_EQ(m.getLidarPN(), "");
  EXPECT_TRUE(m.property("myMap").toList().isEmpty());
  EXPECT_FALSE(QFile::exists(VarkelManager::SettingsFilePath()));  // reading creates nothing
}

TEST_F(ManagerObject, PropertyWriteRules) {
  TestManager m;
  QSignalSpy init(&m, &VarkelManager::initInfoChanged);
  m.setProperty("udpPort", "70000");
  EXPECT_EQ(m.property("udpPort").toString(), "4464");  // low 16 bits
  try {
    m.setUdpPort("port");
    FAIL() << "no error for a non-number";
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "invalid stoi argument");
  }
  try {
    m.setUdpPort("99999999999");
    FAIL() << "no error for a too large number";
  } catch (const std::out_of_range& e) {
    EXPECT_STREQ(e.what(), "stoi argument out of range");
  }
  EXPECT_EQ(m.property("udpPort").toString(), "4464");

  m.setProperty("baud_rate", "fast");
  EXPECT_EQ(m.property("baud_rate").toString(), "0");
  m.setProperty("baud_rate", "3125000");
  EXPECT_EQ(m.property("baud_rate").toString(), "3125000");
  m.setProperty("ip_address", "10.0.0.7");
  m.setProperty("port", "abc");
  EXPECT_EQ(m.property("ip_address").toString(), "10.0.0.7");
  EXPECT_EQ(m.property("port").toString(), "abc");
  EXPECT_EQ(init.count(), 0);  // the connection fields' setters emit nothing

  QSignalSpy dl(&m, &VarkelManager::isDownloadLogChanged);
  m.setProperty("IsDownloadLog", false);
  EXPECT_EQ(dl.count(), 0);
  m.setProperty("IsDownloadLog", true);
  m.setProperty("IsDownloadLog", true);
  EXPECT_EQ(dl.count(), 1);
  EXPECT_TRUE(m.property("IsDownloadLog").toBool());
}

TEST_F(ManagerObject, MessagesSignalOnlyNonEmptyTexts) {
  TestManager m;
  QSignalSpy err(&m, &VarkelManager::errorMessageChanged);
  QSignalSpy ok(&m, &VarkelManager::successMessageChanged);
  m.setErrorMsg("boom");
  m.setSuccessMsg("fine");
  EXPECT_EQ(m.property("errorMessage").toString(), "boom");
  EXPECT_EQ(m.property("successMessage").toString(), "fine");
  m.setErrorMsg("");
  m.setSuccessMsg("");
  EXPECT_EQ(m.property("errorMessage").toString(), "");
  EXPECT_EQ(m.property("successMessage").toString(), "");
  EXPECT_EQ(err.count(), 1);
  EXPECT_EQ(ok.count(), 1);

  QSignalSpy map(&m, &VarkelManager::myMapChanged);
  m.UpdateUI();
  EXPECT_EQ(map.count(), 1);
}

TEST_F(ManagerObject, SettingsAreReadKeyByKey) {
  WriteSettings([](QSettings& s) {
    s.setValue("udp_port", 6699);
    s.setValue("ktc_port", "9400");
    s.setValue("point_cloud_baudrate", "junk");
  });
  TestManager m;
  EXPECT_EQ(m.property("udpPort").toString(), "6699");
  EXPECT_EQ(m.property("port").toString(), "9400");
  EXPECT_EQ(m.property("baud_rate").toString(), "0");               // wrong type: lenient 0
  EXPECT_EQ(m.property("ip_address").toString(), "192.168.1.201");  // absent: default
}

TEST_F(ManagerObject, ConnectWritesFiveKeysAndLeavesUdpPortAlone) {
  WriteSettings([](QSettings& s) { s.setValue("udp_port", 7000); });
  {
    TestManager m;
    m.setProperty("ip_address", "127.0.0.1");
    m.setProperty("port", "1");  // nothing listens there: the attempt fails quickly
    m.setProperty("serial_port_485", "/dev/null485");
    m.setProperty("serial_port_232", "/dev/null232");
    m.setProperty("baud_rate", "3125000");
    m.setProperty("udpPort", "1234");
    ASSERT_TRUE(m.ConnectLidar());
  }  // the destructor waits for the attempt
  QSettings s(VarkelManager::SettingsFilePath(), QSettings::IniFormat);
  EXPECT_EQ(s.value("device_ip_address").toString(), "127.0.0.1");
  EXPECT_EQ(s.value("ktc_port").toString(), "1");
  EXPECT_EQ(s.value("rs485_com").toString(), "/dev/null485");
  EXPECT_EQ(s.value("rs232_com").toString(), "/dev/null232");
  EXPECT_EQ(s.value("point_cloud_baudrate").toString(), "3125000");
  EXPECT_EQ(s.value("udp_port").toInt(), 7000);

  TestManager again;  // and a new controller reads them back
  EXPECT_EQ(again.property("ip_address").toString(), "127.0.0.1");
  EXPECT_EQ(again.property("serial_port_232").toString(), "/dev/null232");
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
  m.SetVMNowName("");
  m.SetVMNowName("Gamma");  // no such table
  EXPECT_EQ(list.count(), 0);
  EXPECT_EQ(m.getVMNowName(), "");
  // The host viewer reaches Marvo-KTC this way, although the combo never lists it.
  QSignalSpy type(&m, &VarkelManager::connectTypeChanged);
  m.SetVMNowName("Marvo-KTC");
  EXPECT_EQ(list.count(), 1);
  EXPECT_EQ(type.count(), 1);
  EXPECT_EQ(m.getVMNowName(), "Marvo-KTC");
  EXPECT_EQ(m.property("connectType").toInt(), 2);
  EXPECT_EQ(m.property("LidarModelList").toStringList(), QStringList{"Marvo-KTC"});
}

TEST_F(ManagerObject, ModelSelectionSetsTypeAndSignalsInOrder) {
  for (const char* model : {"Zelto", "Zelto-KTC"}) vktest::WriteTable(root_, model, vktest::TestaTable());
  TestManager m;
  std::vector<std::string> order;
  const char* names[] = {"zeltoLidarInfoChanged", "connectTypeChanged", "lidarClearModel", "lidarModelChanged",
                         "lidarShowModel"};
  QObject::connect(&m, &VarkelManager::zeltoLidarInfoChanged, [&] { order.push_back(names[0]); });
  QObject::connect(&m, &VarkelManager::connectTypeChanged, [&] { order.push_back(names[1]); });
  QObject::connect(&m, &VarkelManager::lidarClearModel, [&] { order.push_back(names[2]); });
  QObject::connect(&m, &VarkelManager::lidarModelChanged, [&] { order.push_back(names[3]); });
  QObject::connect(&m, &VarkelManager::lidarShowModel, [&] { order.push_back(names[4]); });

  m.InitConfigFileParser("Zelto");
  EXPECT_EQ(m.property("connectType").toInt(), 1);
  EXPECT_EQ(order, std::vector<std::string>(std::begin(names), std::end(names)));
  m.InitConfigFileParser("Zelto-KTC");
  EXPECT_EQ(m.property("connectType").toInt(), 2);
  m.InitConfigFileParser("Testa");
  EXPECT_EQ(m.property("connectType").toInt(), 0);
  EXPECT_EQ(m.property("level1List").toStringList(), (QStringList{"Device", "Status"}));
  // Model names are compared whole and with their case.
  vktest::WriteTable(root_, "zelto", vktest::TestaTable());
  m.InitConfigFileParser("zelto");
  EXPECT_EQ(m.property("connectType").toInt(), 0);
}

TEST_F(ManagerObject, ABrokenTableIsReportedAndLeavesNoTable) {
  TestManager m;
  m.InitConfigFileParser("Testa");
  ASSERT_EQ(m.property("level1List").toList().size(), 2);

  std::string broken = vktest::TestaTable();
  broken.replace(broken.find("1,2,0x01,,,PN,0,"), 16, "1,2,0x01,,,PN,x,");
  vktest::WriteTable(root_, "Broken", broken);
  vktest::SignalLog log(&m);
  QSignalSpy err(&m, &VarkelManager::errorMessageChanged);
  QSignalSpy shown(&m, &VarkelManager::lidarShowModel);
  m.InitConfigFileParser("Broken");
  log.Flush();
  EXPECT_EQ(err.count(), 1);
  EXPECT_EQ(shown.count(), 1);  // the pages still empty themselves
  const std::string text = m.property("errorMessage").toString().toStdString();
  EXPECT_NE(text.find("Broken.csv"), std::string::npos) << text;
  EXPECT_NE(text.find("row 4"), std::string::npos) << text;
  EXPECT_NE(text.find("invalid stoi argument"), std::string::npos) << text;
  EXPECT_TRUE(log.HasLog("ERROR", text)) << text;
  EXPECT_TRUE(m.property("level1List").toList().isEmpty());
  EXPECT_TRUE(m.property("myMap").toList().isEmpty());
  EXPECT_FALSE(m.CheckVarExistsInConfigFileByName("SN"));

  m.InitConfigFileParser("Missing");  // no file at all
  EXPECT_EQ(err.count(), 2);
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

  const QVariantList my_map = m.property("myMap").toList();
  const QVariantMap mode = my_map[0].toList()[1].toList()[3].toMap();
  const QStringList keys{"var_id",     "get_cmd",       "set_cmd",       "var_type",
                         "var_name",   "get_start_pos", "set_start_pos", "offset",
                         "permission", "default_val",   "current_val",   "switch_index",
                         "visible",    "option_num",    "type",          "varname_value_to_option",
                         "options"};
  for (const QString& key : keys) EXPECT_TRUE(mode.contains(key)) << key.toStdString();
  EXPECT_EQ(mode.size(), keys.size());
  EXPECT_EQ(mode["var_id"].toString(), "5-1");
  EXPECT_EQ(mode["current_val"].toString(), "0");
  EXPECT_EQ(mode["option_num"].toInt(), 3);
  EXPECT_EQ(mode["options"].toList(), (QVariantList{0, 1, 2}));
  EXPECT_EQ(mode["varname_value_to_option"].toStringList(), (QStringList{"Off", "Low", "High"}));
  EXPECT_EQ(mode["type"].toInt(), 3);
  const QVariantMap port = my_map[0].toList()[1].toList()[2].toMap();
  EXPECT_EQ(port["get_start_pos"].toInt(), 10);  // behind IP (4) and MAC (6)
  EXPECT_EQ(port["set_start_pos"].toInt(), 4);
  EXPECT_EQ(port["offset"].toInt(), 2);
  EXPECT_EQ(port["permission"].toInt(), 1);
  EXPECT_EQ(port["default_val"].toString(), "9347");

  // A switched row carries its switch's value; a type-2 row without one is a table fault.
  const QVariantMap threshold = my_map[0].toList()[1].toList()[6].toMap();
  EXPECT_EQ(threshold["switch_index"].toString(), "0");
  EXPECT_TRUE(log.HasLog("ERROR", "config file error, Please check the configuration of type 2 of Orphan"));
  EXPECT_FALSE(log.HasLog("ERROR", "config file error, Please check the configuration of type 2 of Threshold"));
  EXPECT_EQ(m.property("logRepeaterModel").toStringList(), QStringList{"Fault Log"});

  EXPECT_TRUE(m.isTimerUpdate(1, 0, 0));
  EXPECT_FALSE(m.isTimerUpdate(1, 0, 2));
  EXPECT_FALSE(m.isTimerUpdate(1, 1, 0));
  EXPECT_FALSE(m.isTimerUpdate(-1, 0, 0));
}

TEST_F(ManagerObject, LookupsByNameAndCaseForms) {
  std::string table = vktest::TestaTable();
  table.replace(table.find("Operation Log"), 13, "operation log");
  vktest::WriteTable(root_, "Lower", table);
  TestManager m;
  testing::internal::CaptureStdout();
  EXPECT_EQ(m.searchVarPtr("SN", "var_name"), nullptr);  // nothing loaded
  m.InitConfigFileParser("Lower");
  EXPECT_FALSE(m.CheckVarExistsInConfigFileByName(""));
  EXPECT_TRUE(m.CheckVarExistsInConfigFileByName("Restart"));
  EXPECT_TRUE(m.CheckVarExistsInConfigFileByName("restart"));
  EXPECT_TRUE(m.CheckVarExistsInConfigFileByName("Operation Log"));  // table spells it in lower case
  EXPECT_TRUE(m.CheckVarExistsInConfigFileByName("operation log"));
  EXPECT_TRUE(m.CheckVarExistsInConfigFileByName("run time"));  // table: "Run Time"
  EXPECT_FALSE(m.CheckVarExistsInConfigFileByName("RUN TIME"));
  EXPECT_FALSE(m.CheckVarExistsInConfigFileByName("Reset"));

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
