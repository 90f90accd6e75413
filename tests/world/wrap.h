// Functions of a test that take the calls of others, in a program that is linked with --wrap.
#pragma once

/// Begins the function that takes the calls of `name`; `__real_name` is the one that they usually reach.
#define WRAP(type, name, ...)                   \
    extern "C" type __real_##name(__VA_ARGS__); \
    extern "C" type __wrap_##name(__VA_ARGS__); \
    type __wrap_##name(__VA_ARGS__)
