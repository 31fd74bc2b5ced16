#pragma once
// A virtual lidar for a test: in this process, on an ephemeral loopback port.

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "virtual_lidar.h"

namespace vktest {

// The sensor of `model` from the tables in `dir`, its values still so that texts compare exactly.
inline varkel::sim::SimOptions SimOptions(const std::string& model, const std::string& dir) {
  varkel::sim::SimOptions o;
  o.model = model;
  o.config_dir = dir;
  o.port = 0;
  o.live_values = false;
  return o;
}

// The virtual lidar started with `o`; null, with the reason as a test failure, when it does not start.
inline std::unique_ptr<varkel::sim::VirtualLidar> StartedSim(const varkel::sim::SimOptions& o) {
  auto sim = std::make_unique<varkel::sim::VirtualLidar>(o);
  std::string error;
  if (sim->Start(&error)) return sim;
  ADD_FAILURE() << "the virtual lidar did not start: " << error;
  return nullptr;
}

}  // namespace vktest
