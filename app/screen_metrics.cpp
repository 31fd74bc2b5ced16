#include "screen_metrics.h"

#include <QGuiApplication>
#include <QScreen>
#include <cmath>
#include <vector>

namespace varkel::app {

ScreenMetrics MetricsFromDevicePixels(int device_width, int device_height, double logical_dpi) {
  ScreenMetrics m;
  if (device_width <= 0 || device_height <= 0) return m;
  const double system_scale = logical_dpi > 0.0 ? logical_dpi / 96.0 : 1.0;
  m.physical_width = device_width;
  m.physical_height = device_height;
  m.logical_width = static_cast<int>(std::lround(device_width / system_scale));
  m.logical_height = static_cast<int>(std::lround(device_height / system_scale));
  return m;
}

ScreenMetrics ReadPrimaryScreenMetrics(int argc, char** argv) {
  // QGuiApplication strips the arguments it understands from the array it is given.
  std::vector<char*> args(argv, argv + argc);
  args.push_back(nullptr);
  int probe_argc = argc;
  ScreenMetrics m;
  {
    QGuiApplication probe(probe_argc, args.data());
    const QScreen* screen = QGuiApplication::primaryScreen();
    if (screen == nullptr) return m;
    // size() is in device-independent pixels; a user's own QT_SCALE_FACTOR would shrink it.
    const double ratio = screen->devicePixelRatio();
    const QSize size = screen->size();
    m = MetricsFromDevicePixels(static_cast<int>(std::lround(size.width() * ratio)),
                                static_cast<int>(std::lround(size.height() * ratio)), screen->logicalDotsPerInch());
  }
  return m;
}

}  // namespace varkel::app
