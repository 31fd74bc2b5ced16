#include "palette.h"

#include <QBrush>
#include <QColor>

namespace varkel::app {

QPalette BuildVarkelPalette() {
  QPalette p;
  const auto set = [&p](QPalette::ColorRole role, const QColor& c) { p.setBrush(QPalette::All, role, QBrush(c)); };
  set(QPalette::WindowText, QColor("#EEEEEE"));
  set(QPalette::Button, QColor("#3A3D3F"));
  set(QPalette::Light, QColor("#666666"));
  set(QPalette::Midlight, QColor("#4D4D4D"));
  set(QPalette::Dark, QColor("#222325"));
  set(QPalette::Mid, QColor("#2B2C2E"));
  set(QPalette::Text, QColor("#EEEEEE"));
  set(QPalette::BrightText, QColor("#EEEEEE"));
  set(QPalette::ButtonText, QColor("#EEEEEE"));
  set(QPalette::Base, QColor(1, 1, 1, 255));
  set(QPalette::Window, QColor("#2B2C2E"));
  set(QPalette::Highlight, QColor("#999999"));
  set(QPalette::HighlightedText, QColor("#EEEEEE"));
  set(QPalette::AlternateBase, QColor(1, 1, 1, 255));
  set(QPalette::ToolTipBase, QColor("#010101"));
  set(QPalette::PlaceholderText, QColor("#EEEEEE"));
  return p;
}

}  // namespace varkel::app
