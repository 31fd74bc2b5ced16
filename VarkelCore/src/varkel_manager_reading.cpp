// Reading variables: a page on request, single variables, and the 100 ms refresh of the
// timer-marked variables of the shown page.

#include <QDateTime>
#include <QDebug>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <set>
#include <stdexcept>

#include "config_parser.h"
#include "ktc_client.h"
#include "ktc_command_text.h"
#include "ktc_fov.h"
#include "logger.h"
#include "manager_catalogue.h"
#include "monitor_model.h"
#include "monitor_plan.h"
#include "value_text.h"
#include "variable_io.h"
#include "varkel_manager.h"
#include "varkel_manager_host.h"

using quarn::lidar::KtcCommandText;

namespace {

constexpr auto kRefreshPeriod = std::chrono::milliseconds(100);
constexpr int kFovEditorKind = 5;

}  // namespace

int VarkelManager::GetInfoFromLidarWithSameCmd(const std::vector<VarInfo*>& vars, bool fov_read, bool timer_round) {
  if (vars.empty())
    throw std::invalid_argument(
        "VarkelManager::GetInfoFromLidarWithSameCmd(): ERROR with the input v_p_vars -- size == 0");
  const std::string& cmd = vars.front()->get_cmd;
  for (const VarInfo* var : vars)
    if (var->get_cmd != cmd)
      throw std::invalid_argument(
          "VarkelManager::GetInfoFromLidarWithSameCmd(): ERROR with the input v_p_vars -- They must use the same get "
          "cmd.");
  KtcCommandText command;
  if (fov_read && quarn::lidar::ParseKtcCommandText(cmd, command) && !command.extended &&
      command.cmd == quarn::lidar::kKtcFovReadCmd)
    return ReadFov(vars);
  return QueryAndCut("GetInfoFromLidarWithSameCmd", vars, timer_round);
}

int VarkelManager::ReadFov(const std::vector<VarInfo*>& vars) {
  VarInfo* first = vars.front();
  quarn::lidar::MultiFovConfig fov;
  auto client = KtcClientHandle();
  const int ret = client ? quarn::lidar::GetMultiFovConfig(*client, fov) : -1;
  if (ret != 0) {
    qDebug().noquote() << "VarkelManager::GetInfoFromLidarWithSameCmd(): try get"
                       << QString::fromStdString(first->var_name)
                       << "FAILED, cmd sent = 0x23 -- QueryCommand()'s ret =" << ret;
    return -1;
  }
  {
    std::lock_guard<std::mutex> lock(fields_mutex_);
    const int64_t now = QDateTime::currentMSecsSinceEpoch();
    for (size_t i = 0; i < fov_.size(); ++i) {
      // An angle the user typed waits for its write: a read must not undo it, while its
      // neighbours show what the sensor holds.
      if (fov_edited_[i]) continue;
      fov_[i] = i < quarn::lidar::kFovRanges ? fov.start[i] : fov.end[i - quarn::lidar::kFovRanges];
      fov_read_ms_[i] = now;
    }
  }
  StoreReadValue(first, std::to_string(fov.channel));
  emit fovConfigChanged();
  return 1;
}

bool VarkelManager::GetInfoFromLidar(VarInfo* var) {
  if (!var) return false;
  return QueryAndCut("GetInfoFromLidar", {var}, false) > 0;
}

int VarkelManager::QueryAndCut(const char* operation, const std::vector<VarInfo*>& vars, bool timer_round,
                               std::map<std::string, std::vector<uint8_t>>* fresh) {
  const VarInfo* first = vars.front();
  KtcCommandText command;
  const std::vector<uint8_t> payload = varkel::GetRequest(*first, command);

  std::vector<uint8_t> reply;
  auto client = KtcClientHandle();
  const int ret = client ? client->QueryCommand(payload, reply, command.cmd) : -1;
  const QString name = QString::fromStdString(first->var_name);
  const QString cmd_text = QString::fromStdString(first->get_cmd);
  if (ret != 0) {
    qDebug().noquote() << QString("VarkelManager::%1(): try get").arg(operation) << name
                       << "FAILED, cmd sent =" << cmd_text << "-- QueryCommand()'s ret =" << ret;
    return -1;
  }
  if (reply.empty()) {
    qDebug().noquote() << QString("VarkelManager::%1(): try get").arg(operation) << name
                       << ", but get no return msg from lidar. cmd sent = " << cmd_text;
    return -1;
  }
  int refreshed = 0;
  std::vector<uint8_t> slice;
  for (VarInfo* var : vars)
    if (updateSingleVarFromOutput(var, first->get_cmd, reply, slice, timer_round, fresh)) ++refreshed;
  return refreshed;
}

