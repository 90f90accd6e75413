// Compiled without sanitizers: these definitions come before the sanitizer's own, which they call.
#include "tests/memory/failing_allocations.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

using namespace world;

extern "C" {
void* __interceptor_malloc(size_t);
void* __interceptor_calloc(size_t, size_t);
void* __interceptor_realloc(void*, size_t);
char* __interceptor_strdup(const char*);
int __interceptor_vasprintf(char**, const char*, va_list);
}

static FailingAllocations* iOrders;

// The name of the program itself is empty.
static unsigned ownerOf(void* caller) {
    dl_find_object module;
    if (_dl_find_object(caller, &module) != 0) return OTHER_CODE;
    const char* const library = module.dlfo_link_map->l_name;
    if (!*library) return OWN_CODE;
    if (strstr(library, "libcjson")) return CJSON_CODE;
    if (strstr(library, "libdbus")) return LIBDBUS_CODE;
    return strstr(library, "libevent") ? LIBEVENT_CODE : OTHER_CODE;
}

[[gnu::constructor]] static void shareOrders() {
    const char* const path = getenv("FAILING_ALLOCATIONS");
    const int file = path ? open(path, O_RDWR | O_CLOEXEC) : -1;
    if (file < 0) return;
    void* const page = mmap(nullptr, sizeof(FailingAllocations), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    if (page != MAP_FAILED) iOrders = static_cast<FailingAllocations*>(page);
}

static bool fails(void* caller) {
    if (!iOrders) return false;
    ++iOrders->all;
    const unsigned armed = iOrders->armed;
    if (!armed) return false;
    if (ownerOf(caller) + 1 != armed) return false;
    const unsigned number = ++iOrders->count;
    if (number < iOrders->from || number - iOrders->from >= iOrders->run) return false;
    ++iOrders->fired;
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
