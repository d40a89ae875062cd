// A set of row ids that stays small for the ids a store really holds: a bitmap over
// the dense low range (125 KB per million ids) and a hash set for whatever lies beyond
// it, so a hostile id near 2^63 costs one entry, not a bitmap up to it.
#pragma once

#include <cstdint>
#include <unordered_set>
#include <vector>

class TeskRowSet {
 public:
  // Ids below this share the bitmap (8 MB at most); the rest go to the hash set.
  static constexpr int64_t denseLimit = int64_t{1} << 26;

  // Adds `id`; true when it was not there before.
  bool insert(int64_t id);
  // True when `id` was added.
  bool contains(int64_t id) const;
  // Forgets every id.
  void clear();

 private:
  std::vector<uint64_t> dense_;
  std::unordered_set<int64_t> sparse_;
};
