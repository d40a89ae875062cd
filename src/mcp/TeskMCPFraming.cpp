#include "mcp/TeskMCPFraming.h"

namespace TeskMCPFraming {

void LineReader::endLine() {
  Line line;
  if (dropping_) {
    line.tooLong = true;
  } else {
    if (!partial_.empty() && partial_.back() == '\r') partial_.pop_back();
    line.text = std::move(partial_);
  }
  ready_.push_back(std::move(line));
  partial_.clear();
  dropping_ = false;
}

void LineReader::feed(std::string_view bytes) {
  while (!bytes.empty()) {
    size_t newline = bytes.find('\n');
    std::string_view piece = bytes.substr(0, newline);
    if (!dropping_) {
      if (piece.size() > maxLine_ - partial_.size()) {
        dropping_ = true;
        partial_.clear();
        partial_.shrink_to_fit();
      } else {
        partial_.append(piece);
      }
    }
    if (newline == std::string_view::npos) return;
    endLine();
    bytes.remove_prefix(newline + 1);
  }
}

std::optional<Line> LineReader::next() {
  if (ready_.empty()) return std::nullopt;
  Line line = std::move(ready_.front());
  ready_.pop_front();
  return line;
}

std::optional<Line> LineReader::finish() {
  if (auto line = next()) return line;
  if (!dropping_ && partial_.empty()) return std::nullopt;
  endLine();
  return next();
}

std::string result(std::string_view id, const TeskJSON::Value& result) {
  // compact() fails only on a non-finite number, which no answer holds.
  std::string body = TeskJSON::compact(result).value_or("null");
  std::string out = "{\"id\":";
  out.append(id);
  out += ",\"jsonrpc\":\"2.0\",\"result\":";
  out += body;
  out += '}';
  return out;
}

std::string error(std::string_view id, int code, std::string_view message) {
  std::string out = "{\"error\":{\"code\":" + std::to_string(code) + ",\"message\":";
  TeskJSON::appendString(out, message);
  out += "},\"id\":";
  out.append(id);
  out += ",\"jsonrpc\":\"2.0\"}";
  return out;
}

}  // namespace TeskMCPFraming
