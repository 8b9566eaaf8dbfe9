/// Only in builds with the address sanitizer, linked into every program on the hub.
// The sanitizer has chosen the name.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" const char* __lsan_default_suppressions();

extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions() {
    return "leak:libssh.so\n"; // it loses the address of every forward request, some ten bytes
}
// NOLINTEND(bugprone-reserved-identifier)
