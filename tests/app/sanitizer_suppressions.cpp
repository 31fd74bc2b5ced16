// Sanitizer reports to ignore in the app test programs: findings inside third-party
// libraries only. Without the sanitizers nothing calls these.

// LeakSanitizer: font configuration caches kept for the life of the process; the
// offscreen platform plugin never frees its screen; Qt Quick's proxy for a signal from
// another thread is freed when delivered, so one sent just before the end stays; Qt
// Test's logger list is set up once per process.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libfontconfig.so\n"
         "leak:libqoffscreen.so\n"
         "leak:QQmlData::signalEmitted\n"
         "leak:QTestLog::addLogger\n";
}

// ThreadSanitizer: Debian's Qt 5 is not built with it. QMutex waits on futexes and the
// reference counts use atomics the sanitizer cannot see, so a signal queued from a worker
// thread and delivered on the UI thread looks like a race inside Qt. glibc's time-zone
// state is guarded by a lock it does not see either. Races whose stacks lie wholly in
// Varkel's code are still reported.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
  return "race:libQt5Core.so\n"
         "race:libQt5Gui.so\n"
         "race:libQt5Qml.so\n"
         "race:libQt5Quick.so\n"
         "race:libQt5Test.so\n"
         "race:libQt5QuickTest.so\n"
         "race:tzset_internal\n";
}
