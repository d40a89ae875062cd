// Newline-delimited JSON-RPC on a byte stream: cutting input into message lines with a
// hard cap on their length, and writing responses as single lines.
#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

#include "report/TeskJSON.h"

namespace TeskMCPFraming {

// Longest message line kept (bytes, without the line feed). A longer line is dropped
// as it arrives and answered with an error, so input never buffers without bound.
inline constexpr size_t kMaxLine = 1 << 20;

struct Line {
  std::string text;      // the line without its "\n" (and without a "\r" before it)
  bool tooLong = false;  // the line passed kMaxLine; `text` is empty
};

// Collects bytes as they are read and hands back whole lines.
class LineReader {
 public:
  explicit LineReader(size_t maxLine = kMaxLine) : maxLine_(maxLine) {}
  void feed(std::string_view bytes);
  // The next complete line, or nothing until more bytes (or the end) arrive.
  std::optional<Line> next();
  // After the end of input: the unterminated rest, when there is one.
  std::optional<Line> finish();

 private:
  void endLine();

  std::deque<Line> ready_;  // whole lines of the bytes fed so far, in order
  std::string partial_;     // the unterminated tail (empty while dropping)
  bool dropping_ = false;   // the tail passed the cap; its bytes are discarded
  size_t maxLine_;
};

// JSON-RPC error codes.
enum Code : int {
  parseError = -32700,
  invalidRequest = -32600,
  methodNotFound = -32601,
  invalidParams = -32602,
  internalError = -32603,
};

// `id` is the request's id already written as JSON ("null" when it is unknown).
std::string result(std::string_view id, const TeskJSON::Value& result);
std::string error(std::string_view id, int code, std::string_view message);

}  // namespace TeskMCPFraming
