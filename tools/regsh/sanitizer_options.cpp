// Linked in under the address sanitizer only. The client is started for each call that a test
// makes, and looking for leaks takes longer than the call: its accesses are watched, its leaks
// are not. The name is the sanitizer's own.
extern "C" const char* __asan_default_options() {
    return "detect_leaks=0";
}
