// Model selection and what the pages read of the loaded table: the page lists, the
// variable maps, look-ups by name and the serial and part numbers.

#include <QDir>
#include <QFileInfo>

#include "config_parser.h"
#include "manager_catalogue.h"
#include "manager_text.h"
#include "varkel_manager.h"

namespace {

using manager_text::Q;

const char kModelFolder[] = "./Config/varID";

int ConnectTypeOf(const QString& model) {
  if (model == "Zelto") return 1;
  if (model == "Zelto-KTC" || model == "Marvo-KTC") return 2;
  return 0;
}

}  // namespace

std::shared_ptr<const varkel::ManagerCatalogue> VarkelManager::Catalogue() const {
  std::lock_guard<std::mutex> lock(catalogue_mutex_);
  return catalogue_;
}

void VarkelManager::SetCatalogue(std::shared_ptr<const varkel::ManagerCatalogue> catalogue) {
  std::shared_ptr<const varkel::ManagerCatalogue> old;
  {
    // Under the values lock too, so the cached page maps never mix two tables.
    std::lock_guard<std::mutex> values(values_mutex_);
    std::lock_guard<std::mutex> lock(catalogue_mutex_);
    old = std::move(catalogue_);
    catalogue_ = std::move(catalogue);
    values_version_.fetch_add(1);
  }
}

void VarkelManager::InitConfigFileParser(QString model_name) {
  connect_type_.store(ConnectTypeOf(model_name));
  const std::string model = model_name.toStdString();
  const std::string path = std::string(kModelFolder) + "/" + model + ".csv";

  auto catalogue = std::make_shared<varkel::ManagerCatalogue>();
  catalogue->model = model;
  std::string load_error;
  try {
    auto parser = std::make_shared<ConfigParser>();
    parser->Load(path);
    catalogue->log_names = varkel::DownloadableLogNames(*parser);
    catalogue->parser = std::move(parser);
  } catch (const std::exception& e) {
    load_error = e.what();
  }
  SetCatalogue(catalogue);
  // Pending edits name variables of the old table.
  ClearPendingWrites();
  ForgetReads();

  if (!load_error.empty()) {
    // The table is the user's to fix: say which file, row and cell went wrong.
    Trace("InitConfigFileParser", "load failed: " + load_error + "\n");
    std::string text = "Variable table not loaded: " + load_error;
    setErrorMsg(Q(text));
    emit sendLogMessage(Q(text), "ERROR");
  } else {
    for (const auto& module : catalogue->parser->module_vars)
      for (const auto& group : module)
        for (const VarInfo* var : group)
          if (var->component_type == 2 && var->switch_var == nullptr)
            emit sendLogMessage("config file error, Please check the configuration of type 2 of " + Q(var->var_name),
                                "ERROR");
  }

  emit zeltoLidarInfoChanged();
  emit connectTypeChanged();
  emit lidarClearModel();
  emit lidarModelChanged();
  emit lidarShowModel();
}

QVariantList VarkelManager::getLidarModelList() const {
  QVariantList list;
  {
    std::lock_guard<std::mutex> lock(fields_mutex_);
    if (!vm_now_name_.empty()) return QVariantList{Q(vm_now_name_)};
  }
  for (const std::string& name : ConfigParser::ListModels(kModelFolder)) list.append(Q(name));
  return list;
}

void VarkelManager::SetVMNowName(QString name) {
  if (name.isEmpty()) return;
  // Every table in the folder counts here, "Marvo-KTC" included: that model is left out
  // of the combo precisely because it is reached only this way.
  bool known = false;
  for (const QFileInfo& info : QDir(kModelFolder).entryInfoList(QDir::Files)) known = known || info.baseName() == name;
  if (!known) return;
  InitConfigFileParser(name);
  {
    std::lock_guard<std::mutex> lock(fields_mutex_);
    vm_now_name_ = name.toStdString();
  }
  emit lidarModelListChanged();
}

// ---- value texts --------------------------------------------------------------------

void VarkelManager::StoreValue(VarInfo* var, const std::string& text) {
  std::lock_guard<std::mutex> lock(values_mutex_);
  var->current_val = text;
  values_version_.fetch_add(1);
}

std::string VarkelManager::ValueOf(const VarInfo* var) const {
  std::lock_guard<std::mutex> lock(values_mutex_);
  return var->current_val;
}

void VarkelManager::SetSnValuesUnknown() {
  auto catalogue = Catalogue();
  if (!catalogue || !catalogue->parser) return;
  std::lock_guard<std::mutex> lock(values_mutex_);
  // A stale serial number must never be shown for the next lidar.
  for (VarInfo* var : catalogue->parser->records())
    if (var->var_name == "SN") {
      var->current_val = "xxxxxxxx";
      read_ms_.erase(var->var_id);
      from_sensor_.erase(var->var_id);
    }
  values_version_.fetch_add(1);
}

// The user's edits name variables of the loaded table: they go with it, and with the
// connection that would have written them.
void VarkelManager::ClearPendingWrites() {
  std::lock_guard<std::mutex> lock(fields_mutex_);
  set_map_.clear();
  edited_values_.clear();
  fov_edited_.fill(false);
}

// ---- what the pages read ----------------------------------------------------------------

