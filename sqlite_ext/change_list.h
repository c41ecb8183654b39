/* The zqrtree SQLite extension: a write transaction's change list, packed.
 *
 * A transaction may list millions of changes, and the list and its index
 * are most of a long write's memory. A change is kept as its rowid and the
 * 2·dims coordinates its index has (40 bytes in 2-D, where an Entry with
 * room for three axes and a flag takes 64), in chunks, its insert flag as
 * one bit; chunks go as the list is consumed from the front. The index from
 * rowid to its last change keeps only the change's position and a hash tag,
 * 8 bytes a slot, and asks the list for the rowid itself.
 *
 * Call order: push()* with at()/size()/shorten() in between -> clear(), or
 * pop_front()* while consuming it whole. */
#ifndef ZQ_SQLITE_EXT_CHANGE_LIST_H
#define ZQ_SQLITE_EXT_CHANGE_LIST_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "driver/index.h"

namespace zqext {

struct ListedChange {
  bool insert = false;
  zq::Entry entry;
};

class ChangeList {
 public:
  explicit ChangeList(int dims) : stride_(1 + 2 * static_cast<size_t>(dims)), dims_(dims) {}
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  // Throws std::bad_alloc, the list unchanged.
  void push(bool insert, const zq::Entry& entry);
  ListedChange at(size_t i) const;
  bool is_insert(size_t i) const;
  int64_t id(size_t i) const;
  // Keeps the first `length` changes.
  void shorten(size_t length);
  void pop_front();
  void clear();

 private:
  static constexpr size_t kPerChunk = 1024;
  struct Chunk {
    std::unique_ptr<uint64_t[]> words;  // kPerChunk records of stride_ words
    uint64_t inserts[kPerChunk / 64] = {};
  };
  const uint64_t* record(size_t i, const Chunk** chunk, size_t* slot) const;
  static bool insert_bit(const Chunk& c, size_t slot) {
    return (c.inserts[slot / 64] >> (slot % 64) & 1) != 0;
  }
  size_t stride_;
  int dims_;
  std::deque<Chunk> chunks_;
  size_t head_ = 0;  // the first change's slot in the first chunk
  size_t size_ = 0;
};

// Rowid -> the position of its last change in a ChangeList: open addressing
// over a table at most half full.
class LastChange {
 public:
  // Empties the table but keeps its size: putting back no more rowids than
  // it held never allocates.
  void clear() {
    std::fill(slots_.begin(), slots_.end(), Slot{0, 0});
    size_ = 0;
  }
  // clear() and the memory with it.
  void release() {
    std::vector<Slot>().swap(slots_);
    size_ = 0;
  }
  // Throws std::bad_alloc, the index unchanged.
  void put(int64_t id, uint32_t at, const ChangeList& list);
  // The position of the last change of `id`, or -1.
  int64_t find(int64_t id, const ChangeList& list) const;
  // Calls f(position) for every rowid's last change.
  template <typename F>
  void each(F&& f) const {
    for (const Slot& s : slots_)
      if (s.at1 != 0) f(s.at1 - 1);
  }

 private:
  struct Slot {
    uint32_t at1;  // position + 1; 0: empty
    uint32_t tag;  // the hash's low half, to skip most rowid reads
  };
  static uint64_t hash(int64_t id) {
    // Rowids are often dense: a multiplicative hash spreads them.
    return static_cast<uint64_t>(id) * 0x9E3779B97F4A7C15ull;
  }
  size_t home(uint64_t h) const;
  void place(uint64_t h, uint32_t at1);
  std::vector<Slot> slots_;  // a power of two, or empty
  size_t size_ = 0;
};

}  // namespace zqext

#endif
