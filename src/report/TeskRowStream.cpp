#include "report/TeskRowStream.h"

#include <algorithm>

std::vector<TeskRow> drainOldestFirst(TeskRowStream& stream) {
  std::vector<TeskRow> rows;
  while (const TeskRow* row = stream.next()) rows.push_back(*row);
  std::reverse(rows.begin(), rows.end());
  return rows;
}

TeskRowList::TeskRowList(std::vector<TeskRow>&& rows) : owned_(std::move(rows)) {
  if (!std::is_sorted(owned_.begin(), owned_.end(), TeskRow::answerOrder)) {
    std::stable_sort(owned_.begin(), owned_.end(), TeskRow::answerOrder);
  }
  rows_ = owned_;
  left_ = owned_.size();
}

const TeskRow* TeskInstantOrder::next() {
  if (size_ > 0) --size_;  // the row handed out last
  if (size_ > 0) return slots_[size_ - 1].get();
  if (slots_.empty()) slots_.push_back(std::make_unique<TeskRow>());
  if (ahead_) {
    std::swap(slots_[0], slots_[*ahead_]);
    ahead_.reset();
  } else if (!pull_(*slots_[0])) {
    return nullptr;
  }
  for (size_ = 1;; ++size_) {
    if (slots_.size() == size_) slots_.push_back(std::make_unique<TeskRow>());
    if (!pull_(*slots_[size_])) break;
    if (slots_[size_]->ts != slots_[0]->ts) {
      ahead_ = size_;
      break;
    }
  }
  if (size_ > 1) {
    std::sort(slots_.begin(), slots_.begin() + static_cast<std::ptrdiff_t>(size_),
              [](const auto& a, const auto& b) { return TeskRow::answerOrder(*a, *b); });
  }
  return slots_[size_ - 1].get();
}

const TeskRow* TeskRowMerge::next() {
  if (taken_) taken_->head = taken_->stream->next();
  taken_ = nullptr;
  // A handful of sources: a linear look at each head beats a heap.
  for (Input& in : inputs_) {
    if (!in.started) {
      in.head = in.stream->next();
      in.started = true;
    }
    if (in.head && (!taken_ || !TeskRow::answerOrder(*in.head, *taken_->head))) taken_ = &in;
  }
  return taken_ ? taken_->head : nullptr;
}
