#include "tests/src/failing_calls.h"

#include <curl/curl.h>

#include <cstdarg>
#include <cstdint>
#include <utility>

static Call iFailing = Call::None;
static int iCallsLeft = 0;

static std::vector<std::string>& options() {
    static std::vector<std::string> list;
    return list;
}

void letFail(Call call, int nth) {
    iFailing = call;
    iCallsLeft = nth;
}

std::vector<std::string> takeOptions() { return std::exchange(options(), {}); }

static bool fails(Call call) { return call == iFailing && --iCallsLeft == 0; }

extern "C" {
#define WRAP(type, name, ...)               \
    extern type __real_##name(__VA_ARGS__); \
    type __wrap_##name(__VA_ARGS__);        \
    type __wrap_##name(__VA_ARGS__)

WRAP(CURL*, curl_easy_init) { return fails(Call::Init) ? nullptr : __real_curl_easy_init(); }
WRAP(int, __res_init) { return fails(Call::Resolver) ? -1 : __real___res_init(); }
WRAP(char*, strdup, const char* text) { return fails(Call::Copy) ? nullptr : __real_strdup(text); }
WRAP(void*, realloc, void* block, size_t size) { return fails(Call::Grow) ? nullptr : __real_realloc(block, size); }
WRAP(int, vasprintf, char** text, const char* format, va_list arguments) {
    return fails(Call::Format) ? -1 : __real_vasprintf(text, format, arguments);
}
WRAP(curl_slist*, curl_slist_append, curl_slist* list, const char* line) {
    return fails(Call::Append) ? nullptr : __real_curl_slist_append(list, line);
}

extern CURLcode __real_curl_easy_setopt(CURL*, CURLoption, ...);
CURLcode __wrap_curl_easy_setopt(CURL*, CURLoption, ...);
CURLcode __wrap_curl_easy_setopt(CURL* handle, CURLoption option, ...) {
    va_list arguments;
    va_start(arguments, option);
    const uintptr_t value = va_arg(arguments, uintptr_t);  // a long or a pointer: one size here
    va_end(arguments);
    const curl_easytype type = curl_easy_option_by_id(option)->type;
    std::string text = curl_easy_option_by_id(option)->name;
    if (type == CURLOT_LONG) text += "=" + std::to_string(value);
    if (type == CURLOT_STRING || type == CURLOT_OBJECT) text += std::string("=") + reinterpret_cast<const char*>(value);
    for (auto* line = reinterpret_cast<const curl_slist*>(type == CURLOT_SLIST ? value : 0); line; line = line->next) {
        text += std::string("|") + line->data;
    }
    options().push_back(text);
    if (option == CURLOPT_CAINFO && fails(Call::CaInfo)) return CURLE_OUT_OF_MEMORY;
    if (option == CURLOPT_HTTPHEADER && fails(Call::HttpHeader)) return CURLE_OUT_OF_MEMORY;
    return __real_curl_easy_setopt(handle, option, value);
}
}
