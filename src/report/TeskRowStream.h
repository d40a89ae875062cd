// The rows of an answer as they are read, newest first, so that no answer has to hold
// them all: the census, the buckets and the emitter take each row as it passes.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "report/TeskRow.h"

class TeskRowStream {
 public:
  TeskRowStream() = default;
  TeskRowStream(const TeskRowStream&) = delete;
  TeskRowStream& operator=(const TeskRowStream&) = delete;
  virtual ~TeskRowStream() = default;
  // The next row in answer order read backwards (TeskRow::answerOrder, newest first),
  // valid until the following call; null at the end, and on every call after it.
  virtual const TeskRow* next() = 0;
};

// Every row left in `stream`, in answer order (oldest first): the vector form of a
// producer that streams.
std::vector<TeskRow> drainOldestFirst(TeskRowStream& stream);

// Rows held in answer order (oldest first), handed out from the newest. Borrowed from
// a span, or owned: a producer that must see all its rows before it can order them
// (calendar, reminders) hands them over here.
class TeskRowList final : public TeskRowStream {
 public:
  explicit TeskRowList(std::span<const TeskRow> rows) : rows_(rows), left_(rows.size()) {}
  // Sorts `rows` into answer order first when they are not (stably: equal rows keep
  // the producer's order).
  explicit TeskRowList(std::vector<TeskRow>&& rows);

  const TeskRow* next() override { return left_ == 0 ? nullptr : &rows_[--left_]; }

 private:
  std::vector<TeskRow> owned_;
  std::span<const TeskRow> rows_;
  size_t left_;
};

// Rows pulled from a statement that walks its store's time column newest first: ts never
// grows, but rows of one instant come in the store's order, so each instant is gathered
// and handed out in answer order. The rows are filled in place and reused from one
// instant to the next, so a producer that assigns into them (TeskRow::clear) keeps
// their buffers instead of allocating each row anew.
class TeskInstantOrder final : public TeskRowStream {
 public:
  // Fills the next row newest first into `row`, which holds an earlier row or nothing;
  // false at the end.
  using Pull = std::function<bool(TeskRow& row)>;
  explicit TeskInstantOrder(Pull pull) : pull_(std::move(pull)) {}

  const TeskRow* next() override;

 private:
  Pull pull_;
  // slots_[0, size_) hold the instant being handed out, in answer order, the newest at
  // the back; slots_[ahead_] the first row of the next instant when one was read. Held
  // by pointer so that moving a row between slots moves no strings.
  std::vector<std::unique_ptr<TeskRow>> slots_;
  size_t size_ = 0;
  std::optional<size_t> ahead_;
};

// One time axis from several streams: each is newest first, and so is the merge. Rows
// that tie in answer order (never two of one id) come from the later stream first, the
// mirror of a stable merge oldest first.
class TeskRowMerge final : public TeskRowStream {
 public:
  // Streams in reading order; they must outlive the merge.
  void add(TeskRowStream& stream) { inputs_.push_back({&stream, nullptr, false}); }

  const TeskRow* next() override;

 private:
  struct Input {
    TeskRowStream* stream;
    const TeskRow* head;  // its next row, read ahead
    bool started;
  };
  std::vector<Input> inputs_;
  Input* taken_ = nullptr;  // the input whose head went out last and must move on
};
