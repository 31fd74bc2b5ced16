// scan: which addresses of a small network answer KTC, and why the others do not.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <iomanip>
#include <sstream>
#include <thread>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "ktc_parser.h"

namespace varkel::cli {

using Json = nlohmann::ordered_json;

namespace {

constexpr int kWidestPrefix = 24;  // 256 addresses
constexpr size_t kMostPorts = 16;
constexpr unsigned kScanThreads = 32;
constexpr uint8_t kProbeCmd = 7;

struct Target {
  std::string address;
  uint16_t port;
};

struct Finding {
  std::string status;  // "KTC 1.0", "KTC 2.0", "refused", "silent", "not KTC", or an error
  double rtt_ms = 0;
  std::string part_number;
  std::string detail;
};

// What a connected peer answers to the probe in one frame version.
enum class Answer { kKtc, kSilent, kOther, kClosed };

// Connects without blocking longer than `timeout_ms`; the socket, or -1 with *why.
int Connect(const sockaddr_in& address, uint32_t timeout_ms, std::string* why) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    *why = std::strerror(errno);
    return -1;
  }
  int error = 0;
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    error = errno;
    if (error == EINPROGRESS) {
      pollfd p{fd, POLLOUT, 0};
      socklen_t len = sizeof(error);
      const int ready = ::poll(&p, 1, static_cast<int>(timeout_ms));
      if (ready == 0)
        error = ETIMEDOUT;
      else if (ready < 0 || ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &len) != 0)
        error = errno;
    }
  }
  if (error != 0) {
    *why = error == ECONNREFUSED ? "refused" : error == ETIMEDOUT ? "silent" : std::strerror(error);
    ::close(fd);
    return -1;
  }
  return fd;
}

// Sends the probe in `version` and reads until a header's worth of bytes, the peer's
// close, or the time-out. A reply in that version's frame, whatever its return code, is KTC.
Answer Probe(const sockaddr_in& address, int version, uint32_t timeout_ms, double* rtt_ms, std::string* why) {
  const int fd = Connect(address, timeout_ms, why);
  if (fd < 0) return Answer::kClosed;
  quarn::lidar::KtcParser parser(static_cast<uint8_t>(version));
  std::vector<uint8_t> frame;
  parser.KtcStreamEncode({}, frame, kProbeCmd);
  const auto start = std::chrono::steady_clock::now();
  const auto deadline = start + std::chrono::milliseconds(timeout_ms);
  Answer answer = Answer::kSilent;
  if (::send(fd, frame.data(), frame.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(frame.size())) {
    *why = "send failed";
    answer = Answer::kClosed;
  }
  std::vector<uint8_t> got;
  const size_t wanted = parser.parser()->GetHeaderSize();
  while (answer == Answer::kSilent && got.size() < wanted) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    if (left <= 0) break;
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(left)) <= 0) continue;
    uint8_t buffer[64];
    const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) break;
    got.insert(got.end(), buffer, buffer + n);
  }
  *rtt_ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  ::close(fd);
  if (answer != Answer::kSilent || got.empty()) return answer;
  const bool ktc = got.size() >= 2 && got[0] == parser.parser()->GetHeaderIdentifier0() &&
                   got[1] == parser.parser()->GetHeaderIdentifier1();
  if (!ktc) {
    std::ostringstream first;
    for (size_t i = 0; i < std::min<size_t>(got.size(), 8); ++i)
      first << (i ? " " : "") << std::hex << std::uppercase << std::setw(2) << std::setfill('0') << int(got[i]);
    *why = "answered " + first.str();
  }
  return ktc ? Answer::kKtc : Answer::kOther;
}

