// A write transaction's change list and its rowid index, packed.
#include "sqlite_ext/change_list.h"

#include <bit>
#include <cstring>
#include <utility>

namespace zqext {

// ---- ChangeList ----

const uint64_t* ChangeList::record(size_t i, const Chunk** chunk, size_t* slot) const {
  const size_t pos = head_ + i;
  *chunk = &chunks_[pos / kPerChunk];
  *slot = pos % kPerChunk;
  return (*chunk)->words.get() + *slot * stride_;
}

void ChangeList::push(bool insert, const zq::Entry& entry) {
  const size_t pos = head_ + size_;
  if (pos / kPerChunk == chunks_.size()) {
    Chunk fresh;
    fresh.words = std::make_unique_for_overwrite<uint64_t[]>(kPerChunk * stride_);
    chunks_.push_back(std::move(fresh));
  }
  Chunk& c = chunks_[pos / kPerChunk];
  const size_t slot = pos % kPerChunk;
  uint64_t* w = c.words.get() + slot * stride_;
  w[0] = static_cast<uint64_t>(entry.id);
  std::memcpy(w + 1, entry.box.min, sizeof(double) * dims_);
  std::memcpy(w + 1 + dims_, entry.box.max, sizeof(double) * dims_);
  const uint64_t bit = uint64_t{1} << (slot % 64);
  c.inserts[slot / 64] = insert ? c.inserts[slot / 64] | bit : c.inserts[slot / 64] & ~bit;
  ++size_;
}

ListedChange ChangeList::at(size_t i) const {
  const Chunk* c = nullptr;
  size_t slot = 0;
  const uint64_t* w = record(i, &c, &slot);
  ListedChange out;
  out.insert = insert_bit(*c, slot);
  out.entry.id = static_cast<int64_t>(w[0]);
  std::memcpy(out.entry.box.min, w + 1, sizeof(double) * dims_);
  std::memcpy(out.entry.box.max, w + 1 + dims_, sizeof(double) * dims_);
  return out;
}

bool ChangeList::is_insert(size_t i) const {
  const Chunk* c = nullptr;
  size_t slot = 0;
  record(i, &c, &slot);
  return insert_bit(*c, slot);
}

int64_t ChangeList::id(size_t i) const {
  const Chunk* c = nullptr;
  size_t slot = 0;
  return static_cast<int64_t>(record(i, &c, &slot)[0]);
}

void ChangeList::shorten(size_t length) {
  if (length >= size_) return;
  size_ = length;
  const size_t chunks = (head_ + size_ + kPerChunk - 1) / kPerChunk;
  while (chunks_.size() > chunks) chunks_.pop_back();
}

void ChangeList::pop_front() {
  if (size_ == 0) return;
  --size_;
  if (++head_ == kPerChunk || size_ == 0) {
    chunks_.pop_front();
    head_ = 0;
    if (size_ == 0) clear();
  }
}

void ChangeList::clear() {
  std::deque<Chunk>().swap(chunks_);
  head_ = 0;
  size_ = 0;
}

// ---- LastChange ----

size_t LastChange::home(uint64_t h) const {
  return static_cast<size_t>(h >> (64 - std::countr_zero(slots_.size())));
}

void LastChange::place(uint64_t h, uint32_t at1) {
  for (size_t i = home(h);; i = (i + 1) & (slots_.size() - 1))
    if (slots_[i].at1 == 0) {
      slots_[i] = Slot{at1, static_cast<uint32_t>(h)};
      ++size_;
      return;
    }
}

void LastChange::put(int64_t id, uint32_t at, const ChangeList& list) {
  const uint64_t h = hash(id);
  if (!slots_.empty())
    for (size_t i = home(h);; i = (i + 1) & (slots_.size() - 1)) {
      Slot& s = slots_[i];
      if (s.at1 == 0) break;
      if (s.tag == static_cast<uint32_t>(h) && list.id(s.at1 - 1) == id) {
        s.at1 = at + 1;
        return;
      }
    }
  if (2 * (size_ + 1) > slots_.size()) {
    std::vector<Slot> old = std::exchange(
        slots_, std::vector<Slot>(std::max<size_t>(64, 2 * slots_.size()), Slot{0, 0}));
    size_ = 0;
    for (const Slot& s : old)
      if (s.at1 != 0) place(hash(list.id(s.at1 - 1)), s.at1);
  }
  place(h, at + 1);
}

int64_t LastChange::find(int64_t id, const ChangeList& list) const {
  if (slots_.empty()) return -1;
  const uint64_t h = hash(id);
  for (size_t i = home(h);; i = (i + 1) & (slots_.size() - 1)) {
    const Slot& s = slots_[i];
    if (s.at1 == 0) return -1;
    if (s.tag == static_cast<uint32_t>(h) && list.id(s.at1 - 1) == id) return s.at1 - 1;
  }
}

}  // namespace zqext
