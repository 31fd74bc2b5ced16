#include "data_root.h"

#include <filesystem>
#include <system_error>

namespace quarn {
namespace fs = std::filesystem;

namespace {

std::string Clean(const fs::path& p) {
  std::string s = p.lexically_normal().string();
  // "/usr/bin/.." normalises to "/usr/": the folder is the same without the slash.
  while (s.size() > 1 && s.back() == '/') s.pop_back();
  return s;
}

}  // namespace

std::vector<std::string> DataRootCandidates(const std::string& bin_dir) {
  std::error_code ec;
  fs::path dir = fs::absolute(bin_dir.empty() ? fs::path(".") : fs::path(bin_dir), ec);
  if (ec) dir = bin_dir;
  const std::string parent = Clean(dir / "..");
  return {parent, Clean(dir), Clean(fs::path(parent) / "share" / "varkel")};
}

std::string FindDataRoot(const std::string& bin_dir, const std::string& marker) {
  std::error_code ec;
  for (const std::string& root : DataRootCandidates(bin_dir)) {
    if (fs::exists(fs::path(root) / marker, ec)) return root;
  }
  return {};
}

std::string DefaultModelTableDir(const std::string& executable_path) {
  const std::string kTables = "Config/varID";
  if (!executable_path.empty()) {
    const std::string root = FindDataRoot(fs::path(executable_path).parent_path().string(), kTables);
    std::error_code ec;
    if (!root.empty() && fs::is_directory(fs::path(root) / kTables, ec)) return root + "/" + kTables;
  }
  return "./" + kTables;
}

std::string ExecutablePath() {
  std::error_code ec;
  const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
  return ec ? std::string() : exe.string();
}

}  // namespace quarn
