// Options that the sanitizers ask for before anything else.
extern "C" {
const char* __lsan_default_suppressions();
const char* __tsan_default_suppressions();

/// Fontconfig keeps what it has read of fonts, where text is drawn, until the process ends.
__attribute__((visibility("default"))) const char* __lsan_default_suppressions() {
  return "leak:libfontconfig.so";
}

/// The functions that register types take GObject's lock, which the thread sanitizer does not see, and release it with
/// their last jump, which it takes for one of their callers.
__attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
  return "mutex:plugins/gtk/*\n"
         "mutex:libnautilus-extension.so\n"
         "mutex:libnemo-extension.so\n"
         "mutex:libcaja-extension.so\n"
         "mutex:libgvfscommon.so\n"
         "mutex:libgdk-3.so\n"
         "mutex:libgtk-3.so\n"
         "mutex:libgdk_pixbuf-2.0.so\n"
         "mutex:libatk-1.0.so\n"
         "mutex:libpango*\n";
}
}
