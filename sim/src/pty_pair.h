#pragma once
// A pseudo-terminal pair standing in for one serial line: the sensor holds the master,
// the program opens the slave by its path.

#include <string>

namespace varkel::sim {

class PtyPair {
 public:
  PtyPair() = default;
  ~PtyPair();
  PtyPair(const PtyPair&) = delete;
  PtyPair& operator=(const PtyPair&) = delete;

  bool Open(std::string* error);
  void Close();
  int master() const { return master_; }
  const std::string& path() const { return path_; }

 private:
  int master_ = -1;
  // Held open so the line stays raw between the program's opens and master reads
  // never see a hang-up while the program has the port closed.
  int slave_ = -1;
  std::string path_;
};

}  // namespace varkel::sim
