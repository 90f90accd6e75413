// Calls of the modules under test that can be made to fail; for one source file of a program linked with --wrap.
#pragma once

#include <curl/curl.h>

#include <cstdarg>
#include <cstdint>
#include <string>
#include <vector>

enum class Call { None, Init, Append, Format, Copy, Grow, Resolver, CaInfo, HttpHeader };

static Call iFailing = Call::None;
static int iCallsLeft = 0;
/// Each libcurl option that was set, as "NAME=value".
static std::vector<std::string>& iOptions = *new std::vector<std::string>;

/// Lets the `nth` call of a kind fail, counted from now; only that one.
static void letFail(Call call, int nth = 1) {
    iFailing = call;
    iCallsLeft = nth;
}

static bool fails(Call call) { return call == iFailing && --iCallsLeft == 0; }

#define WRAP(type, name, ...)                                        \
    extern "C" type __real_##name(__VA_ARGS__);                      \
    extern "C" [[gnu::used]] inline type __wrap_##name(__VA_ARGS__); \
    type __wrap_##name(__VA_ARGS__)

WRAP(CURL*, curl_easy_init) { return fails(Call::Init) ? nullptr : __real_curl_easy_init(); }
WRAP(int, __res_init) { return fails(Call::Resolver) ? -1 : __real___res_init(); }
WRAP(char*, strdup, const char* text) { return fails(Call::Copy) ? nullptr : __real_strdup(text); }
// The compiler makes a malloc of a realloc that begins with nothing.
WRAP(void*, malloc, size_t size) { return fails(Call::Grow) ? nullptr : __real_malloc(size); }
WRAP(void*, realloc, void* block, size_t size) { return fails(Call::Grow) ? nullptr : __real_realloc(block, size); }
WRAP(int, vasprintf, char** text, const char* format, va_list arguments) {
    return fails(Call::Format) ? -1 : __real_vasprintf(text, format, arguments);
}
WRAP(curl_slist*, curl_slist_append, curl_slist* list, const char* line) {
    return fails(Call::Append) ? nullptr : __real_curl_slist_append(list, line);
}
WRAP(CURLcode, curl_easy_setopt, CURL* handle, unsigned number, ...) {
    va_list arguments;
    va_start(arguments, number);
    void* const value = va_arg(arguments, void*);  // a long is as wide here
    va_end(arguments);
    const auto option = static_cast<CURLoption>(number);
    const curl_easyoption* const known = curl_easy_option_by_id(option);
    std::string text = known->name;
    if (known->type == CURLOT_LONG) text += "=" + std::to_string(reinterpret_cast<intptr_t>(value));
    if (known->type == CURLOT_STRING || option == CURLOPT_POSTFIELDS)
        text += "=" + std::string(static_cast<char*>(value));
    for (auto* line = static_cast<curl_slist*>(option == CURLOPT_HTTPHEADER ? value : nullptr); line;
         line = line->next) {
        text += "|" + std::string(line->data);
    }
    iOptions.push_back(text);
    const bool refused =
        (option == CURLOPT_CAINFO && fails(Call::CaInfo)) || (option == CURLOPT_HTTPHEADER && fails(Call::HttpHeader));
    return refused ? CURLE_OUT_OF_MEMORY : __real_curl_easy_setopt(handle, number, value);
}
