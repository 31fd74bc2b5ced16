#include "manager_catalogue.h"

#include <cctype>

#include "config_parser.h"

namespace varkel {
namespace {

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

bool EndsWithLogWord(const std::string& name) {
  std::string lower = Lower(name);
  return lower == "log" || (lower.size() > 4 && lower.compare(lower.size() - 4, 4, " log") == 0);
}

}  // namespace

std::vector<std::string> DownloadableLogNames(const ConfigParser& parser) {
  std::vector<std::string> names;
  for (const VarInfo* var : parser.standalone_vars) {
    if (!EndsWithLogWord(var->var_name) || Lower(var->var_name) == "operation log") continue;
    bool seen = false;
    for (const std::string& n : names) seen = seen || n == var->var_name;
    if (!seen) names.push_back(var->var_name);
  }
  return names;
}

std::pair<std::string, std::string> NameCaseForms(const std::string& name) {
  std::string title = name;
  bool word_start = true;
  for (char& c : title) {
    unsigned char u = static_cast<unsigned char>(c);
    if (std::isspace(u)) {
      word_start = true;
    } else {
      if (word_start) c = static_cast<char>(std::toupper(u));
      word_start = false;
    }
  }
  return {title, Lower(name)};
}

}  // namespace varkel
