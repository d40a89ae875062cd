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
  if (!instant_.empty()) instant_.pop_back();
  if (!instant_.empty()) return &instant_.back();
  if (ahead_) {
    instant_.push_back(std::move(*ahead_));
    ahead_.reset();
  } else if (TeskRow row; pull_(row)) {
    instant_.push_back(std::move(row));
  } else {
    return nullptr;
  }
  for (TeskRow row; pull_(row);) {
    if (row.ts != instant_.front().ts) {
      ahead_ = std::move(row);
      break;
    }
    instant_.push_back(std::move(row));
  }
  if (instant_.size() > 1) std::sort(instant_.begin(), instant_.end(), TeskRow::answerOrder);
  return &instant_.back();
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