bool VarkelManager::updateSingleVarFromOutput(VarInfo* var, const std::string& cmd, const std::vector<uint8_t>& output,
                                              std::vector<uint8_t>& slice, bool timer_round,
                                              std::map<std::string, std::vector<uint8_t>>* fresh) {
  auto catalogue = Catalogue();
  if (!catalogue || !catalogue->parser) return false;
  if (output.empty())
    throw std::invalid_argument("VarkelManager::updateSingleVarFromOutput(): Error with the input 'output'");
  if (!var || var->var_type.empty())
    throw std::invalid_argument("VarkelManager::updateSingleVarFromOutput(): Error with the input var_info");

  ConfigParser& parser = *catalogue->parser;
  // The model changed while the reply was on its way: the record is not this table's.
  if (parser.FindById(var->var_id) != var) return false;

  // In a refresh round a fault is reported once per variable, not ten times a second.
  auto report = [&] { return !timer_round || catalogue->FirstTimerFault(var->var_id); };

  TableHost host(*this);
  std::string fault;
  switch (varkel::CutValue(host, parser, *var, cmd, output, slice, &fault, fresh)) {
    case varkel::CutResult::kStored:
      return true;
    case varkel::CutResult::kNoPosition:
      if (report()) emit sendLogMessage("get <start_pos, offset> failed!", "ERROR");
      return false;
    case varkel::CutResult::kOutsideReply:
      if (report()) emit sendLogMessage("get var pos offset failed!", "ERROR");
      return false;
    case varkel::CutResult::kBadValue:
      if (report()) LOG_ERROR("%s", fault.c_str());
      return false;
  }
  return false;
}

void VarkelManager::GetLidarModuleInfo(int module) {
  if (connect_type_.load() != 0 || !is_connected_.load() || is_upgrading_.load() || is_download_log_.load()) return;
  auto client = KtcClientHandle();
  if (!client || !client->IsOpen()) return;
  auto catalogue = Catalogue();
  if (!catalogue || !catalogue->parser) return;
  const auto& modules = catalogue->parser->module_vars;
  if (module < 0 || module >= static_cast<int>(modules.size())) return;

  std::vector<VarInfo*> page;
  for (const auto& group : modules[module]) page.insert(page.end(), group.begin(), group.end());
  for (const varkel::ReadGroup& group : varkel::GroupForReading(page)) {
    // The page that shows the field-of-view editor reads its angles too; the boxes the user
    // edited keep their numbers (ReadFov).
    const bool shows_fov = std::any_of(group.vars.begin(), group.vars.end(),
                                       [](const VarInfo* var) { return var->component_type == kFovEditorKind; });
    try {
      GetInfoFromLidarWithSameCmd(group.vars, shows_fov);
    } catch (const std::exception& e) {
      Trace("GetLidarModuleInfo", "ERROR " + std::string(e.what()) + ". get_cmd and payload = " + group.key + "\n");
    }
  }
  emit myMapChanged();
}

bool VarkelManager::UpdateSingleVarInfo(QString qs_var_info, QString search_type) {
  auto catalogue = Catalogue();  // keeps the record alive for the read
  VarInfo* var = searchVarPtr(qs_var_info.toStdString(), search_type.toStdString());
  if (!var || var->get_cmd.empty() || !catalogue || !catalogue->parser ||
      catalogue->parser->FindById(var->var_id) != var)
    return false;
  try {
    return GetInfoFromLidar(var);
  } catch (const std::exception& e) {
    Trace("UpdateSingleVarInfo", "ERROR " + std::string(e.what()) + "\n");
    return false;
  }
}