QVariantList VarkelManager::getMyMap() {
  std::lock_guard<std::mutex> lock(values_mutex_);
  const uint64_t version = values_version_.load();
  const bool connected = is_connected_.load();
  if (version == my_map_cache_version_ && connected == my_map_cache_connected_) return my_map_cache_;

  QVariantList modules;
  auto catalogue = Catalogue();
  if (catalogue && catalogue->parser) {
    for (const auto& module : catalogue->parser->module_vars) {
      QVariantList groups;
      for (const auto& group : module) {
        QVariantList vars;
        for (const VarInfo* var : group) {
          QVariantMap m;
          m["var_id"] = Q(var->var_id);
          m["get_cmd"] = Q(var->get_cmd);
          m["set_cmd"] = Q(var->set_cmd);
          m["var_type"] = Q(var->var_type);
          m["var_name"] = Q(var->var_name);
          m["get_start_pos"] = var->get_start_pos;
          m["set_start_pos"] = var->set_start_pos;
          m["offset"] = var->var_len;
          m["permission"] = var->permission;
          m["default_val"] = Q(var->default_val);
          m["current_val"] = Q(var->current_val);
          const auto read = read_ms_.find(var->var_id);
          m["read_note"] = ReadNote(read == read_ms_.end() ? 0 : read->second);
          QString switch_index;
          if (var->component_type == 2) switch_index = var->switch_var ? Q(var->switch_var->current_val) : "0";
          m["switch_index"] = switch_index;
          m["visible"] = true;
          m["option_num"] = var->option_num;
          m["type"] = var->component_type;
          QVariantList options, option_texts;
          for (int32_t option : var->options) {
            options.append(option);
            auto label = var->option_labels.find(option);
            option_texts.append(label != var->option_labels.end() ? Q(label->second) : QString::number(option));
          }
          m["varname_value_to_option"] = option_texts;
          m["options"] = options;
          vars.append(m);
        }
        groups.append(QVariant(vars));
      }
      modules.append(QVariant(groups));
    }
  }
  my_map_cache_ = modules;
  my_map_cache_version_ = version;
  my_map_cache_connected_ = connected;
  return modules;
}

QVariantList VarkelManager::getLevel1List() const {
  QVariantList list;
  auto catalogue = Catalogue();
  if (!catalogue || !catalogue->parser) return list;
  for (const auto& titles : catalogue->parser->module_titles) list.append(titles.empty() ? QString() : Q(titles[0]));
  return list;
}

QVariantList VarkelManager::getLevel2List() const {
  QVariantList list;
  auto catalogue = Catalogue();
  if (!catalogue || !catalogue->parser) return list;
  const auto& modules = catalogue->parser->module_vars;
  for (int m = 0; m < static_cast<int>(modules.size()); ++m) {
    QVariantList rows;
    for (int g = 0; g < static_cast<int>(modules[m].size()); ++g)
      for (int i = 0; i < static_cast<int>(modules[m][g].size()); ++i) {
        const VarInfo* var = modules[m][g][i];
        rows.append(QVariant(QVariantList{Q(var->var_name + var->unit), var->component_type, m, g, i}));
      }
    list.append(QVariant(rows));
  }
  return list;
}

QVariantList VarkelManager::getLogRepeaterModel() const {
  QVariantList list;
  auto catalogue = Catalogue();
  if (catalogue)
    for (const std::string& name : catalogue->log_names) list.append(Q(name));
  return list;
}

// ---- look-ups -------------------------------------------------------------------------

VarInfo* VarkelManager::searchVarPtr(const std::string& key, const std::string& search_type) {
  auto catalogue = Catalogue();
  if (!catalogue || !catalogue->parser) return nullptr;
  if (search_type == "var_id" || search_type == "id") return catalogue->parser->FindById(key);
  if (search_type == "var_name" || search_type == "name") return catalogue->parser->FindByName(key);
  Trace("searchVarPtr", "unknown search type\n");
  return nullptr;
}

bool VarkelManager::CheckVarExistsInConfigFileByName(QString qs_var_info) {
  if (qs_var_info.isEmpty()) return false;
  auto forms = varkel::NameCaseForms(qs_var_info.toStdString());
  return searchVarPtr(forms.first, "var_name") != nullptr || searchVarPtr(forms.second, "var_name") != nullptr;
}

namespace {

QString FirstValueNamed(const varkel::ManagerCatalogue* catalogue, const char* name, std::mutex& values_mutex) {
  if (!catalogue || !catalogue->parser) return QString();
  std::lock_guard<std::mutex> lock(values_mutex);
  for (const auto& module : catalogue->parser->module_vars)
    for (const auto& group : module)
      for (const VarInfo* var : group)
        if (var->var_name == name) return Q(var->current_val);
  return QString();
}

}  // namespace

QString VarkelManager::getLidarSN() {
  return FirstValueNamed(Catalogue().get(), "SN", values_mutex_);
}

QString VarkelManager::getLidarPN() {
  return FirstValueNamed(Catalogue().get(), "PN", values_mutex_);
}

bool VarkelManager::isTimerUpdate(int i, int j, int k) {
  auto catalogue = Catalogue();
  if (!catalogue || !catalogue->parser || i < 0 || j < 0 || k < 0) return false;
  const auto& modules = catalogue->parser->module_vars;
  if (i >= static_cast<int>(modules.size()) || j >= static_cast<int>(modules[i].size()) ||
      k >= static_cast<int>(modules[i][j].size()))
    return false;
  return modules[i][j][k]->timer_update;
}
