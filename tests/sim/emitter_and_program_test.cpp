// The UDP emitter on a loopback socket, the command line, and the program itself.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>

#include "sim_cli.h"
#include "sim_test_support.h"
#include "virtual_lidar.h"

using varkel::sim::FailureMode;
using varkel::sim::SimOptions;
using varkel::sim::VirtualLidar;

namespace {

class UdpReceiver {
 public:
  explicit UdpReceiver(const char* bind_addr = "127.0.0.1") {
    fd_ = ::socket(AF_INET, SOCK_DGRAM, 0);
    const int one = 1;
    setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in a{};
    a.sin_family = AF_INET;
    inet_pton(AF_INET, bind_addr, &a.sin_addr);
    ::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    socklen_t len = sizeof(a);
    getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len);
    port_ = ntohs(a.sin_port);
  }
  ~UdpReceiver() { ::close(fd_); }
  int fd() const { return fd_; }
  uint16_t port() const { return port_; }
  std::vector<uint8_t> Receive(int timeout_ms) {
    pollfd p{fd_, POLLIN, 0};
    if (::poll(&p, 1, timeout_ms) <= 0) return {};
    std::vector<uint8_t> buf(2048);
    const ssize_t n = ::recv(fd_, buf.data(), buf.size(), 0);
    buf.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return buf;
  }

 private:
  int fd_ = -1;
  uint16_t port_ = 0;
};

uint32_t Sequence(const std::vector<uint8_t>& d) {
  return (uint32_t{d[4]} << 24) | (uint32_t{d[5]} << 16) | (uint32_t{d[6]} << 8) | d[7];
}

TEST(SimUdpEmitter, SendsNumberedPointPacketsAndFallsSilentWithTheLink) {
  UdpReceiver rx;
  SimOptions o;
  o.model = "SimTest";
  o.config_dir = simtest::TestDataDir();
  o.port = 0;
  o.udp_target = "127.0.0.1:" + std::to_string(rx.port());
  o.udp_rate = 50;
  VirtualLidar sim(o);
  std::string error;
  ASSERT_TRUE(sim.Start(&error)) << error;
  const auto a = rx.Receive(10000);
  const auto b = rx.Receive(10000);
  ASSERT_EQ(a.size(), 16u + 100u * 5u);
  ASSERT_EQ(b.size(), a.size());
  EXPECT_EQ(std::vector<uint8_t>(a.begin(), a.begin() + 4), simtest::Hex("A5 5A 01 64"));
  EXPECT_EQ(Sequence(b), Sequence(a) + 1);

  sim.SetLinkLost(true);
  while (!rx.Receive(300).empty()) {
  }
  EXPECT_TRUE(rx.Receive(300).empty());
  sim.SetLinkLost(false);
  EXPECT_FALSE(rx.Receive(10000).empty());
  sim.Stop();
}

