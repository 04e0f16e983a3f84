// libzar: ZARMsgCache, a thread-safe cache of message texts by status code.
// Usable from C++17.
//
// Conventions of this header:
// - Ownership: texts returned by the cache belong to it. Callers read them
//   and never free them; they stay valid, unchanged, until the cache is
//   destroyed.
// - Status: getMessage() and searchHashTable() answer null when there is no
//   text; addToHashTable() returns 0 or a POSIX error number.
// - Threads: any number of threads may use one cache at once. Lookups share
//   a read lock; an insertion takes it exclusively; the fetch of a text that
//   is not cached yet runs outside the lock. The lock is a leaf: nothing else
//   is locked while it is held. The cache must not be used once destroyed.
#ifndef ZAR_MSGCACHE_HPP
#define ZAR_MSGCACHE_HPP

#include <pthread.h>

#include "zar/export.h"

// Invariants:
// - Message id lives in the chain of bucket id % kBuckets; each chain is in
//   ascending order of id with at most one entry per id.
// - A cached text is never replaced or freed before the destructor, so every
//   pointer handed out stays valid that long. A text may be null: a fetch that
//   produced none (memory exhausted) is cached as such.
class ZAR_API ZARMsgCache {
 public:
  // Number of chains; ids spread over them by their remainder.
  static constexpr unsigned kBuckets = 97;

  ZARMsgCache();
  // Frees every cached text. No other thread may use the cache any more.
  ~ZARMsgCache();
  ZARMsgCache(const ZARMsgCache&) = delete;
  ZARMsgCache& operator=(const ZARMsgCache&) = delete;

  // The text of message id in the current locale: the message catalog's text,
  // else the compiled table's, else "Unknown message number 0x%8.8lx" filled
  // with id. Fetched on the first request and then served from the cache;
  // threads that ask for one id get the same pointer. Null when the text
  // cannot be had (memory exhausted, or the lock failed).
  const char* getMessage(unsigned id);
  // The cached text of id, or null when id is not cached (or its text is null).
  const char* searchHashTable(unsigned id);
  // Caches *text (a malloc'd text, or null) under id and takes it over. When
  // id is cached already, frees *text and stores the cached text into *text
  // instead. Returns 0, or the error of taking or releasing the lock (then
  // nothing was cached and *text is still the caller's, unless only the
  // release failed); ENOMEM when the cache's own record could not be
  // allocated.
  int addToHashTable(unsigned id, char** text);

 private:
  struct Entry {
    unsigned id;
    char* text;  // malloc'd, owned by the cache; may be null
    Entry* next;
  };

  // addToHashTable(); *taken tells whether the cache now owns *text (linked,
  // or freed in favour of the cached text), whatever the result.
  int insert(unsigned id, char** text, bool* taken);

  Entry* heads_[kBuckets];  // sorted chains; guarded by lock_
  pthread_rwlock_t lock_;   // readers: lookups; writer: insertions, destructor
};

#endif  // ZAR_MSGCACHE_HPP
