#pragma once
// The fixture of varkel-cli's tests: the virtual lidar of the default model in-process on
// an ephemeral port, a private home folder, and the program's entry run with arguments.

#include <gtest/gtest.h>

#include <stdlib.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "commands.h"
#include "listening.h"
#include "sim_start.h"
#include "virtual_lidar.h"
#include "wait_until.h"

namespace varkel::cli::testing {

namespace fs = std::filesystem;

inline const std::string kTables = std::string(VARKEL_SOURCE_DIR) + "/Config/varID";

struct Result {
  int status;
  std::string out;
  std::string err;
};

class CliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/varkel-cli-test-XXXXXX";
    ASSERT_NE(::mkdtemp(dir), nullptr);
    home_ = dir;
    ::setenv("HOME", home_.c_str(), 1);
    ::unsetenv("XDG_CONFIG_HOME");
    // The change journal of every run goes to the private home, never the user's.
    ::setenv("XDG_DATA_HOME", (home_ + "/data").c_str(), 1);
    sim_ = Started(Options());
    ASSERT_NE(sim_, nullptr);
  }
  void TearDown() override {
    if (sim_) sim_->Stop();
    fs::remove_all(home_);
  }

  // A sensor of `model` from the shipped tables on an ephemeral loopback port, its values still.
  static varkel::sim::SimOptions Options(const std::string& model = "Quenta") {
    return vktest::SimOptions(model, kTables);
  }
  static std::unique_ptr<varkel::sim::VirtualLidar> Started(const varkel::sim::SimOptions& o) {
    return vktest::StartedSim(o);
  }

  // The command with the connection to the virtual lidar and the shipped tables.
  Result Run(std::vector<std::string> args, bool connect = true) {
    std::vector<std::string> all{"varkel-cli", "--config-dir", kTables};
    if (connect) all.insert(all.end(), {"--host", "127.0.0.1", "--port", std::to_string(sim_->port())});
    all.insert(all.end(), args.begin(), args.end());
    std::vector<const char*> argv;
    for (const std::string& a : all) argv.push_back(a.c_str());
    std::ostringstream out, err;
    const int status = varkel::cli::RunCli(static_cast<int>(argv.size()), argv.data(), out, err);
    return {status, out.str(), err.str()};
  }
  std::string File(const std::string& name) { return home_ + "/" + name; }
  // The sensor counts a restart once it has dropped its connections, after its reply.
  bool RestartsReach(uint64_t count) {
    return vktest::PollUntil([&] { return sim_->RestartCount() >= count; }) && sim_->RestartCount() == count;
  }
  // After a restart: whether the sensor listens again.
  bool Listens() { return vktest::WaitListening(sim_->port()); }

  std::string home_;
  std::unique_ptr<varkel::sim::VirtualLidar> sim_;
};

}  // namespace varkel::cli::testing
