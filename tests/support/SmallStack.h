#pragma once
// Runs `body` on a thread whose stack is `bytes` long, as a host may run its
// plug-in thread, and waits for it. Assertions inside count as usual; a
// recursion that the stack cannot hold crashes the test.
#include <pthread.h>

#include <cstddef>
#include <functional>

#include <gtest/gtest.h>

inline void onStackOf(size_t bytes, const std::function<void()>& body) {
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setstacksize(&attr, bytes);
  pthread_t thread;
  auto run = [](void* call) -> void* {
    (*static_cast<const std::function<void()>*>(call))();
    return nullptr;
  };
  if (pthread_create(&thread, &attr, run, const_cast<std::function<void()>*>(&body)) == 0) {
    pthread_join(thread, nullptr);
  } else {
    ADD_FAILURE() << "no thread with a stack of " << bytes << " bytes";
  }
  pthread_attr_destroy(&attr);
}
