#include "Platform/SharedLibrary.h"

#include <dlfcn.h>

namespace vantle {

std::expected<SharedLibrary, std::string> SharedLibrary::open(const char* soname) {
    // Never closed: the functions bound from it are kept in tables that live as long as the program.
    void* handle = ::dlopen(soname, RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char* why = ::dlerror();
        return std::unexpected(std::string(why ? why : soname));
    }
    return SharedLibrary(handle);
}

void* SharedLibrary::symbol(const char* name) const {
    return ::dlsym(handle_, name);
}

} // namespace vantle