// Over TLS a peer counts only when it completes a verified handshake and answers the
// probe inside it; the plain probe's bytes never go to it.
Finding ExamineTls(const Context& ctx, const Target& target, const sockaddr_in& address) {
  Finding finding;
  std::string why;
  const int fd = Connect(address, ctx.connection.timeout_ms, &why);
  if (fd < 0) {
    finding.status = why;
    if (why == "silent") finding.detail = "no connection within " + std::to_string(ctx.connection.timeout_ms) + " ms";
    return finding;
  }
  ::close(fd);
  const int first = ctx.connection.ktc_version;
  for (int version : {first, 3 - first}) {
    ConnectionOptions options = ctx.connection;
    options.host = target.address;
    options.port = target.port;
    options.ktc_version = version;
    try {
      Session session(options);
      std::vector<uint8_t> reply;
      const auto start = std::chrono::steady_clock::now();
      session.client().QueryCommand({}, reply, kProbeCmd);
      finding.rtt_ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
      finding.status = version == 2 ? "KTC 2.0" : "KTC 1.0";
      finding.detail = "TLS verified, issued by " + session.TlsIssuer();
      if (VarInfo* pn = session.table().FindByName("PN"); pn && session.Read({pn}).empty())
        finding.part_number = pn->current_val;
      return finding;
    } catch (const TlsRefused& e) {
      finding.status = "TLS refused";
      const std::string text = e.what();
      finding.detail = text.substr(text.find(": ") + 2);
      return finding;
    } catch (const std::exception& e) {
      finding.detail = e.what();
    }
  }
  finding.status = "not KTC";
  return finding;
}

Finding Examine(const Context& ctx, const Target& target) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(target.port);
  ::inet_pton(AF_INET, target.address.c_str(), &address.sin_addr);
  if (ctx.connection.tls) return ExamineTls(ctx, target, address);
  const uint32_t timeout = ctx.connection.timeout_ms;
  Finding finding;
  bool other = false;
  // The configured version first: a sensor of the other version may stay silent to it.
  const int first = ctx.connection.ktc_version;
  for (int version : {first, 3 - first}) {
    std::string why;
    double rtt = 0;
    const Answer answer = Probe(address, version, timeout, &rtt, &why);
    if (answer == Answer::kClosed) {
      finding.status = why;
      if (why == "silent") finding.detail = "no connection within " + std::to_string(timeout) + " ms";
      return finding;
    }
    if (answer == Answer::kKtc) {
      finding.status = version == 2 ? "KTC 2.0" : "KTC 1.0";
      finding.rtt_ms = rtt;
      // The part number as the model's table reads it; a peer of another model may not have it.
      try {
        ConnectionOptions options = ctx.connection;
        options.host = target.address;
        options.port = target.port;
        options.ktc_version = version;
        Session session(options);
        if (VarInfo* pn = session.table().FindByName("PN"); pn && session.Read({pn}).empty())
          finding.part_number = pn->current_val;
      } catch (const std::exception& e) {
        finding.detail = std::string("part number not read: ") + e.what();
      }
      return finding;
    }
    if (answer == Answer::kOther) {
      other = true;
      finding.detail = why;
    }
  }
  finding.status = other ? "not KTC" : "silent";
  if (!other) finding.detail = "connected, no reply within " + std::to_string(timeout) + " ms";
  return finding;
}

std::vector<std::string> Addresses(const std::string& network) {
  const size_t slash = network.find('/');
  const std::string host = network.substr(0, slash);
  in_addr address{};
  if (::inet_pton(AF_INET, host.c_str(), &address) != 1)
    throw CliError(kExitBadInput, "'" + host + "' is no IPv4 address");
  int prefix = 32;
  if (slash != std::string::npos) {
    const std::string text = network.substr(slash + 1);
    if (text.empty() || text.size() > 2 || !std::all_of(text.begin(), text.end(), ::isdigit))
      throw CliError(kExitBadInput, "'/" + text + "' is no prefix length");
    prefix = std::stoi(text);
    if (prefix > 32) throw CliError(kExitBadInput, "'/" + text + "' is no prefix length");
    if (prefix < kWidestPrefix)
      throw CliError(kExitBadInput, "/" + text + " is too wide: /" + std::to_string(kWidestPrefix) + " at most");
  }
  const uint32_t mask = prefix == 0 ? 0 : ~0u << (32 - prefix);
  const uint32_t base = ntohl(address.s_addr) & mask;
  const uint32_t count = 1u << (32 - prefix);
  std::vector<std::string> list;
  for (uint32_t i = 0; i < count; ++i) {
    // The network and broadcast addresses hold no sensor.
    if (prefix <= 30 && (i == 0 || i == count - 1)) continue;
    in_addr one{htonl(base + i)};
    char text[INET_ADDRSTRLEN];
    list.push_back(::inet_ntop(AF_INET, &one, text, sizeof text));
  }
  return list;
}

