// The UDP emitter on a loopback socket, the command line, and the program itself.

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>

#include <cstdlib>
#include <tuple>

#include "listening.h"
#include "sim_cli.h"
#include "sim_test_support.h"

using varkel::sim::FailureMode;
using varkel::sim::VirtualLidar;

namespace {

// Unicast to loopback, and to a multicast group joined on loopback.
class SimUdpEmitter : public ::testing::TestWithParam<std::string> {};

TEST_P(SimUdpEmitter, SendsNumberedPointPacketsAndFallsSilentWithTheLink) {
  const bool multicast = GetParam() != "127.0.0.1";
  uint16_t port = 0;
  const int fd = vktest::HoldPort(SOCK_DGRAM, &port, multicast ? INADDR_ANY : INADDR_LOOPBACK);
  ASSERT_GE(fd, 0);
  ip_mreq m{};
  inet_pton(AF_INET, GetParam().c_str(), &m.imr_multiaddr);
  m.imr_interface.s_addr = htonl(INADDR_LOOPBACK);
  if (multicast && setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &m, sizeof(m)) != 0) {
    ::close(fd);
    GTEST_SKIP() << "no multicast on the loopback interface here";
  }
  auto o = simtest::Options();
  o.udp_target = GetParam() + ":" + std::to_string(port);
  o.udp_rate = 50;
  auto sim = simtest::StartSim(o);
  // The next datagram, or nothing after timeout_ms.
  auto receive = [fd](int timeout_ms) {
    pollfd p{fd, POLLIN, 0};
    std::vector<uint8_t> buf(2048);
    const ssize_t n = ::poll(&p, 1, timeout_ms) > 0 ? ::recv(fd, buf.data(), buf.size(), 0) : 0;
    buf.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return buf;
  };
  const auto first = receive(10000);
  const auto second = receive(10000);
  ASSERT_EQ(first.size(), 16u + 100u * 5u);
  ASSERT_EQ(second.size(), first.size());
  EXPECT_EQ(std::vector<uint8_t>(first.begin(), first.begin() + 4), simtest::FromHex("A5 5A 01 64"));
  // Bytes 4..7 number the packets, big-endian.
  auto sequence = [](const std::vector<uint8_t>& d) {
    return (uint32_t{d[4]} << 24) | (uint32_t{d[5]} << 16) | (uint32_t{d[6]} << 8) | d[7];
  };
  EXPECT_EQ(sequence(second), sequence(first) + 1);

  sim->SetLinkLost(true);
  for (int i = 0; i < 100 && !receive(300).empty(); ++i) {
  }
  EXPECT_TRUE(receive(300).empty());
  sim->SetLinkLost(false);
  EXPECT_FALSE(receive(10000).empty());
  ::close(fd);
}

INSTANTIATE_TEST_SUITE_P(Targets, SimUdpEmitter, ::testing::Values("127.0.0.1", "239.255.42.99"),
                         [](const auto& info) { return info.index ? "Multicast" : "Unicast"; });

// Reads until a datagram of `size` bytes comes (stale ones of the old target are dropped).
bool ReceivesSize(int fd, size_t size) {
  std::vector<uint8_t> buf(2048);
  for (pollfd p{fd, POLLIN, 0}; ::poll(&p, 1, 10000) > 0;) {
    if (static_cast<size_t>(::recv(fd, buf.data(), buf.size(), 0)) == size) return true;
  }
  return false;
}

TEST(SimUdpEmitterTarget, FollowsTheDestinationRegistersAndKeepsOtherHostsOffTheWire) {
  uint16_t first_port = 0, second_port = 0;
  const int first = vktest::HoldPort(SOCK_DGRAM, &first_port, INADDR_LOOPBACK);
  const int second = vktest::HoldPort(SOCK_DGRAM, &second_port, INADDR_LOOPBACK);
  ASSERT_GE(first, 0);
  ASSERT_GE(second, 0);
  auto o = simtest::Options("Quenta", simtest::kShippedTableDir);
  o.udp_target = "127.0.0.1:" + std::to_string(first_port);
  o.udp_rate = 200;
  o.udp_size = 64;
  auto sim = simtest::StartSim(o);
  // --udp gave the registers their first values.
  EXPECT_EQ(sim->Value("Destination IP"), "127.0.0.1");
  EXPECT_EQ(sim->Value("Data Port"), std::to_string(first_port));
  EXPECT_TRUE(ReceivesSize(first, 64));

  ASSERT_TRUE(sim->SetValue("Data Port", std::to_string(second_port)));
  EXPECT_TRUE(ReceivesSize(second, 64));

  // Another host: counted as sent, nothing reaches this machine.
  ASSERT_TRUE(sim->SetValue("Destination IP", "192.0.2.7"));
  const uint64_t before = sim->DatagramsWithheld();
  ASSERT_TRUE(vktest::PollUntil([&] { return sim->DatagramsWithheld() > before + 2; }));
  std::vector<uint8_t> buf(2048);
  while (::recv(second, buf.data(), buf.size(), MSG_DONTWAIT) > 0) {
  }
  const uint64_t sent = sim->DatagramsSent();
  ASSERT_TRUE(vktest::PollUntil([&] { return sim->DatagramsSent() > sent + 2; }));
  EXPECT_LT(::recv(second, buf.data(), buf.size(), MSG_DONTWAIT), 0);
  ::close(first);
  ::close(second);
}

