// A library to be loaded into objprobe before it starts: prints the interfaces that have registered
// themselves before main, in place of main.

#include <dlfcn.h>

#include <cstdint>
#include <cstdio>

#include "enterprise/common/ipc/component_info.h"

namespace {

int PrintComponents(int, char**, char**) {
  for (std::uint32_t id = 1; id <= 1000; ++id) {
    Core::ComponentInfo* const component = Core::FindComponent(id);
    if (component != nullptr) std::printf("%u %u\n", id, component->GetVersion());
  }
  return 0;
}

}  // namespace

// In place of that of the C library, which runs the static constructors and then main.
extern "C" int __libc_start_main(int (*)(int, char**, char**), int argc, char** argv,
                                 void (*init)(), void (*fini)(), void (*rtld_fini)(),
                                 void* stack_end) {
  const auto start =
      reinterpret_cast<decltype(&__libc_start_main)>(::dlsym(RTLD_NEXT, "__libc_start_main"));
  return start(&PrintComponents, argc, argv, init, fini, rtld_fini, stack_end);
}
