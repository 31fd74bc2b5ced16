#pragma once
// The one way out of the simulated sensor: every KTC reply, serial reply and datagram
// passes Send, so "link lost" silences them all, and --verbose traces them all.

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace varkel::sim {

class ReplyPath {
 public:
  using Writer = std::function<bool(const std::vector<uint8_t>&)>;

  // Writes `bytes` with `write` unless the link is lost; false when dropped or failed.
  bool Send(const char* channel, const std::vector<uint8_t>& bytes, const Writer& write);
  // Traces bytes that came in (only with verbose on).
  void TraceIn(const char* channel, const uint8_t* data, size_t len);
  void Note(const std::string& line);

  void set_link_lost(bool lost) { link_lost_.store(lost); }
  bool link_lost() const { return link_lost_.load(); }
  void set_verbose(bool on) { verbose_.store(on); }

 private:
  void Print(const std::string& line);

  std::atomic<bool> link_lost_{false};
  std::atomic<bool> verbose_{false};
  // Keeps trace lines of the connection, serial and emitter threads whole on stdout.
  std::mutex print_mu_;
};

}  // namespace varkel::sim
