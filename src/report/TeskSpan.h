// A closed span of instants (unix seconds): a time window or a store's horizon.
#pragma once

struct TeskSpan {
  double from = 0;
  double to = 0;
  bool operator==(const TeskSpan&) const = default;
};
