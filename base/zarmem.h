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

#include <stddef.h>

#include <memory>
#include <new>
#include <utility>

namespace zar::mem {

void* alloc(size_t len) noexcept;                     // malloc; null on failure
void* allocZero(size_t count, size_t size) noexcept;  // calloc; null on failure or overflow
void* realloc(void* p, size_t len) noexcept;          // on failure p is untouched
void free(void* p) noexcept;
char* strDup(const char* s) noexcept;                 // null when s is null or on failure
char* strNDup(const char* s, size_t maxLen) noexcept; // at most maxLen bytes, terminated
// A terminated copy of the first len bytes of s, whose length the caller
// knows (no scan); null on failure.
char* strDupLen(const char* s, size_t len) noexcept;

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
