#pragma once
// The program's fixed dark palette, applied to the application and to the main window.

#include <QPalette>

namespace varkel::app {

// Every role but Shadow, Link, LinkVisited and ToolTipText gets a solid brush in all
// colour groups; those four keep Qt's defaults.
QPalette BuildVarkelPalette();

}  // namespace varkel::app