TEST(SimCommandLine, ParsesOptionsRefusesNonsenseAndFindsTheTables) {
  using varkel::sim::ParseSimCommandLine;
  varkel::sim::SimCommandLine cl;
  std::string error;
  ASSERT_TRUE(ParseSimCommandLine({"--model",        "Zelto-KTC", "--port",          "0",
                                   "--ktc-version",  "2",         "--serial",        "--udp",
                                   "127.0.0.1:2368", "--fail",    "delay:0x07:500",  "--fail",
                                   "no-reply",       "--verbose", "--restart-delay", "250",
                                   "--log-size",     "16777216",  "--excursion",     "Laser Temperature:-12.5:30"},
                                  &cl, &error))
      << error;
  const auto& op = cl.options;
  EXPECT_EQ(std::make_tuple(op.model, op.port, op.ktc_version, op.serial, op.udp_target, op.udp_rate, op.verbose),
            std::make_tuple(std::string("Zelto-KTC"), uint16_t{0}, 2, true, std::string("127.0.0.1:2368"), 10, true));
  EXPECT_EQ(std::make_pair(op.restart_delay_ms, op.log_size), std::make_pair(250, 16777216u));
  ASSERT_EQ(op.excursions.size(), 1u);
  EXPECT_EQ(std::make_tuple(op.excursions[0].name, op.excursions[0].delta, op.excursions[0].seconds),
            std::make_tuple(std::string("Laser Temperature"), -12.5, 30.0));
  ASSERT_EQ(cl.failures.size(), 2u);
  EXPECT_EQ(std::make_tuple(cl.failures[0].mode, cl.failures[0].cmd, cl.failures[0].param),
            std::make_tuple(FailureMode::kDelay, 7, 500));
  EXPECT_EQ(std::make_tuple(cl.failures[1].mode, cl.failures[1].cmd), std::make_tuple(FailureMode::kNoReply, -1));
  varkel::sim::SimCommandLine fleet;
  ASSERT_TRUE(ParseSimCommandLine(
      {"--fleet", "16", "--host", "127.0.0.2", "--fail", "refuse-piece:0x50:1@127.0.0.5", "--fail", "delay::20"},
      &fleet, &error))
      << error;
  ASSERT_EQ(fleet.failures.size(), 2u);
  EXPECT_EQ(std::make_tuple(fleet.fleet, fleet.failures[0].mode, fleet.failures[0].cmd, fleet.failures[0].address),
            std::make_tuple(size_t{16}, FailureMode::kRefusePiece, 0x50, std::string("127.0.0.5")));
  EXPECT_EQ(std::make_tuple(fleet.failures[1].cmd, fleet.failures[1].param, fleet.failures[1].address),
            std::make_tuple(-1, 20, std::string()));
  varkel::sim::SimCommandLine tls;
  ASSERT_TRUE(
      ParseSimCommandLine({"--tls", "--cert", "s.pem", "--key", "s.key", "--client-ca", "ca.pem"}, &tls, &error));
  EXPECT_EQ(std::make_tuple(tls.options.tls, tls.options.tls_cert, tls.options.tls_key, tls.options.tls_client_ca),
            std::make_tuple(true, std::string("s.pem"), std::string("s.key"), std::string("ca.pem")));

  const std::vector<std::vector<std::string>> bad_lines = {
      {"--port", "70000"},
      {"--ktc-version", "3"},
      {"--udp-size", "63"},
      {"--udp-size", "1473"},
      {"--fail", "explode"},
      {"--fail", "delay:0x100"},
      {"--fail", "delay:"},
      {"--model"},
      {"--frobnicate"},
      {"--rate", "0"},
      {"--restart-delay", "-1"},
      {"--log-size", "2000000000"},
      {"--log-size", "1k"},
      {"--tls", "--cert", "s.pem"},
      {"--cert", "s.pem", "--key", "s.key"},
      {"--fleet", "0"},
      {"--fleet", "2", "--serial"},
      {"--fail", "no-reply@127.0.0.5"},
      {"--excursion", "Laser Temperature:10"},
      {"--excursion", ":10:5"},
      {"--excursion", "Laser Temperature:10:0"},
      {"--excursion", "Laser Temperature:ten:5"},
  };
  for (const auto& bad : bad_lines) {
    varkel::sim::SimCommandLine c;
    error.clear();
    EXPECT_FALSE(ParseSimCommandLine(bad, &c, &error)) << bad[0];
    EXPECT_FALSE(error.empty());
  }

  // The default tables lie beside the program's bin folder when they are there (the build
  // tree is laid out as an install root).
  EXPECT_EQ(varkel::sim::DefaultConfigDir(VARKEL_BINARY_DIR "/bin/varkel-sim"), VARKEL_BINARY_DIR "/Config/varID");
  EXPECT_EQ(varkel::sim::DefaultConfigDir("/nonexistent/bin/varkel-sim"), "./Config/varID");
}

