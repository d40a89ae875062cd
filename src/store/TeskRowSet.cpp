#include "store/TeskRowSet.h"

#include <algorithm>

bool TeskRowSet::insert(int64_t id) {
  if (id < 0 || id >= denseLimit) return sparse_.insert(id).second;
  const auto word = static_cast<size_t>(id >> 6);
  const uint64_t bit = uint64_t{1} << (id & 63);
  // Grown by doubling, so rows met in any order cost amortised constant time.
  if (word >= dense_.size()) {
    constexpr auto words = static_cast<size_t>(denseLimit >> 6);
    dense_.resize(std::min(words, std::max(word + 1, dense_.size() * 2)), 0);
  }
  if (dense_[word] & bit) return false;
  dense_[word] |= bit;
  return true;
}

bool TeskRowSet::contains(int64_t id) const {
  if (id < 0 || id >= denseLimit) return sparse_.count(id) > 0;
  const auto word = static_cast<size_t>(id >> 6);
  return word < dense_.size() && (dense_[word] & (uint64_t{1} << (id & 63))) != 0;
}

void TeskRowSet::clear() {
  dense_.clear();
  sparse_.clear();
}
