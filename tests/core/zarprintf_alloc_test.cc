// Formats of up to 10 conversions and 9 arguments allocate nothing: every
// allocation of this test executable is counted, through the sanitizer's
// allocation hooks in sanitized builds and by interposing malloc, calloc and
// realloc otherwise.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <cstdarg>

#include "core/zarprintf.h"
#include "tests/testutil/testutil.h"
#include "zar/printf.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZAR_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ZAR_TEST_SANITIZED 1
#endif
#endif

namespace {

std::atomic<bool> gCounting{false};
std::atomic<long> gAllocations{0};

inline void countOne() {
  if (gCounting.load(std::memory_order_relaxed)) gAllocations.fetch_add(1);
}

}  // namespace

#ifdef ZAR_TEST_SANITIZED
// The sanitizer runtimes own malloc; they call these hooks on every
// allocation instead.
extern "C" int __sanitizer_install_malloc_and_free_hooks(
    void (*onAlloc)(const volatile void*, size_t), void (*onFree)(const volatile void*));

namespace {
void onAlloc(const volatile void*, size_t) { countOne(); }
void onFree(const volatile void*) {}
[[maybe_unused]] const int kHooked = __sanitizer_install_malloc_and_free_hooks(onAlloc, onFree);
}  // namespace
#else
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);

void* malloc(size_t n) {
  countOne();
  return __libc_malloc(n);
}
void* calloc(size_t n, size_t size) {
  countOne();
  return __libc_calloc(n, size);
}
void* realloc(void* p, size_t n) {
  countOne();
  return __libc_realloc(p, n);
}
}  // extern "C"
#endif

namespace zar {
namespace {

// Allocations made by fn, as seen by the interposed allocator and by the
// library's allocation seam (which must agree).
template <class Fn>
long allocationsOf(Fn fn) {
  test::FaultPlan seam(fault::Op::kAlloc, 0);
  gAllocations = 0;
  gCounting = true;
  fn();
  gCounting = false;
  EXPECT_EQ(gAllocations.load(), seam.calls()) << "heap and seam counts differ";
  return gAllocations.load();
}
#define EXPECT_ALLOCATIONS(n, call) EXPECT_EQ(n, allocationsOf([&] { call; })) << #call

int streamPrintf(FILE* f, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int n = nlz_vfprintf(f, nullptr, fmt, ap);
  va_end(ap);
  return n;
}

TEST(ZarPrintfAlloc, SmallFormatsAllocateNothingAndLargerOnesAreCounted) {
  char b[256];
  void* p = b;
  const long double ld = 2.5L;
  nlz_cs_t u8 = nlz_cs_shared("UTF8");
  EXPECT_ALLOCATIONS(0, zar_snprintf(b, 256, "%s-%d", "a", 7));
  EXPECT_ALLOCATIONS(0, zar_snprintf(b, 256, "%d %i %u %x %s %c %p %e %Lg %%", 1, 2, 3u, 4u, "5",
                                     '6', p, 8.0, ld));  // 10 conversions, 9 arguments
  EXPECT_ALLOCATIONS(0, zar_snprintf(b, 256, "%9$d%8$d%7$d%6$d%5$d%4$d%3$d%2$d%1$d%%", 1, 2, 3, 4,
                                     5, 6, 7, 8, 9));
  EXPECT_ALLOCATIONS(0, zar_snprintf_cs(b, 256, u8, "%S|%.3S|%5C", u"\u00e9t\u00e9", u"\u00e9\u00e9", u'x'));
  // Straight into a stream (after a first write has given it its buffer).
  FILE* f = tmpfile();
  ASSERT_NE(nullptr, f);
  ASSERT_EQ(3, streamPrintf(f, "%s", "abc"));
  EXPECT_ALLOCATIONS(0, streamPrintf(f, "%s-%5d|%x|%.2f", "a", 7, 255u, 2.5));
  fclose(f);
  // The counts see the heap arrays (past 10 conversions or 9 arguments), which
  // render as the fixed ones do, and the result.
  EXPECT_ALLOCATIONS(1, zar_snprintf(b, sizeof b, "%d%d%d%d%d%d%d%d%d%d", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10));
  EXPECT_STREQ("12345678910", b);
  EXPECT_ALLOCATIONS(2, zar_snprintf(b, sizeof b, "%11$d%10$d%9$d%8$d%7$d%6$d%5$d%4$d%3$d%2$d%1$d",
                                     1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11));
  EXPECT_STREQ("1110987654321", b);
  char* out = nullptr;
  EXPECT_ALLOCATIONS(1, zar_asprintf(&out, "%s-%d", "a", 7));
  zar_asprintf_free(out);
}

}  // namespace
}  // namespace zar
