// The `sql` verb: an agent's own SELECT against one temporary view of the message
// store, `tesk_message`, whose body and kind are decoded per row on demand and
// whose rows already honour the selectors. Only reading statements run.
#pragma once

#include <string>
#include <vector>

#include "sources/messages/TeskFilter.h"

class TeskStore;

class TeskSQL {
 public:
  struct Table {
    std::vector<std::string> columns;
    std::vector<std::vector<std::string>> rows;
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
  // Cells: NULL -> "", BLOB -> "<blob NB>", else the text form. Throws TeskStoreError.
  Table run(const std::string& sql);

 private:
  TeskStore& store_;
};
