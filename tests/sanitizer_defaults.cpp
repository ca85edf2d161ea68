// Tests ask for impossible allocations on purpose and expect a refusal, not a sanitizer abort. The
// sanitizer runtimes read these defaults before the environment, so they hold however a test is run.
extern "C" {
__attribute__((used, visibility("default"))) const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}
__attribute__((used, visibility("default"))) const char* __tsan_default_options() {
  return "allocator_may_return_null=1";
}
}
