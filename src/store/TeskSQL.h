// The `sql` verb: an agent's own SELECT against one temporary view of the message
// store, `tesk_message`, whose body and kind are decoded per row on demand and
// whose rows already honour the selectors. Only reading statements run.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "sources/messages/TeskFilter.h"

class TeskStore;

class TeskSQL {
 public:
  struct Table {
    std::vector<std::string> columns;
    std::vector<std::vector<std::string>> rows;  // the first `keep` of them
    int64_t total = 0;                           // every row the statement gave
  };

  // The view's documentation, as `views` prints it.
  static const std::string& schema();
  // The column names read back out of `schema()`.
  static std::vector<std::string> documentedColumns();
  // The refusal of any statement that could write.
  static const std::string& refusal();

  // Creates temp.tesk_message for `filter` on the store's connection; throws
  // TeskStoreError when the view cannot be made.
  TeskSQL(TeskStore& store, const TeskIMessage::Filter& filter);
  TeskSQL(const TeskSQL&) = delete;  // bound to one connection's view
  TeskSQL& operator=(const TeskSQL&) = delete;

  // Runs one SELECT/WITH statement; refuses anything SQLite says could write.
  // Cells: NULL -> "", BLOB -> "<blob NB>", else the text form. Rows past the first
  // `keep` (0: none past) are counted, not kept: an answer that prints 50 rows of a
  // million holds 50. Throws TeskStoreError.
  Table run(const std::string& sql, int64_t keep = 0);
  // The same, handing each of the first `keep` rows' cells to `row` as they come
  // instead of keeping them; the Table it returns holds no rows.
  Table run(const std::string& sql, int64_t keep,
            const std::function<void(std::vector<std::string>&)>& row);

 private:
  TeskStore& store_;
};