// Runs the program; returns its exit status (-1 when it did not exit) and everything it
// printed. With `interrupt` it gets Ctrl-C once it says it is running.
int RunProgram(std::vector<std::string> args, bool interrupt, std::string* output) {
  int out[2];
  EXPECT_EQ(::pipe(out), 0);
  const std::string exe = std::string(VARKEL_BINARY_DIR) + "/bin/varkel-sim";
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(out[1], 1);
    ::dup2(out[1], 2);
    std::vector<char*> argv{const_cast<char*>(exe.c_str())};
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    ::execv(exe.c_str(), argv.data());
    _exit(127);
  }
  ::close(out[1]);
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  bool interrupted = false;
  char buf[512];
  for (ssize_t n = 1; n > 0 && std::chrono::steady_clock::now() < end;) {
    pollfd p{out[0], POLLIN, 0};
    if (::poll(&p, 1, 100) > 0 && (n = ::read(out[0], buf, sizeof(buf))) > 0) output->append(buf, n);
    if (interrupt && !interrupted && output->find("running;") != std::string::npos)
      interrupted = ::kill(pid, SIGINT) == 0;
  }
  ::close(out[0]);
  if (std::chrono::steady_clock::now() >= end) ::kill(pid, SIGKILL);
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(SimProgram, HelpErrorsAndACleanCtrlC) {
  std::string help, missing, in_use, ok;
  EXPECT_EQ(RunProgram({"--help"}, false, &help), 0);
  EXPECT_NE(help.find("--ktc-version 1|2"), std::string::npos);
  EXPECT_NE(help.find("slow-drip"), std::string::npos);

  EXPECT_EQ(RunProgram({"--model", "Absent", "--config-dir", simtest::kTestDataDir}, false, &missing), 1);
  EXPECT_NE(missing.find("model table not found: " + simtest::kTestDataDir + "/Absent.csv"), std::string::npos);

  auto busy = simtest::StartSim(simtest::Options());
  const std::string port = std::to_string(busy->port());
  std::vector<std::string> args{"--model", "SimTest", "--config-dir", simtest::kTestDataDir, "--port", port};
  EXPECT_EQ(RunProgram(args, false, &in_use), 1);
  EXPECT_NE(in_use.find("varkel-sim: port " + port + " on 127.0.0.1 is already in use"), std::string::npos) << in_use;

  args[5] = "0";
  args.push_back("--serial");
  EXPECT_EQ(RunProgram(args, true, &ok), 0) << ok;
  EXPECT_NE(ok.find("serial commands (UART) on /dev/pts/"), std::string::npos) << ok;
  EXPECT_NE(ok.find("stopping"), std::string::npos);

  std::string outside, fleet;
  const std::vector<std::string> fleet_args{"--model", "SimTest", "--config-dir", simtest::kTestDataDir,
                                            "--port",  "0",       "--fleet",      "3"};
  auto with = [&](std::vector<std::string> more) {
    more.insert(more.begin(), fleet_args.begin(), fleet_args.end());
    return more;
  };
  EXPECT_EQ(RunProgram(with({"--host", "10.0.0.1"}), false, &outside), 1);
  EXPECT_NE(outside.find("a fleet lives on loopback only"), std::string::npos) << outside;
  EXPECT_EQ(RunProgram(with({"--host", "127.0.0.2", "--fail", "no-reply@127.0.0.3"}), true, &fleet), 0) << fleet;
  EXPECT_NE(fleet.find("3 sensors on 127.0.0.2 to 127.0.0.4"), std::string::npos) << fleet;
  EXPECT_NE(fleet.find("failure no-reply for every command on 127.0.0.3"), std::string::npos) << fleet;
}

}  // namespace
