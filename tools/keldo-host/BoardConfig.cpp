#include "BoardConfig.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace {

// Far deeper than any board needs (a topology nests about a dozen levels),
// and shallow enough for the recursive walks over the parsed document
// (writing the topology and objects back to text) to stay off the stack's end.
constexpr size_t kMaxDepth = 1000;

std::string readText(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

std::string toText(const rapidjson::Value& value) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  value.Accept(writer);
  return buffer.GetString();
}

std::string directoryOf(const std::string& path) {
  auto slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

// Whether `root` nests deeper than kMaxDepth, found without recursion.
bool tooDeep(const rapidjson::Value& root) {
  std::vector<std::pair<const rapidjson::Value*, size_t>> pending{{&root, 1}};
  while (!pending.empty()) {
    auto [value, depth] = pending.back();
    pending.pop_back();
    if (depth > kMaxDepth) return true;
    if (value->IsArray()) {
      for (const auto& v : value->GetArray()) pending.emplace_back(&v, depth + 1);
    } else if (value->IsObject()) {
      for (const auto& m : value->GetObject()) pending.emplace_back(&m.value, depth + 1);
    }
  }
  return false;
}

HostObject readObject(const rapidjson::Value& v, const std::string& where) {
  if (!v.IsObject() || !v.HasMember("kind") || !v["kind"].IsString()) {
    throw std::runtime_error(where + ": every object needs a string \"kind\"");
  }
  HostObject o;
  o.kind = v["kind"].GetString();
  o.name = v.HasMember("name") && v["name"].IsString() ? v["name"].GetString() : o.kind;
  if (v.HasMember("bus") && v["bus"].IsString()) {
    o.json = v["bus"].GetString();
  } else if (v.HasMember("object")) {
    o.json = toText(v["object"]);
  } else {
    throw std::runtime_error(where + ": object \"" + o.name + "\" needs \"object\" or \"bus\"");
  }
  if (v.HasMember("address") && v["address"].IsUint()) o.address = v["address"].GetUint();
  if (v.HasMember("alert") && v["alert"].IsNumber()) o.alert = v["alert"].GetFloat();
  if (v.HasMember("critical") && v["critical"].IsNumber()) o.critical = v["critical"].GetFloat();
  if (v.HasMember("command") && v["command"].IsInt()) o.command = v["command"].GetInt();
  return o;
}

}  // namespace

BoardConfig loadBoardConfig(const std::string& path) {
  rapidjson::Document doc;
  std::string text = readText(path);
  // The iterative parser keeps its state on the heap, so no nesting in the
  // file can overflow the host's stack while it is read.
  doc.Parse<rapidjson::kParseIterativeFlag>(text.c_str());
  if (doc.HasParseError()) {
    throw std::runtime_error(path + ": " + rapidjson::GetParseError_En(doc.GetParseError()) + " at offset " +
                             std::to_string(doc.GetErrorOffset()));
  }
  if (tooDeep(doc)) {
    throw std::runtime_error(path + ": nested deeper than " + std::to_string(kMaxDepth) + " levels");
  }
  if (!doc.IsObject() || !doc.HasMember("topology")) {
    throw std::runtime_error(path + ": expected an object with \"topology\"");
  }
  BoardConfig board;
  board.name = doc.HasMember("name") && doc["name"].IsString() ? doc["name"].GetString() : path;
  const rapidjson::Value& topology = doc["topology"];
  // The topology is given inline or as a file next to the board file; either
  // way the plug-in receives the text.
  board.topology = topology.IsString() ? readText(directoryOf(path) + "/" + topology.GetString()) : toText(topology);
  if (doc.HasMember("objects")) {
    if (!doc["objects"].IsArray()) throw std::runtime_error(path + ": \"objects\" must be an array");
    for (const auto& v : doc["objects"].GetArray()) board.objects.push_back(readObject(v, path));
  }
  return board;
}
