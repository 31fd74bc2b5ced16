#pragma once
// Reads the primary screen's logical and physical pixel sizes before the application
// object exists, so that the scale factor can still be set through QT_SCALE_FACTOR.

#include "scale_factor.h"

namespace varkel::app {

// Starts a short-lived QGuiApplication on a copy of the arguments (the real application
// still sees every platform argument), asks the primary screen, and tears it down.
// Physical size: the screen's device pixels. Logical size: device pixels divided by the
// desktop's own scaling, i.e. logical DPI over 96, which is what a non-DPI-aware program
// sees on a desktop scaled to 125 % or 150 %. All zero when there is no screen.
ScreenMetrics ReadPrimaryScreenMetrics(int argc, char** argv);

// The pure half of the above, for tests: device pixels and logical DPI to metrics.
ScreenMetrics MetricsFromDevicePixels(int device_width, int device_height, double logical_dpi);

}  // namespace varkel::app
