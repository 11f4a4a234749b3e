#pragma once
// Every use of RapidJSON goes through this header so that its own type checks
// ("IsBool()", "IsObject()" ...) stop the process in every build type, the way
// the library's other configuration checks do.
#include <cstddef>
#include <cstdint>

#include "KeldoUtil/Assert.h"

#ifndef RAPIDJSON_ASSERT
#define RAPIDJSON_ASSERT(x) KELDO_ASSERT(x)
#endif
#ifndef RAPIDJSON_HAS_STDSTRING
#define RAPIDJSON_HAS_STDSTRING 1
#endif

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace Utils {

// Documents that the plug-in walks level by level (the topology, which
// becomes a tree of the same depth; an object rewritten as text) are refused
// beyond this nesting. Real boards nest under 20 levels.
constexpr size_t kMaxJsonNesting = 64;

// Parses NUL-terminated JSON text. The parser keeps its state on the heap,
// so text nested 100,000 levels deep costs memory, not the host thread's
// stack; what parses and the error messages are those of the default parser.
bool parseJson(rapidjson::Document& document, const char* text);

// The same, reporting a refusal at `level` as "<what>: <RapidJSON's English
// message> offset <byte>", or as "<what>: nested more than <n> levels deep"
// for a document deeper than `maxNesting`.
bool parseJson(rapidjson::Document& document, const char* text, int level, const char* what,
               size_t maxNesting = SIZE_MAX);

// How deeply arrays and objects nest in `value` (a scalar 0, [] 1, [[]] 2),
// found without recursion.
size_t nestingDepth(const rapidjson::Value& value);

}  // namespace Utils
