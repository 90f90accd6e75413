// Calls of the modules under test that can be made to fail; for one source file of a program linked with --wrap.
#pragma once

#include <curl/curl.h>

#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <string>

static const char* iFailing = "";
static int iCallsLeft = 0;
/// Each libcurl option that was set, as "NAME" or "NAME=value", each followed by a blank.
static std::string& iOptions = *new std::string;

/// Lets calls of a function, or settings of a libcurl option, fail from the `nth` one on, counted from now; "" for
/// none.
static void letFail(const char* call, int nth = 1) {
    iFailing = call;
    iCallsLeft = nth - 1;
}

static bool fails(const char* call) { return strcmp(call, iFailing) == 0 && --iCallsLeft < 0; }

#define WRAP(type, name, ...)                                        \
    extern "C" type __real_##name(__VA_ARGS__);                      \
    extern "C" [[gnu::used]] inline type __wrap_##name(__VA_ARGS__); \
    type __wrap_##name(__VA_ARGS__)

WRAP(CURL*, curl_easy_init) { return fails("init") ? nullptr : __real_curl_easy_init(); }
WRAP(int, __res_init) { return fails("res_init") ? -1 : __real___res_init(); }
// The compiler makes a malloc of a realloc that begins with nothing.
WRAP(void*, malloc, size_t size) { return fails("realloc") ? nullptr : __real_malloc(size); }
WRAP(void*, realloc, void* block, size_t size) { return fails("realloc") ? nullptr : __real_realloc(block, size); }
WRAP(int, vasprintf, char** text, const char* format, va_list arguments) {
    return fails("vasprintf") ? -1 : __real_vasprintf(text, format, arguments);
}
// What a release calls in its place.
WRAP(int, __vasprintf_chk, char** text, int flag, const char* format, va_list arguments) {
    return fails("vasprintf") ? -1 : __real___vasprintf_chk(text, flag, format, arguments);
}
WRAP(CURLcode, curl_easy_setopt, CURL* handle, unsigned number, ...) {
    va_list arguments;
    va_start(arguments, number);
    void* const value = va_arg(arguments, void*);  // a long is as wide here
    va_end(arguments);
    const curl_easyoption* const option = curl_easy_option_by_id(static_cast<CURLoption>(number));
    iOptions += option->name;
    if (option->type == CURLOT_LONG) iOptions += "=" + std::to_string(reinterpret_cast<intptr_t>(value));
    if (option->type == CURLOT_STRING) iOptions += "=" + std::string(static_cast<char*>(value));
    iOptions += " ";
    return fails(option->name) ? CURLE_OUT_OF_MEMORY : __real_curl_easy_setopt(handle, number, value);
}
