#include "Plugin.h"

#include <dlfcn.h>

#include <stdexcept>

Plugin::Plugin(const std::string& path) : handle_(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
  if (handle_ == nullptr) {
    throw std::runtime_error(std::string("dlopen failed: ") + dlerror());
  }
}

void* Plugin::address(const char* name) const {
  void* p = dlsym(handle_, name);
  if (p == nullptr) {
    throw std::runtime_error(std::string("missing symbol ") + name);
  }
  return p;
}
