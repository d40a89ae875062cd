// A value bound to one `?` parameter of a statement: an integer, a double, text
// or NULL. Converts implicitly from the C++ types so binds read naturally:
//   store.query(sql, {int64_t{lo}, hi, "text", nullptr}, row);
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

class TeskValue {
 public:
  enum class Type { integer, real, text, null };

  // NULL.
  TeskValue() = default;
  TeskValue(std::nullptr_t) {}
  // Any integer type (bool included) binds as a 64-bit integer.
  template <std::integral T>
  TeskValue(T v) : type_(Type::integer), integer_(static_cast<int64_t>(v)) {}
  // Any floating type binds as a double.
  template <std::floating_point T>
  TeskValue(T v) : type_(Type::real), real_(static_cast<double>(v)) {}
  // Text binds as UTF-8, copied by SQLite at bind time.
  TeskValue(std::string v) : type_(Type::text), text_(std::move(v)) {}
  TeskValue(std::string_view v) : type_(Type::text), text_(v) {}
  TeskValue(const char* v) : type_(Type::text), text_(v) {}

  static TeskValue null() { return TeskValue(); }

  Type type() const { return type_; }
  // The payloads; each meaningful only for its own type (0, 0.0 or "" otherwise).
  int64_t integer() const { return integer_; }
  double real() const { return real_; }
  const std::string& text() const { return text_; }

  bool operator==(const TeskValue&) const = default;

 private:
  // Plain fields rather than a variant: g++ 12 at -O2 reports false
  // maybe-uninitialized errors on a variant holding a string in a braced list.
  Type type_ = Type::null;
  int64_t integer_ = 0;
  double real_ = 0;
  std::string text_;
};
