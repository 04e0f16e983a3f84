// libzar: ZARHashTable<Key, Value>, a chained hash table of key and value
// pointers with a fixed number of buckets, and ZARHashTableIter, its walk.
// Usable from C++17.
//
// Conventions of this header:
// - Ownership: the table stores the pointers it is given and never copies
//   keys or values. A table set up with ownsEntries true deletes every key and
//   value when it is cleared or destroyed; one set up with false only refers
//   to objects that somebody else (often another, owning table) deletes.
// - Status: nothing throws. init() and the insertions return false when they
//   store nothing: a table without buckets (never set up, cleared, or whose
//   bucket array could not be allocated), a null key, or no memory for the
//   entry. find() answers null for a miss and on a table without buckets.
// - Requirements on Key: unsigned hash() const and int compare(const Key&)
//   const (0 meaning equal), as ZARString has. An owning table deletes Key and
//   Value through pointers of their own types, so both need virtual
//   destructors when they are base classes.
// - Threads: no internal lock. A table is filled by one thread; once filled
//   it may be read and walked by several threads while nobody changes it.
//
// The library instantiates ZARHashTable<ZARString, ZARCmdLine::Option> for the
// option tables of the command-line parser (zar/cmdline.hpp).
#ifndef ZAR_HASHTABLE_HPP
#define ZAR_HASHTABLE_HPP

#include <stdint.h>
#include <stdlib.h>

#include <new>

#include "zar/export.h"

template <class Key, class Value>
class ZARHashTableIter;

// Invariants:
// - buckets_ is null exactly when bucketCount_ is 0; otherwise it holds
//   bucketCount_ chain heads, each null or the first entry of its chain.
// - An entry lies in the chain of bucketOf(key->hash(), bucketCount_).
// - count_ is the number of entries inserted since the last clear().
//
// The bucket count never changes between init() and clear(): there is no
// growth, chains simply lengthen. Entries with equal keys may coexist;
// insertHead() puts the newest first (it shadows older equal keys for find),
// insertTail() puts it last (the first one inserted keeps answering).
template <class Key, class Value>
class ZAR_API ZARHashTable {
 public:
  // A table without buckets; set it up with init() before use.
  ZARHashTable();
  // As clear().
  virtual ~ZARHashTable();
  ZARHashTable(const ZARHashTable&) = delete;
  ZARHashTable& operator=(const ZARHashTable&) = delete;

  // clear(), then allocates buckets empty chains. On success the table has
  // buckets buckets and remembers ownsEntries, and true is returned. When the
  // array cannot be allocated, or buckets is 0, the table stays without
  // buckets, the ownership flag is left as it was, and false is returned.
  bool init(unsigned buckets, bool ownsEntries);
  // Removes every entry (deleting its key and then its value when the table
  // owns them) and frees the bucket array: the table is left without buckets
  // and must be set up with init() again.
  void clear();

  // The value of the first entry of key's chain, from its head, whose key
  // compares equal to key; null when there is none. An entry holding a null
  // value answers null like a miss.
  Value* find(const Key& key) const;
  // Links a new entry for key and value at the head (insertHead) or the tail
  // (insertTail) of key's chain and counts it. REQUIRES: key is not null.
  bool insertHead(Key* key, Value* value);
  bool insertTail(Key* key, Value* value);

  // Entries inserted since the last clear().
  unsigned getCount() const { return count_; }
  // Buckets of the table; 0 when it has none.
  unsigned getBucketCount() const { return bucketCount_; }

  // The bucket of a key hash in a table of n buckets (n > 0): the hash is
  // folded by the table size (bytes above the lowest into the lowest below
  // 256 buckets, the upper half into the lower below 65,536, the top byte into
  // the second below 2^24, unchanged from there on), then taken modulo n.
  static unsigned bucketOf(unsigned hash, unsigned n);

 private:
  friend class ZARHashTableIter<Key, Value>;

  struct Entry {
    Entry* next;  // null at the tail of the chain
    Key* key;
    Value* value;
  };

  Entry** buckets_;       // malloc'd, zero-filled chain heads; null when none
  uint32_t bucketCount_;  // 0 when buckets_ is null
  bool ownsEntries_;      // clear() deletes keys and values
  uint32_t count_;        // entries since the last clear()

  Entry* newEntry(Key* key, Value* value) const;
};

// Walks every entry of a table: buckets in ascending index, each chain from
// head to tail. Entries of one bucket added with insertTail() therefore come
// out in the order they were added.
//
// The table must outlive the walk and must not be cleared during it;
// insertions during a walk may or may not be seen.
template <class Key, class Value>
class ZARHashTableIter {
 public:
  explicit ZARHashTableIter(const ZARHashTable<Key, Value>& table);
  // Yields the next entry's key and value and returns true; returns false,
  // leaving key and value alone, when the walk is over.
  bool next(Key*& key, Value*& value);
  // Starts the walk again from the first bucket.
  void reset();