std::vector<uint16_t> Ports(const std::string& list, uint16_t fallback) {
  if (list.empty()) return {fallback};
  std::vector<uint16_t> ports;
  std::stringstream in(list);
  std::string item;
  while (std::getline(in, item, ',')) {
    char* end = nullptr;
    const long port = std::strtol(item.c_str(), &end, 10);
    if (item.empty() || *end != '\0' || port < 1 || port > 65535)
      throw CliError(kExitBadInput, "'" + item + "' in --ports is no port");
    if (std::find(ports.begin(), ports.end(), port) == ports.end()) ports.push_back(static_cast<uint16_t>(port));
  }
  if (ports.size() > kMostPorts)
    throw CliError(kExitBadInput, "--ports names " + std::to_string(ports.size()) + " ports, " +
                                      std::to_string(kMostPorts) + " at most");
  return ports;
}

}  // namespace

int Scan(const Context& ctx, const std::string& network, const std::string& port_list) {
  const std::vector<std::string> addresses = Addresses(network);
  const std::vector<uint16_t> ports = Ports(port_list, ctx.connection.port);
  std::vector<Target> targets;
  for (const std::string& address : addresses)
    for (uint16_t port : ports) targets.push_back({address, port});

  // A bounded pool: each thread takes the next target until none are left.
  std::vector<Finding> findings(targets.size());
  std::atomic<size_t> next{0};
  std::vector<std::thread> pool;
  const size_t threads = std::min<size_t>(kScanThreads, targets.size());
  for (size_t t = 0; t < threads; ++t)
    pool.emplace_back([&] {
      for (size_t i = next++; i < targets.size(); i = next++) findings[i] = Examine(ctx, targets[i]);
    });
  for (std::thread& thread : pool) thread.join();

  size_t answering = 0;
  Json rows = Json::array();
  for (size_t i = 0; i < targets.size(); ++i) {
    const Finding& f = findings[i];
    const bool ktc = f.status.rfind("KTC", 0) == 0;
    answering += ktc;
    Json row{{"address", targets[i].address}, {"port", targets[i].port}, {"status", f.status}};
    if (ktc) {
      row["rtt_ms"] = std::round(f.rtt_ms * 100) / 100;
      row["part_number"] = f.part_number;
    }
    if (!f.detail.empty()) row["detail"] = f.detail;
    rows.push_back(row);
  }
  if (ctx.json) {
    *ctx.out << rows.dump(2) << "\n";
  } else {
    for (const Json& row : rows) {
      std::ostringstream line;
      line << row["address"].get<std::string>() << ":" << row["port"].get<uint16_t>() << "  "
           << row["status"].get<std::string>();
      if (row.contains("rtt_ms"))
        line << "  " << std::fixed << std::setprecision(1) << row["rtt_ms"].get<double>() << " ms  PN "
             << (row["part_number"].get<std::string>().empty() ? "?" : row["part_number"].get<std::string>());
      if (row.contains("detail")) line << "  (" << row["detail"].get<std::string>() << ")";
      *ctx.out << line.str() << "\n";
    }
    *ctx.out << answering << " of " << targets.size() << " answer KTC\n";
  }
  // A script asking "is there a sensor?" gets its answer from the status alone.
  if (answering == 0) throw CliError(kExitSensor, "no address of " + network + " answers KTC");
  return 0;
}

}  // namespace varkel::cli
