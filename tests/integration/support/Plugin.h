#pragma once
// Loads the plug-in the way the host daemon does (dlopen) and resolves its
// entry points by name. The plug-in has no shutdown entry, so it is never
// unloaded: timers and handles may point into it until the process ends.
#include <string>

class Plugin {
 public:
  explicit Plugin(const std::string& path);
  Plugin(const Plugin&) = delete;
  Plugin& operator=(const Plugin&) = delete;

  // The address of an exported symbol; throws std::runtime_error when absent.
  void* address(const char* name) const;
  template <typename F>
  F sym(const char* name) const {
    return reinterpret_cast<F>(address(name));
  }

 private:
  void* handle_;
};
