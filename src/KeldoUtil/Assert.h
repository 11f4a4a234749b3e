#pragma once
// Configuration and programming errors stop the host process. The check stays
// in every build type (NDEBUG does not remove it) and reports through glibc's
// own assertion path, so the message is the familiar
//   <file>:<line>: <function>: Assertion `<expression>' failed.
// The expression text is part of the library's contract: write it exactly as
// documented, spaces included.
#include <assert.h>

// With NDEBUG glibc's header leaves the reporting function undeclared; the
// declaration below is glibc's own, so it agrees with the header's when both
// are seen.
#ifndef _ASSERT_H_DECLS
extern "C" void __assert_fail(const char* __assertion, const char* __file, unsigned int __line,
                              const char* __function) noexcept __attribute__((__noreturn__));
#endif

#define KELDO_ASSERT(expr) \
  ((expr) ? static_cast<void>(0) : __assert_fail(#expr, __FILE__, __LINE__, __PRETTY_FUNCTION__))
