// GNUstep leaves memory behind when a process ends; the address sanitizer asks this function before anything else.
extern "C" const char* __asan_default_options();
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
  return "detect_leaks=0";
}