TEST(SimUdpEmitter, SendsToAMulticastGroup) {
  UdpReceiver rx("0.0.0.0");
  ip_mreq m{};
  inet_pton(AF_INET, "239.255.42.99", &m.imr_multiaddr);
  m.imr_interface.s_addr = htonl(INADDR_LOOPBACK);
  if (setsockopt(rx.fd(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &m, sizeof(m)) != 0)
    GTEST_SKIP() << "no multicast on the loopback interface here";
  SimOptions o;
  o.model = "SimTest";
  o.config_dir = simtest::TestDataDir();
  o.port = 0;
  o.udp_target = "239.255.42.99:" + std::to_string(rx.port());
  o.udp_rate = 50;
  VirtualLidar sim(o);
  std::string error;
  ASSERT_TRUE(sim.Start(&error)) << error;
  EXPECT_EQ(rx.Receive(10000).size(), 516u);
}

TEST(SimCommandLine, ParsesOptionsAndRefusesNonsense) {
  using varkel::sim::ParseSimCommandLine;
  varkel::sim::SimCommandLine cl;
  std::string error;
  ASSERT_TRUE(ParseSimCommandLine({"--model", "Zelto-KTC", "--port", "0", "--ktc-version", "2", "--serial", "--udp",
                                   "127.0.0.1:2368", "--fail", "delay:0x07:500", "--fail", "no-reply", "--verbose"},
                                  &cl, &error))
      << error;
  EXPECT_EQ(cl.options.model, "Zelto-KTC");
  EXPECT_EQ(cl.options.port, 0);
  EXPECT_EQ(cl.options.ktc_version, 2);
  EXPECT_TRUE(cl.options.serial);
  EXPECT_EQ(cl.options.udp_rate, 10);
  EXPECT_TRUE(cl.options.verbose);
  ASSERT_EQ(cl.failures.size(), 2u);
  EXPECT_EQ(cl.failures[0].mode, FailureMode::kDelay);
  EXPECT_EQ(cl.failures[0].cmd, 7);
  EXPECT_EQ(cl.failures[0].param, 500);
  EXPECT_EQ(cl.failures[1].cmd, -1);

  for (const std::vector<std::string>& bad : {std::vector<std::string>{"--port", "70000"},
                                              {"--ktc-version", "3"},
                                              {"--fail", "explode"},
                                              {"--fail", "delay:0x100"},
                                              {"--model"},
                                              {"--frobnicate"},
                                              {"--rate", "0"}}) {
    varkel::sim::SimCommandLine c;
    error.clear();
    EXPECT_FALSE(ParseSimCommandLine(bad, &c, &error)) << bad[0];
    EXPECT_FALSE(error.empty());
  }
}

TEST(SimCommandLine, DefaultTablesLieBesideTheProgramsBinFolder) {
  char tmpl[] = "/tmp/varkel-sim-root-XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  const std::string root = tmpl;
  EXPECT_EQ(varkel::sim::DefaultConfigDir(root + "/bin/varkel-sim"), "./Config/varID");
  ASSERT_EQ(::mkdir((root + "/Config").c_str(), 0755), 0);
  ASSERT_EQ(::mkdir((root + "/Config/varID").c_str(), 0755), 0);
  EXPECT_EQ(varkel::sim::DefaultConfigDir(root + "/bin/varkel-sim"), root + "/Config/varID");
  ::rmdir((root + "/Config/varID").c_str());
  ::rmdir((root + "/Config").c_str());
  ::rmdir(root.c_str());
}

// Runs the program with args; returns its exit status and everything it printed.
struct ProgramRun {
  int status = -1;
  std::string output;
};

ProgramRun RunProgram(std::vector<std::string> args, bool interrupt_when_running) {
  int out[2];
  EXPECT_EQ(::pipe(out), 0);
  const std::string exe = std::string(VARKEL_BINARY_DIR) + "/bin/varkel-sim";
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(out[1], 1);
    ::dup2(out[1], 2);
    ::close(out[0]);
    std::vector<char*> argv{const_cast<char*>(exe.c_str())};
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    ::execv(exe.c_str(), argv.data());
    _exit(127);
  }
  ::close(out[1]);
  ProgramRun run;
  bool interrupted = false;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  for (;;) {
    pollfd p{out[0], POLLIN, 0};
    if (::poll(&p, 1, 100) > 0) {
      char buf[512];
      const ssize_t n = ::read(out[0], buf, sizeof(buf));
      if (n <= 0) break;
      run.output.append(buf, static_cast<size_t>(n));
    }
    if (interrupt_when_running && !interrupted && run.output.find("running;") != std::string::npos) {
      ::kill(pid, SIGINT);
      interrupted = true;
    }
    if (std::chrono::steady_clock::now() > end) {
      ::kill(pid, SIGKILL);
      break;
    }
  }
  ::close(out[0]);
  int status = 0;
  ::waitpid(pid, &status, 0);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

TEST(SimProgram, HelpErrorsAndACleanCtrlC) {
  ProgramRun help = RunProgram({"--help"}, false);
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.output.find("--ktc-version 1|2"), std::string::npos);
  EXPECT_NE(help.output.find("slow-drip"), std::string::npos);

  ProgramRun missing = RunProgram({"--model", "Absent", "--config-dir", simtest::TestDataDir()}, false);
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.output.find("model table not found: " + simtest::TestDataDir() + "/Absent.csv"), std::string::npos);

  ProgramRun ok =
      RunProgram({"--model", "SimTest", "--config-dir", simtest::TestDataDir(), "--port", "0", "--serial"}, true);
  EXPECT_EQ(ok.status, 0) << ok.output;
  EXPECT_NE(ok.output.find("serial commands (UART) on /dev/pts/"), std::string::npos) << ok.output;
  EXPECT_NE(ok.output.find("stopping"), std::string::npos);
}

}  // namespace
