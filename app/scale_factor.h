#pragma once
// The start-up scale factor rule: from the primary screen's logical and physical pixel
// sizes to the value the program puts into QT_SCALE_FACTOR before Qt starts.

#include <QByteArray>

namespace varkel::app {

struct ScreenMetrics {
  int logical_width = 0;
  int logical_height = 0;
  int physical_width = 0;
  int physical_height = 0;
};

struct ScaleDecision {
  float dpi = 1.0f;    // system scaling: physical over logical, the smaller axis
  double scale = 1.0;  // what QT_SCALE_FACTOR receives
};

// High system scaling (above 125 %) is toned down to 80 % of itself; otherwise wide
// screens grow with their width relative to 1920, and nothing shrinks below 1.0.
// Unknown metrics (any size 0 or negative) give dpi 1 and scale 1.
ScaleDecision ComputeScaleFactor(const ScreenMetrics& m);

// The text written into QT_SCALE_FACTOR: general format, 6 significant digits.
QByteArray FormatScaleFactor(double scale);

}  // namespace varkel::app
