// A host that knows the library by file and symbol name only: dlopen_host LIBRARY
#include <dlfcn.h>

#include <cstdio>

namespace {

template <typename Function>
Function* find(void* library, const char* symbol) {
    void* const found = dlsym(library, symbol);
    if (found == nullptr) std::fprintf(stderr, "dlopen_host: %s\n", dlerror());
    return reinterpret_cast<Function*>(found);
}

int useLog(void* library, bool isNew) {
    auto* const insert = find<int(const char*, int)>(library, "insert_modules_list");
    auto* const level = find<int(const char*)>(library, "zenk_log_getLevel");
    if (insert == nullptr || level == nullptr) return 1;
    const bool isAsExpected = level("HOST") == (isNew ? 1 : 2);
    insert("HOST", 1);
    return isAsExpected && level("HOST") == 2 ? 0 : 1;
}

int useClasses(void* library) {
    auto* const getInstance = find<void*()>(library, "_ZN15MediaSyncServer11getInstanceEv");
    auto* const instance = find<void*>(library, "_ZN15MediaSyncServer10m_instanceE");
    if (getInstance == nullptr || instance == nullptr) return 1;
    return getInstance() == *instance && *instance != nullptr ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    void* library = argc == 2 ? dlopen(argv[1], RTLD_NOW | RTLD_LOCAL) : nullptr;
    if (library == nullptr) {
        std::fprintf(stderr, "dlopen_host: %s\n", argc == 2 ? dlerror() : "usage: dlopen_host LIBRARY");
        return 1;
    }
    if (useLog(library, true) != 0 || useClasses(library) != 0) return 1;

    // Threads of the library may run still: it stays, with what it knows.
    dlclose(library);
    library = dlopen(argv[1], RTLD_NOW | RTLD_NOLOAD);
    if (library == nullptr) {
        std::fputs("dlopen_host: the library was unloaded\n", stderr);
        return 1;
    }
    return useLog(library, false);
}
