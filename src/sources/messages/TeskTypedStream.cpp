#include "sources/messages/TeskTypedStream.h"

namespace TeskTypedStream {

std::optional<RootString> rootString(Bytes) { return std::nullopt; }

std::optional<std::string> rootClassName(Bytes) { return std::nullopt; }

}  // namespace TeskTypedStream
