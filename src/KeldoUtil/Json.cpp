#include "KeldoUtil/Json.h"

#include <sys/types.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "keldo/pl_host.h"

namespace Utils {

bool parseJson(rapidjson::Document& document, const char* text) {
  document.Parse<rapidjson::kParseIterativeFlag>(text);
  return !document.HasParseError();
}

bool parseJson(rapidjson::Document& document, const char* text, int level, const char* what, size_t maxNesting) {
  if (!parseJson(document, text)) {
    pl_trace(level, "%s: %s offset %zd", what, rapidjson::GetParseError_En(document.GetParseError()),
             static_cast<ssize_t>(document.GetErrorOffset()));
    return false;
  }
  if (nestingDepth(document) > maxNesting) {
    pl_trace(level, "%s: nested more than %zu levels deep", what, maxNesting);
    return false;
  }
  return true;
}

size_t nestingDepth(const rapidjson::Value& value) {
  // The containers from `value` down to the current one, each with the
  // index of its next child.
  struct Open {
    const rapidjson::Value* container;
    rapidjson::SizeType next;
  };
  std::vector<Open> path;
  size_t deepest = 0;
  auto enter = [&](const rapidjson::Value& v) {
    if (v.IsArray() || v.IsObject()) {
      path.push_back({&v, 0});
      deepest = std::max(deepest, path.size());
    }
  };
  enter(value);
  while (!path.empty()) {
    const rapidjson::Value& container = *path.back().container;
    const rapidjson::SizeType index = path.back().next++;
    if (container.IsArray() ? index == container.Size() : index == container.MemberCount()) {
      path.pop_back();
    } else {
      enter(container.IsArray() ? container[index] : (container.MemberBegin() + index)->value);
    }
  }
  return deepest;
}

}  // namespace Utils