void VarkelManager::updatePagesTimer() {
  while (page_timer_flag_.load()) {
    auto catalogue = Catalogue();
    const int module = module_index_use_.load();
    const bool have_table = catalogue && catalogue->parser;
    // The shown page's timer-marked variables every round; when a monitor sample is due,
    // every monitored variable of the model too, in the same queries where they share one.
    std::vector<VarInfo*> timed;
    if (have_table && module >= 0 && module < static_cast<int>(catalogue->parser->module_vars.size())) {
      for (const auto& group : catalogue->parser->module_vars[module])
        for (VarInfo* var : group)
          if (var->timer_update) timed.push_back(var);
    }
    const bool page_timed = !timed.empty();
    const int64_t now_ms = QDateTime::currentMSecsSinceEpoch();
    varkel::MonitorPlan plan;
    if (have_table && monitor_->TakeDue(now_ms)) plan = varkel::PlanMonitor(*catalogue->parser);
    for (const varkel::MonitorChannel& c : plan.channels)
      if (std::find(timed.begin(), timed.end(), c.var) == timed.end()) timed.push_back(c.var);

    bool read_any = false;
    std::set<const VarInfo*> failed;
    for (const varkel::ReadGroup& group : varkel::GroupForReading(timed)) {
      // A disconnect need not wait for the rest of a slow round.
      if (!page_timer_flag_.load()) break;
      read_any = true;
      int ret = -1;
      try {
        ret = GetInfoFromLidarWithSameCmd(group.vars, false, true);
      } catch (const std::exception& e) {
        Trace("updatePagesTimer", "ERROR " + std::string(e.what()) + ". get_cmd and payload = " + group.key + "\n");
      }
      if (ret < 0) failed.insert(group.vars.begin(), group.vars.end());
    }
    // A round that read only monitored values has nothing new for the shown page; the
    // announcement would make every page's bindings evaluate again for nothing.
    if (read_any && page_timed) emit myTimerMapChanged();
    if (!plan.channels.empty() && page_timer_flag_.load()) SampleMonitor(catalogue->model, plan, now_ms, failed);

    std::unique_lock<std::mutex> lock(page_timer_wait_mutex_);
    page_timer_wait_.wait_for(lock, kRefreshPeriod, [this] { return !page_timer_flag_.load(); });
  }
  // The lines break where the connection ended.
  monitor_->AddGap(QDateTime::currentMSecsSinceEpoch());
}

void VarkelManager::SampleMonitor(const std::string& model, const varkel::MonitorPlan& plan, int64_t t_ms,
                                  const std::set<const VarInfo*>& failed) {
  std::vector<MonitorModel::Channel> channels;
  std::vector<double> values;
  {
    std::lock_guard<std::mutex> lock(values_mutex_);
    for (const varkel::MonitorChannel& c : plan.channels) {
      channels.push_back(MonitorModel::Channel{c.var->var_id, c.name, c.unit});
      values.push_back(failed.count(c.var) ? NAN : varkel::ValueNumber(c.var->current_val));
    }
  }
  monitor_->AddSample(model, channels, t_ms, values);
}

// ---- what was read in this connection -------------------------------------------------

void VarkelManager::ForgetReads() {
  {
    std::lock_guard<std::mutex> values(values_mutex_);
    read_ms_.clear();
    from_sensor_.clear();
    values_version_.fetch_add(1);
  }
  {
    std::lock_guard<std::mutex> fields(fields_mutex_);
    fov_read_ms_.fill(0);
  }
  emit fovConfigChanged();
}

QString VarkelManager::ReadNote(int64_t read_ms) const {
  if (read_ms == 0) return QStringLiteral("not read from the sensor");
  if (is_connected_.load()) return QString();
  const QDateTime at = QDateTime::fromMSecsSinceEpoch(read_ms);
  // A session seldom spans midnight; when it does, the day tells the two reads apart.
  const QString when = at.date() == QDate::currentDate() ? at.toString(QStringLiteral("HH:mm:ss"))
                                                         : at.toString(QStringLiteral("yyyy-MM-dd HH:mm:ss"));
  return QStringLiteral("last read from the sensor at ") + when;
}

QVariantList VarkelManager::getFovReadNotes() const {
  std::array<bool, 10> edited{};
  std::array<int64_t, 10> read{};
  {
    std::lock_guard<std::mutex> lock(fields_mutex_);
    edited = fov_edited_;
    read = fov_read_ms_;
  }
  QVariantList notes;
  for (size_t i = 0; i < read.size(); ++i) notes.append(edited[i] ? QString() : ReadNote(read[i]));
  return notes;
}
