// The selectors every rows verb takes, parsed once into one value.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "cli/TeskRegex.h"
#include "report/TeskBucket.h"
#include "report/TeskCursor.h"
#include "report/TeskEmitter.h"
#include "report/TeskRow.h"

namespace TeskCLI {

// The one error option parsing raises; its message is printed after "tesk: ".
struct OptionError : std::runtime_error {
  explicit OptionError(const std::string& message) : std::runtime_error(message) {}
  std::string message() const { return what(); }
};

struct Options {
  std::optional<std::string> text;         // positional words joined by one blank
  std::vector<std::string> sources{"im"};  // --src
  std::optional<std::string> who;          // --who
  std::optional<double> since;             // --since, or the default window
  std::optional<double> until;             // --until
  std::optional<TeskRow::Direction> direction;
  std::optional<TeskRegex> grep;
  int64_t limit = 50;  // 0 means no limit
  TeskFormat format = TeskFormat::automatic;
  std::vector<std::string> asserts;
  bool includeTapbacks = false;
  bool noGroups = false;
  bool includeFiltered = false;
  bool unreadOnly = false;
  std::optional<std::string> dbPath;
  int64_t budget = 30000;
  bool appliedDefaultWindow = false;
  std::optional<TeskBucket::Kind> by;
  // --cursor: continue an answer after this row (the `next` of a capped answer).
  std::optional<TeskCursor> cursor;
  // The selectors given, each once, in order of first appearance (an alias under the
  // name it stands for): what the answer must honour or say it did not.
  std::vector<std::string> given;

  // Parses the arguments after the verb; throws OptionError at the first bad one.
  // `zone` is the local zone for dates without a designator ("" = process zone).
  static Options parse(const std::vector<std::string>& args, const std::string& verb, double now,
                       const std::string& zone = {});
};

// True when the text, trimmed and lower-cased, is "me".
bool isSelfQuery(const std::optional<std::string>& text);

}  // namespace TeskCLI
