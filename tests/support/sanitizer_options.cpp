// What the address sanitizer is told, which looks for these by name.

// A check of undefined behaviour stops the program: the sanitizer shows where.
extern "C" [[gnu::visibility("default")]] const char* __asan_default_options();
extern "C" const char* __asan_default_options() {
    return "handle_sigill=1";
}

// What it takes for lost and is not: fontconfig keeps distances where others keep pointers, so that
// what it holds cannot be seen to be held.

extern "C" [[gnu::visibility("default")]] const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libfontconfig\n";
}

extern "C" [[gnu::visibility("default")]] const char* __lsan_default_options();
extern "C" const char* __lsan_default_options() {
    return "print_suppressions=0";
}
