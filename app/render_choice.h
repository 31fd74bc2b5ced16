#pragma once
// The renderer the window is drawn with, chosen before Qt starts.

namespace varkel::app {

// The window draws rectangles, text and images only, which Qt Quick's software renderer
// draws alike; it spares the process the OpenGL stack, which with a software GL driver is
// more than half of the window's memory. So, unless QT_QUICK_BACKEND is set (an empty
// value gives Qt's own default, OpenGL), this sets it to "software" and keeps the X11
// platform from loading OpenGL (QT_XCB_GL_INTEGRATION "none", unless that is set).
void PreferSoftwareRendering();

}  // namespace varkel::app
