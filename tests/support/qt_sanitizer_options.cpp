// What the sanitizers are told in tests that run Qt. Their runtimes call these functions;
// without a sanitizer nobody does.

extern "C" {

const char* __tsan_default_options();
const char* __lsan_default_suppressions();

// Qt itself is built without ThreadSanitizer: the locks inside it can't be seen.
const char* __tsan_default_options() {
  return "ignore_noninstrumented_modules=1";
}

// fontconfig keeps what it has read for the life of the process.
const char* __lsan_default_suppressions() {
  return "leak:libfontconfig\n";
}
}
