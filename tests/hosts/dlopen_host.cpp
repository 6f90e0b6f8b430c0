// dlopen_host LIBRARY INIT_PYTHON CODE: a host that loads the framework's library at run time and keeps its
// symbols to itself, starts the interpreter through the function of that name, and runs some Python code. 0
// where it ran.
#include <dlfcn.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

template <class Function>
Function* Found(void* library, const char* name) {
    void* const address = dlsym(library, name);
    if (address == nullptr) std::fprintf(stderr, "%s\n", dlerror());
    return reinterpret_cast<Function*>(address);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) return 2;
    void* const library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) return std::fprintf(stderr, "%s\n", dlerror()), 2;
    const auto init = Found<void(const std::vector<std::string>&)>(library, argv[2]);
    const auto lock = Found<int()>(library, "PyGILState_Ensure");
    const auto run = Found<int(const char*, void*)>(library, "PyRun_SimpleStringFlags");
    if (init == nullptr || lock == nullptr || run == nullptr) return 2;
    init({});
    lock();
    return run(argv[3], nullptr) == 0 ? 0 : 1;
}
