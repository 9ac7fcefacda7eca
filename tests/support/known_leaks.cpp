// What the address sanitizer takes for lost and is not: fontconfig keeps distances where others keep pointers, so that
// what it holds cannot be seen to be held.

extern "C" [[gnu::visibility("default")]] const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libfontconfig\n";
}

extern "C" [[gnu::visibility("default")]] const char* __lsan_default_options();
extern "C" const char* __lsan_default_options() {
    return "print_suppressions=0";
}
