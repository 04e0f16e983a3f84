// The library's one way to allocate memory.
//
// Every allocation of the library goes through these functions, so that
// allocation failure is a status code everywhere (never an exception) and the
// reliability tests can fail any single allocation (base/faultinj.h).
// Blocks come from malloc and may be handed to callers who release them with
// free(3); blocks made here are released with zar::mem::free.
//
// Library code does not use the throwing operator new or the standard
// containers on paths that must survive allocation failure; it uses these
// functions and the owning helpers below. Everything here is thread-safe.
#ifndef ZAR_BASE_ZARMEM_H_
#define ZAR_BASE_ZARMEM_H_

#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <new>
#include <utility>

#include "base/faultinj.h"

namespace zar::mem {

// malloc; null on failure. Inline, as is free, since the calls around a
// block cost as much as the fault check and the jump into malloc.
inline void* alloc(size_t len) noexcept {
  if (int err = fault::check(fault::Op::kAlloc); err != 0) {
    errno = err;
    return nullptr;
  }
  return ::malloc(len == 0 ? 1 : len);
}
void* allocZero(size_t count, size_t size) noexcept;  // calloc; null on failure or overflow
void* realloc(void* p, size_t len) noexcept;          // on failure p is untouched
inline void free(void* p) noexcept { ::free(p); }
char* strDup(const char* s) noexcept;                 // null when s is null or on failure
char* strNDup(const char* s, size_t maxLen) noexcept; // at most maxLen bytes, terminated
// A terminated copy of the first len bytes of s, whose length the caller
// knows (no scan); null on failure.
char* strDupLen(const char* s, size_t len) noexcept;

// memmove of n bytes (the ranges may overlap). Runs of up to 32 bytes, the
// usual size of a name, a number or a short value, are moved without a call:
// every byte is loaded, in words of fixed size, before any is stored.
inline void moveBytes(char* dst, const char* src, size_t n) noexcept {
  if (n > 32) {
    memmove(dst, src, n);
  } else if (n >= 16) {
    uint64_t w[4];
    memcpy(&w[0], src, 16);
    memcpy(&w[2], src + n - 16, 16);
    memcpy(dst, &w[0], 16);
    memcpy(dst + n - 16, &w[2], 16);
  } else if (n >= 8) {
    uint64_t head, tail;
    memcpy(&head, src, 8);
    memcpy(&tail, src + n - 8, 8);
    memcpy(dst, &head, 8);
    memcpy(dst + n - 8, &tail, 8);
  } else if (n >= 4) {
    uint32_t head, tail;
    memcpy(&head, src, 4);
    memcpy(&tail, src + n - 4, 4);
    memcpy(dst, &head, 4);
    memcpy(dst + n - 4, &tail, 4);
  } else if (n > 0) {
    const char first = src[0], middle = src[n / 2], last = src[n - 1];
    dst[0] = first;
    dst[n / 2] = middle;
    dst[n - 1] = last;
  }
}

// Allocates and constructs a T without throwing; null on allocation failure.
// T's constructor must not throw.
template <class T, class... Args>
T* make(Args&&... args) noexcept {
  void* p = alloc(sizeof(T));
  if (p == nullptr) return nullptr;
  return new (p) T(std::forward<Args>(args)...);
}

// True when the fault seam fails the allocation about to be made (errno is
// then set); for allocations that cannot go through alloc() itself.
bool refused() noexcept;

// Allocates and constructs a T with the non-throwing operator new, for objects
// that their owner releases with delete (the keys and values of an owning
// ZARHashTable); null when memory could not be obtained. T's constructor must
// not throw.
template <class T, class... Args>
T* newObject(Args&&... args) noexcept {
  if (refused()) return nullptr;
  return new (std::nothrow) T(std::forward<Args>(args)...);
}

// Destroys and releases an object made by make(); null is ignored.
template <class T>
void destroy(T* p) noexcept {
  if (p == nullptr) return;
  p->~T();
  zar::mem::free(static_cast<void*>(p));
}

struct FreeDeleter {
  void operator()(void* p) const noexcept { free(p); }
};
// Owning pointer to a block from alloc (bytes or a trivially destructible T).
template <class T>
using Unique = std::unique_ptr<T, FreeDeleter>;

struct DestroyDeleter {
  template <class T>
  void operator()(T* p) const noexcept { destroy(p); }
};
// Owning pointer to an object from make().
template <class T>
using UniqueObj = std::unique_ptr<T, DestroyDeleter>;

}  // namespace zar::mem

#endif  // ZAR_BASE_ZARMEM_H_
