// A value bound to one `?` parameter of a statement: an integer, a double, text
// or NULL. Converts implicitly from the C++ types so binds read naturally:
//   store.query(sql, {int64_t{lo}, hi, "text", nullptr}, row);
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

class TeskValue {
 public:
  enum class Type { integer, real, text, null };

  // NULL.
  TeskValue() = default;
  TeskValue(std::nullptr_t) {}
  // Any integer type (bool included) binds as a 64-bit integer.
  template <std::integral T>
  TeskValue(T v) : v_(static_cast<int64_t>(v)) {}
  // Any floating type binds as a double.
  template <std::floating_point T>
  TeskValue(T v) : v_(static_cast<double>(v)) {}
  // Text binds as UTF-8, copied by SQLite at bind time.
  TeskValue(std::string v) : v_(std::move(v)) {}
  TeskValue(std::string_view v) : v_(std::string(v)) {}
  TeskValue(const char* v) : v_(std::string(v)) {}

  static TeskValue null() { return TeskValue(); }

  Type type() const { return static_cast<Type>(v_.index()); }
  // The payloads; each valid only for its own type (checked by std::get).
  int64_t integer() const { return std::get<int64_t>(v_); }
  double real() const { return std::get<double>(v_); }
  const std::string& text() const { return std::get<std::string>(v_); }

  bool operator==(const TeskValue&) const = default;

 private:
  // Order matches Type.
  std::variant<int64_t, double, std::string, std::monostate> v_{std::monostate{}};
};
