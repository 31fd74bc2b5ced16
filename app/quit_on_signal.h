#pragma once
// Lets SIGTERM and SIGINT end the event loop like closing the window does, so the window
// and the controller are destroyed in order instead of the process dying mid-operation.

class QCoreApplication;

namespace varkel::app {

// Installs the handlers; the application must outlive the event loop. Returns false when
// the handlers could not be installed (the signals then keep their default action).
bool QuitOnTerminationSignals(QCoreApplication& app);

}  // namespace varkel::app
