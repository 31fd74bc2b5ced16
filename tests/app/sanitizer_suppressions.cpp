// Sanitizer reports to ignore in the app test programs: findings inside third-party
// libraries only. Without the sanitizers nothing calls these.

// LeakSanitizer: fontconfig's caches and the offscreen plugin's screen live as long as the
// process; Qt Quick frees its proxy for a cross-thread signal on delivery, so one sent just
// before the end stays; Qt Test sets its logger list up once per process.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libfontconfig.so\nleak:libqoffscreen.so\nleak:QQmlData::signalEmitted\nleak:QTestLog::addLogger\n";
}

// ThreadSanitizer: Debian's Qt 5 is not built with it, so its futex-based QMutex and its
// atomic reference counts look like races inside Qt; so does glibc's lock around the
// time-zone state. Races whose stacks lie wholly in Varkel's code are still reported.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
  return "race:libQt5Core.so\nrace:libQt5Gui.so\nrace:libQt5Widgets.so\nrace:libQt5Qml.so\nrace:libQt5Quick.so\nrace:"
         "libQt5Test.so\n"
         "race:libQt5QuickTest.so\nrace:tzset_internal\n";
}