 private:
  const ZARHashTable<Key, Value>* table_;
  uint32_t bucket_;  // bucket of the next chain to enter
  typename ZARHashTable<Key, Value>::Entry* entry_;  // next entry to yield; null: enter a chain
};

// ---------------------------------------------------------------------------
// Implementation. Defined outside the class so that an explicit instantiation
// in a shared library (such as the library's own option tables) exports them.
// ---------------------------------------------------------------------------

template <class Key, class Value>
ZARHashTable<Key, Value>::ZARHashTable()
    : buckets_(nullptr), bucketCount_(0), ownsEntries_(false), count_(0) {}

template <class Key, class Value>
ZARHashTable<Key, Value>::~ZARHashTable() {
  clear();
}

template <class Key, class Value>
bool ZARHashTable<Key, Value>::init(unsigned buckets, bool ownsEntries) {
  clear();
  if (buckets == 0) return false;
  Entry** heads = static_cast<Entry**>(calloc(buckets, sizeof(Entry*)));
  if (heads == nullptr) return false;
  buckets_ = heads;
  bucketCount_ = buckets;
  ownsEntries_ = ownsEntries;
  return true;
}

template <class Key, class Value>
void ZARHashTable<Key, Value>::clear() {
  for (uint32_t b = 0; b < bucketCount_; ++b) {
    Entry* e = buckets_[b];
    while (e != nullptr) {
      Entry* next = e->next;
      if (ownsEntries_) {
        delete e->key;
        delete e->value;
      }
      delete e;
      e = next;
    }
  }
  free(buckets_);
  buckets_ = nullptr;
  bucketCount_ = 0;
  count_ = 0;
}

template <class Key, class Value>
unsigned ZARHashTable<Key, Value>::bucketOf(unsigned hash, unsigned n) {
  uint32_t h = hash;
  if (n >= 16777216u) {
    // unchanged
  } else if (n >= 65536u) {
    h ^= (h >> 24) << 4;
  } else if (n >= 256u) {
    h ^= h >> 16;
  } else {
    h ^= ((h >> 8) & 0xFFu) ^ ((h >> 16) & 0xFFu) ^ (h >> 24);
  }
  return h % n;
}

template <class Key, class Value>
Value* ZARHashTable<Key, Value>::find(const Key& key) const {
  if (bucketCount_ == 0) return nullptr;
  for (Entry* e = buckets_[bucketOf(key.hash(), bucketCount_)]; e != nullptr; e = e->next) {
    if (e->key->compare(key) == 0) return e->value;
  }
  return nullptr;
}

template <class Key, class Value>
typename ZARHashTable<Key, Value>::Entry* ZARHashTable<Key, Value>::newEntry(Key* key,
                                                                            Value* value) const {
  if (bucketCount_ == 0 || key == nullptr) return nullptr;
  return new (std::nothrow) Entry{nullptr, key, value};
}

template <class Key, class Value>
bool ZARHashTable<Key, Value>::insertHead(Key* key, Value* value) {
  Entry* e = newEntry(key, value);
  if (e == nullptr) return false;
  Entry** head = &buckets_[bucketOf(key->hash(), bucketCount_)];
  e->next = *head;
  *head = e;
  ++count_;
  return true;
}

template <class Key, class Value>
bool ZARHashTable<Key, Value>::insertTail(Key* key, Value* value) {
  Entry* e = newEntry(key, value);
  if (e == nullptr) return false;
  Entry** link = &buckets_[bucketOf(key->hash(), bucketCount_)];
  while (*link != nullptr) link = &(*link)->next;
  *link = e;
  ++count_;
  return true;
}

template <class Key, class Value>
ZARHashTableIter<Key, Value>::ZARHashTableIter(const ZARHashTable<Key, Value>& table)
    : table_(&table), bucket_(0), entry_(nullptr) {}

template <class Key, class Value>
bool ZARHashTableIter<Key, Value>::next(Key*& key, Value*& value) {
  while (entry_ == nullptr) {
    if (bucket_ >= table_->bucketCount_) return false;
    entry_ = table_->buckets_[bucket_++];
  }
  key = entry_->key;
  value = entry_->value;
  entry_ = entry_->next;
  return true;
}

template <class Key, class Value>
void ZARHashTableIter<Key, Value>::reset() {
  bucket_ = 0;
  entry_ = nullptr;
}

#endif  // ZAR_HASHTABLE_HPP
