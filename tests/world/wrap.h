// Replaces functions by functions of a test, in a program that is linked with --wrap.
#pragma once

/// Begins the replacement of the function `name`; `__real_name` calls the original.
#define WRAP(type, name, ...)                   \
    extern "C" type __real_##name(__VA_ARGS__); \
    extern "C" type __wrap_##name(__VA_ARGS__); \
    type __wrap_##name(__VA_ARGS__)
