#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

// Uses the library's tables after every static object of the library is destroyed: its exit handler
// was registered first, so it runs last. Other threads of a program that ends may do the same.

namespace {

typedef bool (*tables_are_intact_t)();
tables_are_intact_t tables_are_intact = nullptr;

void use_tables_last()
{
    std::_Exit(tables_are_intact() ? EXIT_SUCCESS : EXIT_FAILURE);
}

}  // namespace

/// @return  failure, which the exit handler overrules
int main(int, char** argv)
{
    std::atexit(use_tables_last);
    void* const client = dlopen(argv[1], RTLD_NOW);
    if (client == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        std::_Exit(EXIT_FAILURE);
    }
    tables_are_intact = reinterpret_cast<tables_are_intact_t>(dlsym(client, "tables_are_intact"));
    return EXIT_FAILURE;
}
