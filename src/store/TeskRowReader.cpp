#include "store/TeskRowReader.h"

#include <sqlite3.h>

int64_t TeskRowReader::integer(int i) const { return sqlite3_column_int64(stmt_, i); }

double TeskRowReader::real(int i) const { return sqlite3_column_double(stmt_, i); }

std::optional<std::string_view> TeskRowReader::textView(int i) const {
  // Text first, then its length: that order keeps the pointer valid. NULL reads as a
  // null pointer, so no type is asked for (a third call per column of every row).
  const unsigned char* p = sqlite3_column_text(stmt_, i);
  if (p == nullptr) return std::nullopt;
  return std::string_view(reinterpret_cast<const char*>(p),
                          static_cast<size_t>(sqlite3_column_bytes(stmt_, i)));
}

std::optional<std::string> TeskRowReader::text(int i) const {
  std::optional<std::string_view> v = textView(i);
  if (!v) return std::nullopt;
  return std::string(*v);
}

std::optional<std::span<const uint8_t>> TeskRowReader::blobView(int i) const {
  const void* p = sqlite3_column_blob(stmt_, i);  // null for NULL, as for an empty blob
  int n = sqlite3_column_bytes(stmt_, i);
  if (p == nullptr || n <= 0) return std::nullopt;
  return std::span<const uint8_t>(static_cast<const uint8_t*>(p), static_cast<size_t>(n));
}

std::optional<std::vector<uint8_t>> TeskRowReader::blob(int i) const {
  std::optional<std::span<const uint8_t>> v = blobView(i);
  if (!v) return std::nullopt;
  return std::vector<uint8_t>(v->begin(), v->end());
}

bool TeskRowReader::isNull(int i) const { return sqlite3_column_type(stmt_, i) == SQLITE_NULL; }

bool TeskRowReader::isNumber(int i) const {
  const int type = sqlite3_column_type(stmt_, i);
  return type == SQLITE_INTEGER || type == SQLITE_FLOAT;
}

int TeskRowReader::columnCount() const { return sqlite3_column_count(stmt_); }

std::string TeskRowReader::columnName(int i) const {
  const char* name = sqlite3_column_name(stmt_, i);
  return name != nullptr ? name : "";
}

std::optional<std::string> TeskRowReader::display(int i) const {
  switch (sqlite3_column_type(stmt_, i)) {
    case SQLITE_NULL:
      return std::nullopt;
    case SQLITE_BLOB:
      return "<blob " + std::to_string(sqlite3_column_bytes(stmt_, i)) + "B>";
    default:
      return text(i);
  }
}
