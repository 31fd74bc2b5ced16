#include "support_bundle.h"

#include <stdlib.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "journal.h"
#include "logger.h"
#include "run_program.h"

namespace varkel {

namespace fs = std::filesystem;

namespace {

constexpr int kTarTimeoutMs = 60000;

std::string ReadAll(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void CopyFiles(const fs::path& from, const fs::path& to, const std::string& prefix) {
  std::error_code ec;
  if (from.empty() || !fs::is_directory(from, ec)) return;
  for (const auto& entry : fs::directory_iterator(from, ec)) {
    const std::string name = entry.path().filename().string();
    if (!entry.is_regular_file(ec) || name.rfind(prefix, 0) != 0) continue;
    fs::create_directories(to, ec);
    fs::copy_file(entry.path(), to / name, fs::copy_options::overwrite_existing, ec);
  }
}

}  // namespace

std::string MaskSettings(const std::string& text) {
  std::istringstream in(text);
  std::string out, line;
  while (std::getline(in, line)) {
    const size_t eq = line.find('=');
    std::string key = line.substr(0, eq == std::string::npos ? 0 : eq);
    std::transform(key.begin(), key.end(), key.begin(), [](unsigned char c) { return std::tolower(c); });
    const bool named_file = key.size() >= 5 && key.compare(key.size() - 5, 5, "_file") == 0;
    const bool secret = key.find("password") != std::string::npos || key.find("secret") != std::string::npos ||
                        key.find("psk") != std::string::npos || (key.find("key") != std::string::npos && !named_file);
    out += secret ? line.substr(0, eq + 1) + quarn::journal::kMasked : line;
    out += '\n';
  }
  return out;
}

BundleStage::BundleStage() {
  std::string pattern = (fs::temp_directory_path() / "varkel-bundle-XXXXXX").string();
  if (!::mkdtemp(pattern.data())) throw std::runtime_error("cannot make a folder for the bundle's parts");
  dir_ = pattern;
}

BundleStage::~BundleStage() {
  std::error_code ec;
  fs::remove_all(dir_, ec);
}

void BundleStage::Add(const std::string& name, const std::string& text) {
  const fs::path path = fs::path(dir_) / name;
  std::error_code ec;
  fs::create_directories(path.parent_path(), ec);
  std::ofstream out(path, std::ios::binary);
  out << text;
  if (!out.flush()) throw std::runtime_error("cannot write " + path.string());
}

void BundleStage::AddProgramParts(const std::string& program, const std::string& settings_file) {
  utsname platform{};
  ::uname(&platform);
  Add("version.txt", program + " " + quarn::journal::ProgramVersion() + "\nplatform " + platform.sysname + " " +
                         platform.release + " " + platform.machine + "\n");
  Logger::GetInstance().Flush();
  CopyFiles(Logger::GetInstance().LogDirectory(), fs::path(dir_) / "logs", "");
  CopyFiles(quarn::journal::DefaultDirectory(), fs::path(dir_) / "journal", "journal");
  std::error_code ec;
  fs::remove(fs::path(dir_) / "journal" / "journal.lock", ec);
  if (!settings_file.empty() && fs::is_regular_file(settings_file, ec))
    Add("settings.ini", MaskSettings(ReadAll(settings_file)));
}

void BundleStage::Pack(const std::string& archive) const {
  const fs::path target = fs::absolute(archive);
  // A name of our own beside the target: the rename that publishes it cannot cross a disk.
  const fs::path partial = target.string() + ".partial-" + std::to_string(::getpid());
  std::vector<std::string> args{"tar", "-czf", partial.string()};
  std::error_code ec;
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(dir_, ec)) names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  args.insert(args.end(), names.begin(), names.end());
  std::string output;
  const int status = RunProgram(args, dir_, kTarTimeoutMs, &output);
  if (status != 0) {
    fs::remove(partial, ec);
    const std::string said = output.substr(0, output.find('\n'));
    throw std::runtime_error("tar failed (" +
                             (status < 0 ? std::string("did not run or overran") : "status " + std::to_string(status)) +
                             (said.empty() ? "" : ": " + said) + ")");
  }
  fs::rename(partial, target, ec);
  if (ec) {
    const std::string why = ec.message();
    fs::remove(partial, ec);
    throw std::runtime_error("cannot write " + target.string() + ": " + why);
  }
}

}  // namespace varkel
