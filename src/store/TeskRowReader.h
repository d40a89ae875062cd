// Column access to the current row of a statement, handed to a query callback.
// A reader (and every view it returns) is valid only during that callback.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

struct sqlite3_stmt;

class TeskRowReader {
 public:
  // A reader on `stmt`, which the runner has stepped onto a row.
  explicit TeskRowReader(sqlite3_stmt* stmt) : stmt_(stmt) {}

  // Column `i` (0-based) as a 64-bit integer; NULL reads as 0, a REAL is truncated.
  int64_t integer(int i) const;
  // Column `i` as a double; NULL reads as 0.
  double real(int i) const;
  // Column `i` as UTF-8 text (an integer reads as its decimal text); absent for NULL.
  std::optional<std::string> text(int i) const;
  // The same without a copy; the view dies with the callback (or the next access
  // to this column in another type).
  std::optional<std::string_view> textView(int i) const;
  // Column `i` as a copy of its bytes; absent for NULL or a zero-length blob.
  std::optional<std::vector<uint8_t>> blob(int i) const;
  // The same without a copy, valid during the callback.
  std::optional<std::span<const uint8_t>> blobView(int i) const;
  // True iff column `i` is SQL NULL.
  bool isNull(int i) const;
  // True iff column `i` holds an INTEGER or a REAL (a text or blob in a date column
  // is no instant, whatever integer() would make of it).
  bool isNumber(int i) const;
  // The number of result columns.
  int columnCount() const;
  // The name of result column `i` (its AS alias when it has one).
  std::string columnName(int i) const;
  // Any column for printing: absent for NULL, "<blob NB>" for a blob of N bytes,
  // else the column's text form.
  std::optional<std::string> display(int i) const;

 private:
  sqlite3_stmt* stmt_;
};

// A non-owning reference to the row callback of a query: no allocation per call.
// It only refers to the callable, so pass the lambda straight to `query`; never
// keep a TeskRowCallback made from a temporary past that statement.
class TeskRowCallback {
 public:
  template <class F>
  requires(!std::is_same_v<std::remove_cvref_t<F>, TeskRowCallback> &&
           std::is_invocable_v<F&, const TeskRowReader&>)
      TeskRowCallback(F&& f)  // NOLINT: implicit on purpose, lambdas convert at the call
      : object_(const_cast<void*>(static_cast<const void*>(std::addressof(f)))),
        call_([](void* object, const TeskRowReader& row) {
          (*static_cast<std::remove_reference_t<F>*>(object))(row);
        }) {}

  // Calls the referenced callable with `row`; its exceptions pass through.
  void operator()(const TeskRowReader& row) const { call_(object_, row); }

 private:
  void* object_;
  void (*call_)(void*, const TeskRowReader&);
};
