// What AddressSanitizer does in the fuzz targets unless ASAN_OPTIONS says otherwise.

// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the sanitizer's name
extern "C" const char* __asan_default_options() {
  // Every exception has the frames kept for that check swept, two thirds of the time where most
  // inputs are refused by one. The tests run with it.
  return "detect_stack_use_after_return=0";
}
