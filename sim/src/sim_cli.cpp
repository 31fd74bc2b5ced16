#include "sim_cli.h"

#include <cstdlib>

#include "data_root.h"
#include "varkel_version.h"

namespace varkel::sim {
namespace {

bool ParseInt(const std::string& text, long lo, long hi, long* out) {
  if (text.empty()) return false;
  char* end = nullptr;
  const long v = std::strtol(text.c_str(), &end, 0);  // 0x.. for command codes
  if (*end != '\0' || v < lo || v > hi) return false;
  *out = v;
  return true;
}

}  // namespace

std::string SimUsage() {
  std::string modes;
  for (const auto& m : FailureModeNames()) modes += (modes.empty() ? "" : ", ") + m;
  return "Usage: varkel-sim --model NAME [options]\n"
         "A simulated lidar on this computer, for trying Varkel without a sensor.\n"
         "\n"
         "  --model NAME          model table to simulate: <config dir>/NAME.csv (default Quenta)\n"
         "  --config-dir DIR      folder of the model tables (default: Config/varID beside the\n"
         "                        program's bin folder, else in <prefix>/share/varkel, else\n"
         "                        ./Config/varID)\n"
         "  --host ADDR           address to listen on (default 127.0.0.1)\n"
         "  --port N              KTC port (default 9347; 0 picks a free one)\n"
         "  --ktc-version 1|2     KTC frame version (default 1)\n"
         "  --serial              also open two pseudo-terminals for the serial command protocol\n"
         "                        (commands and data) and print their paths\n"
         "  --udp HOST:PORT       send point-cloud-like datagrams there (multicast for 224.x-239.x)\n"
         "  --rate N              datagrams per second, up to 100000 (default 10); the sensor's\n"
         "                        \"Destination IP\" and \"Data Port\" registers move the stream\n"
         "  --udp-size BYTES      bytes per datagram, 64 to 1472 (default: one 516-byte packet)\n"
         "  --serial-stream N     with --serial: N point-cloud packets per second on the data line\n"
         "  --restart-delay MS    how long a restart or reset keeps the sensor off the network\n"
         "                        (default 3000)\n"
         "  --log-size BYTES      size of every log the sensor hands out (default 262144)\n"
         "  --fail MODE[:CMD[:P]][@ADDR]\n"
         "                        misbehave for command CMD (all when left out: delay::20) with\n"
         "                        parameter P; with --fleet, @ADDR names the one member; may be\n"
         "                        repeated.\n"
         "                        MODE is one of: " +
         modes +
         "\n"
         "  --fleet N             N sensors on --host and the addresses after it, one port, each\n"
         "                        its own serial number (loopback 127.0.0.0/8 only)\n"
         "  --excursion NAME:DELTA:SECONDS  ramp a variable up by DELTA over SECONDS from the\n"
         "                        moment it listens, and back down over the next SECONDS\n"
         "  --tls                 serve KTC over TLS (needs --cert and --key)\n"
         "  --cert FILE           the sensor's certificate (PEM), with its chain\n"
         "  --key FILE            the certificate's private key (PEM)\n"
         "  --client-ca FILE      with --tls: only clients showing a certificate this CA issued\n"
         "  --verbose             trace every frame in and out in hexadecimal\n"
         "  --help                this text\n"
         "  --version             the program's version\n"
         "\n"
         "Point Varkel at it: choose the model, address 127.0.0.1 and the port, then Connect.\n"
         "Stop it with Ctrl-C.\n";
}

std::string SimVersion() {
  return std::string("varkel-sim ") + VARKEL_VERSION + "\n";
}

bool ParseSimCommandLine(const std::vector<std::string>& args, SimCommandLine* out, std::string* error) {
  auto need = [&](size_t i, const std::string& opt) {
    if (i + 1 < args.size()) return true;
    *error = opt + " needs a value";
    return false;
  };
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    long v = 0;
    if (a == "--help" || a == "-h") {
      out->help = true;
    } else if (a == "--version") {
      out->version = true;
    } else if (a == "--model") {
      if (!need(i, a)) return false;
      out->options.model = args[++i];
    } else if (a == "--config-dir") {
      if (!need(i, a)) return false;
      out->options.config_dir = args[++i];
    } else if (a == "--host") {
      if (!need(i, a)) return false;
      out->options.host = args[++i];
    } else if (a == "--port") {
      if (!need(i, a)) return false;
      if (!ParseInt(args[++i], 0, 65535, &v)) {
        *error = "--port wants a number from 0 to 65535, got \"" + args[i] + "\"";
        return false;
      }
      out->options.port = static_cast<uint16_t>(v);
    } else if (a == "--ktc-version") {
      if (!need(i, a)) return false;
      if (!ParseInt(args[++i], 1, 2, &v)) {
        *error = "--ktc-version wants 1 or 2, got \"" + args[i] + "\"";
        return false;
      }
      out->options.ktc_version = static_cast<int>(v);
    } else if (a == "--serial") {
      out->options.serial = true;
    } else if (a == "--udp") {
      if (!need(i, a)) return false;
      out->options.udp_target = args[++i];
    } else if (a == "--rate") {
      if (!need(i, a)) return false;
      if (!ParseInt(args[++i], 1, 100000, &v)) {
        *error = "--rate wants a number of datagrams per second, got \"" + args[i] + "\"";
        return false;
      }
      out->options.udp_rate = static_cast<int>(v);
    } else if (a == "--udp-size") {
      if (!need(i, a)) return false;
      if (!ParseInt(args[++i], 64, 1472, &v)) {
        *error = "--udp-size wants a number of bytes from 64 to 1472, got \"" + args[i] + "\"";
        return false;
      }
      out->options.udp_size = static_cast<size_t>(v);
    } else if (a == "--serial-stream") {
      if (!need(i, a)) return false;
      if (!ParseInt(args[++i], 0, 10000, &v)) {
        *error = "--serial-stream wants a number of packets per second, got \"" + args[i] + "\"";
        return false;
      }
      out->options.serial_stream_rate = static_cast<int>(v);
    } else if (a == "--restart-delay") {
      if (!need(i, a)) return false;
      if (!ParseInt(args[++i], 0, 600000, &v)) {
        *error = "--restart-delay wants milliseconds from 0 to 600000, got \"" + args[i] + "\"";
        return false;
      }
      out->options.restart_delay_ms = static_cast<int>(v);
    } else if (a == "--log-size") {
      if (!need(i, a)) return false;
      if (!ParseInt(args[++i], 0, VirtualLidar::kMaxLogSize, &v)) {
        *error = "--log-size wants a number of bytes from 0 to " + std::to_string(VirtualLidar::kMaxLogSize) +
                 ", got \"" + args[i] + "\"";
        return false;
      }
      out->options.log_size = static_cast<uint32_t>(v);
    } else if (a == "--excursion") {
      if (!need(i, a)) return false;
      // The name may hold blanks and colons of its own: the numbers are the last two fields.
      const std::string& e = args[++i];
      const size_t c2 = e.rfind(':');
      const size_t c1 = c2 == std::string::npos || c2 == 0 ? std::string::npos : e.rfind(':', c2 - 1);
      Excursion x;
      char* end1 = nullptr;
      char* end2 = nullptr;
      if (c1 != std::string::npos && c1 > 0) {
        x.name = e.substr(0, c1);
        const std::string delta = e.substr(c1 + 1, c2 - c1 - 1), seconds = e.substr(c2 + 1);
        x.delta = std::strtod(delta.c_str(), &end1);
        x.seconds = std::strtod(seconds.c_str(), &end2);
        if (delta.empty() || seconds.empty() || *end1 || *end2 || !(x.seconds > 0)) end1 = nullptr;
      }
      if (!end1) {
        *error = "--excursion wants NAME:DELTA:SECONDS (SECONDS above 0), got \"" + e + "\"";
        return false;
      }
      out->options.excursions.push_back(x);
    } else if (a == "--fail") {
      if (!need(i, a)) return false;
      std::string fail_arg = args[++i];
      FailureRequest f;
      const size_t at = fail_arg.find('@');
      if (at != std::string::npos) {
        f.address = fail_arg.substr(at + 1);
        fail_arg.resize(at);
      }
      const size_t c1 = fail_arg.find(':');
      const auto mode = FailureModeFromName(fail_arg.substr(0, c1));
      if (!mode) {
        *error = "unknown failure mode \"" + fail_arg.substr(0, c1) + "\" (see --help)";
        return false;
      }
      f.mode = *mode;
      if (c1 != std::string::npos) {
        const size_t c2 = fail_arg.find(':', c1 + 1);
        const std::string cmd = fail_arg.substr(c1 + 1, c2 == std::string::npos ? std::string::npos : c2 - c1 - 1);
        // "delay::20": every command, with a parameter.
        if (!(cmd.empty() && c2 != std::string::npos) && !ParseInt(cmd, 0, 255, &v)) {
          *error = "bad command in --fail " + fail_arg + " (a number from 0 to 255, such as 0x1A)";
          return false;
        }
        f.cmd = cmd.empty() ? -1 : static_cast<int>(v);
        if (c2 != std::string::npos) {
          if (!ParseInt(fail_arg.substr(c2 + 1), -1000000, 1000000, &v)) {
            *error = "bad parameter in --fail " + fail_arg;
            return false;
          }
          f.param = static_cast<int>(v);
        }
      }
      out->failures.push_back(f);
    } else if (a == "--fleet") {
      if (!need(i, a)) return false;
      if (!ParseInt(args[++i], 1, 1024, &v)) {
        *error = "--fleet wants a number of sensors from 1 to 1024, got \"" + args[i] + "\"";
        return false;
      }
      out->fleet = static_cast<size_t>(v);
    } else if (a == "--tls") {
      out->options.tls = true;
    } else if (a == "--cert" || a == "--key" || a == "--client-ca") {
      if (!need(i, a)) return false;
      std::string& file = a == "--cert"  ? out->options.tls_cert
                          : a == "--key" ? out->options.tls_key
                                         : out->options.tls_client_ca;
      file = args[++i];
    } else if (a == "--verbose" || a == "-v") {
      out->options.verbose = true;
    } else {
      *error = "unknown option \"" + a + "\" (see --help)";
      return false;
    }
  }
  const SimOptions& o = out->options;
  if (o.tls && (o.tls_cert.empty() || o.tls_key.empty())) {
    *error = "--tls needs --cert FILE and --key FILE";
    return false;
  }
  if (!o.tls && (!o.tls_cert.empty() || !o.tls_key.empty() || !o.tls_client_ca.empty())) {
    *error = "--cert, --key and --client-ca go with --tls";
    return false;
  }
  if (out->fleet > 0 && o.serial) {
    *error = "--serial goes with one sensor, not with --fleet";
    return false;
  }
  for (const FailureRequest& f : out->failures)
    if (!f.address.empty() && out->fleet == 0) {
      *error = "--fail ...@ADDR names a member of --fleet";
      return false;
    }
  if (!out->options.udp_target.empty() && out->options.udp_rate == 0) out->options.udp_rate = 10;
  return true;
}

std::string DefaultConfigDir(const std::string& executable_path) {
  return quarn::DefaultModelTableDir(executable_path);
}

}  // namespace varkel::sim
