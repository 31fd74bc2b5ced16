#pragma once
// Model table text for tests. A row is written as "id=1-2;Get=0x20;VarName=IP": cells by
// column name, separated by ";", "id" standing for GroupID and Index.

#include <string>
#include <vector>

namespace table_text {

inline const std::vector<std::string>& Columns() {
  static const std::vector<std::string> columns = {
      "GroupID",           "Index",          "Get",          "Set",         "SetIndex",       "VarName",
      "Permission",        "VarType",        "DefaultValue", "Options",     "Unit",           "Coefficient",
      "OptionDescription", "FunctionModule", "VarLen",       "TimerUpdate", "SetCoefficient", "GetCmdPayload"};
  return columns;
}

inline std::string Quote(const std::string& cell) {
  if (cell.find_first_of(",\"\n\r") == std::string::npos) return cell;
  std::string out = "\"";
  for (char c : cell) out += c == '"' ? std::string("\"\"") : std::string(1, c);
  return out + "\"";
}

inline std::string Header(const std::vector<std::string>& columns = Columns()) {
  std::string line;
  for (size_t i = 0; i < columns.size(); ++i) line += (i ? "," : "") + columns[i];
  return line + "\n";
}

inline std::string Row(const std::string& row_text, const std::vector<std::string>& columns = Columns()) {
  std::vector<std::string> cells(columns.size());
  auto put = [&](const std::string& key, const std::string& value) {
    for (size_t i = 0; i < columns.size(); ++i)
      if (columns[i] == key) cells[i] = value;
  };
  size_t start = 0;
  while (start < row_text.size()) {
    size_t end = row_text.find(';', start);
    if (end == std::string::npos) end = row_text.size();
    const std::string item = row_text.substr(start, end - start);
    const size_t eq = item.find('=');
    const std::string key = item.substr(0, eq), value = item.substr(eq + 1);
    if (key == "id") {
      put("GroupID", value.substr(0, value.find('-')));
      put("Index", value.substr(value.find('-') + 1));
    } else {
      put(key, value);
    }
    start = end + 1;
  }
  std::string line;
  for (size_t i = 0; i < cells.size(); ++i) line += (i ? "," : "") + Quote(cells[i]);
  return line + "\n";
}

// A module-definition row: "0", then the page title and its group titles.
inline std::string Module(const std::string& titles) {
  return "0," + titles + "\n";
}

}  // namespace table_text
