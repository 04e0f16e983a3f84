// ZARMsgCache: message texts by status code, fetched once per cache and then
// served under a shared read lock.
//
// The fetch of a missing text (zar_msg_get_msg, which takes the message lock)
// runs with the cache's lock released, so the cache lock stays a leaf. Two
// threads that miss the same id both fetch it; the second insertion finds the
// first text, frees its own, and both callers get the cached pointer.
#include <errno.h>

#include <new>

#include "base/zarlock.h"
#include "base/zarmem.h"
#include "zar/msg.h"
#include "zar/msgcache.hpp"

ZARMsgCache::ZARMsgCache() : heads_() { pthread_rwlock_init(&lock_, nullptr); }

ZARMsgCache::~ZARMsgCache() {
  {
    zar::RwLockHold hold(&lock_, zar::RwLockHold::kWrite);
    for (Entry*& head : heads_) {
      Entry* e = head;
      while (e != nullptr) {
        Entry* next = e->next;
        zar::mem::free(e->text);
        delete e;
        e = next;
      }
      head = nullptr;
    }
  }
  pthread_rwlock_destroy(&lock_);
}

const char* ZARMsgCache::searchHashTable(unsigned id) {
  zar::RwLockHold hold(&lock_, zar::RwLockHold::kRead);
  if (!hold.ok()) return nullptr;
  const Entry* e = heads_[id % kBuckets];
  while (e != nullptr && e->id < id) e = e->next;
  const char* text = (e != nullptr && e->id == id) ? e->text : nullptr;
  if (hold.release() != 0) return nullptr;
  return text;
}

int ZARMsgCache::addToHashTable(unsigned id, char** text) {
  bool taken = false;
  return insert(id, text, &taken);
}

int ZARMsgCache::insert(unsigned id, char** text, bool* taken) {
  *taken = false;
  Entry* fresh = new (std::nothrow) Entry{id, *text, nullptr};
  if (fresh == nullptr) return ENOMEM;
  zar::RwLockHold hold(&lock_, zar::RwLockHold::kWrite);
  if (!hold.ok()) {
    delete fresh;
    return hold.error();
  }
  Entry** link = &heads_[id % kBuckets];
  while (*link != nullptr && (*link)->id < id) link = &(*link)->next;
  if (*link != nullptr && (*link)->id == id) {
    // Cached already, perhaps by a thread that fetched the same id at the
    // same time: that text wins, and the caller gets it in place of its own.
    zar::mem::free(*text);
    *text = (*link)->text;
    delete fresh;
  } else {
    fresh->next = *link;
    *link = fresh;
  }
  *taken = true;
  return hold.release();
}

const char* ZARMsgCache::getMessage(unsigned id) {
  if (const char* cached = searchHashTable(id)) return cached;
  unsigned long status = 0;
  char* text = zar_msg_get_msg(id, &status);  // a fetch's status is not needed here
  bool taken = false;
  if (insert(id, &text, &taken) != 0) {
    // Once the cache holds the text (a failed release of the lock), it is no
    // longer ours to free.
    if (!taken) zar::mem::free(text);
    return nullptr;
  }
  return text;
}
