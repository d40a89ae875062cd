#include "sources/messages/TeskKeyedArchive.h"

namespace TeskKeyedArchive {

const std::string& Value::className() const {
  static const std::string empty;
  return classes.empty() ? empty : classes.front();
}

const Value* Value::field(std::string_view key) const {
  for (const auto& [name, value] : fields) {
    if (name == key) return &value;
  }
  return nullptr;
}

const Value* Value::entry(std::string_view key) const {
  for (const auto& [k, value] : entries) {
    if (k.type == Type::string && k.string == key) return &value;
  }
  return nullptr;
}

std::optional<Value> decode(Bytes) { return std::nullopt; }
std::optional<std::string> attributedString(Bytes) { return std::nullopt; }
std::optional<std::string> string(Bytes) { return std::nullopt; }
std::optional<std::string> errorChain(Bytes) { return std::nullopt; }

}  // namespace TeskKeyedArchive
