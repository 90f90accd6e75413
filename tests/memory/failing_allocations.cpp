// Compiled without sanitizers: these definitions come before the sanitizer's own, which they call.
#include "tests/memory/failing_allocations.h"

#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
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

namespace {

struct Code {
    uintptr_t begin, end;
    unsigned owner;
};

}  // namespace

static FailingAllocations* iOrders;
static Code iCode[16];
static size_t iCodeCount;

static unsigned ownerOf(const char* library) {
    if (!*library) return OWN_CODE;
    if (strstr(library, "libcjson")) return CJSON_CODE;
    if (strstr(library, "libdbus")) return LIBDBUS_CODE;
    return strstr(library, "libevent") ? LIBEVENT_CODE : OTHER_CODE;
}

static int noteModule(dl_phdr_info* module, size_t, void*) {
    const unsigned owner = ownerOf(module->dlpi_name);
    for (int i = 0; i < module->dlpi_phnum && owner != OTHER_CODE; ++i) {
        const ElfW(Phdr)& part = module->dlpi_phdr[i];
        if (part.p_type != PT_LOAD || !(part.p_flags & PF_X)) continue;
        const uintptr_t begin = module->dlpi_addr + part.p_vaddr;
        iCode[iCodeCount++] = {begin, begin + part.p_memsz, owner};
    }
    return 0;
}

[[gnu::constructor]] static void shareOrders() {
    const char* const path = getenv("FAILING_ALLOCATIONS");
    const int file = path ? open(path, O_RDWR | O_CLOEXEC) : -1;
    if (file < 0) return;
    dl_iterate_phdr(noteModule, nullptr);
    void* const page = mmap(nullptr, sizeof(FailingAllocations), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    if (page != MAP_FAILED) iOrders = static_cast<FailingAllocations*>(page);
}

static bool fails(const void* caller) {
    if (!iOrders) return false;
    ++iOrders->all;
    const unsigned armed = iOrders->armed;
    if (!armed) return false;
    const auto address = reinterpret_cast<uintptr_t>(caller);
    unsigned owner = OTHER_CODE;
    for (size_t i = 0; i < iCodeCount; ++i) {
        if (address >= iCode[i].begin && address < iCode[i].end) owner = iCode[i].owner;
    }
    if (owner + 1 != armed) return false;
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
