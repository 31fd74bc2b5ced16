#include "scale_factor.h"

#include <algorithm>

namespace varkel::app {

ScaleDecision ComputeScaleFactor(const ScreenMetrics& m) {
  ScaleDecision d;
  if (m.logical_width <= 0 || m.logical_height <= 0 || m.physical_width <= 0 || m.physical_height <= 0) return d;
  // Each ratio is computed in double and kept as float, so 1.25 stays exactly 1.25.
  const float rx = static_cast<float>(static_cast<double>(m.physical_width) / m.logical_width);
  const float ry = static_cast<float>(static_cast<double>(m.physical_height) / m.logical_height);
  d.dpi = ry < rx ? ry : rx;
  if (d.dpi > 1.25f) {
    d.scale = d.dpi * 0.8;
  } else {
    d.scale = std::max(1.0, m.logical_width / 1920.0);
  }
  return d;
}

QByteArray FormatScaleFactor(double scale) {
  return QByteArray::number(scale, 'g', 6);
}

}  // namespace varkel::app
