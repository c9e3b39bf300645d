// Default options of the sanitizers for every test program of a sanitizer
// build (linked in only there): any report ends the test with a failure.
// Options given in the environment still win.

extern "C" {

const char* __asan_default_options()
{
    return "detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1:"
           "check_initialization_order=1";
}

const char* __ubsan_default_options()
{
    return "print_stacktrace=1:halt_on_error=1";
}

const char* __tsan_default_options()
{
    return "halt_on_error=1:second_deadlock_stack=1:suppressions=" ORVO_SOURCE_DIR "/tests/tsan.supp";
}

}
