#include "tests/compare/library.h"

#include <cstdio>
#include <cstdlib>

#include <dlfcn.h>

namespace compare {

const Library *library = nullptr;

Library::Library(const char *path) : path_(path), handle_(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
    if (handle_) return;
    fprintf(stderr, "compare: %s\n", dlerror());
    exit(2);
}

void *Library::find(const char *name) const {
    if (void *const found = dlsym(handle_, name)) return found;
    fprintf(stderr, "compare: %s\n", dlerror());
    abort();
}

}  // namespace compare
