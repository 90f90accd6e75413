// One allocation of the replayed code fails on order. Compiled without sanitizers: these definitions come before the
// sanitizer's own, which they call.
#include <dlfcn.h>
#include <link.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "tests/fuzz/fuzz.h"

extern "C" {
void* __interceptor_malloc(size_t);
void* __interceptor_calloc(size_t, size_t);
void* __interceptor_realloc(void*, size_t);
char* __interceptor_strdup(const char*);
int __interceptor_vasprintf(char**, const char*, va_list);
}

Shortage iShortage;

// Whether the caller's code is in the module with this name (empty: in the program itself).
static bool liesIn(const char* name, void* caller) {
    dl_find_object module;
    if (_dl_find_object(caller, &module) != 0) return false;
    const char* const library = module.dlfo_link_map->l_name;
    return *name ? strstr(library, name) != nullptr : !*library;
}

static bool fails(void* caller) {
    if (!iShortage.module || !liesIn(iShortage.module, caller) || iShortage.left-- != 0) return false;
    iShortage.failed = true;
    errno = ENOMEM;
    return true;
}

#define FAILS fails(__builtin_return_address(0))

extern "C" {
void* malloc(size_t size) noexcept { return FAILS ? nullptr : __interceptor_malloc(size); }
void* calloc(size_t count, size_t size) noexcept { return FAILS ? nullptr : __interceptor_calloc(count, size); }
void* realloc(void* block, size_t size) noexcept { return FAILS ? nullptr : __interceptor_realloc(block, size); }
char* strdup(const char* text) noexcept { return FAILS ? nullptr : __interceptor_strdup(text); }
int vasprintf(char** text, const char* format, va_list arguments) noexcept {
    return FAILS ? -1 : __interceptor_vasprintf(text, format, arguments);
}
}
