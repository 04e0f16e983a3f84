// The allocation seam: a plan fails exactly its armed call (or every call
// from it on), counts calls, and make() returns null instead of throwing.
#include "core/zarmem.h"

#include <errno.h>
#include <string.h>

#include "tests/testutil/testutil.h"

namespace zar {
namespace {

using test::FaultPlan;

TEST(ZarMem, PlansFailTheArmedCallOrEveryCallFromIt) {
  {
    FaultPlan plan(fault::Op::kAlloc, 2);
    void* a = mem::alloc(8);
    void* b = mem::alloc(8);
    void* c = mem::alloc(8);
    EXPECT_NE(nullptr, a);
    EXPECT_EQ(nullptr, b);
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_NE(nullptr, c);
    EXPECT_EQ(3, plan.calls());
    EXPECT_EQ(1, plan.failures());
    mem::free(a);
    mem::free(c);
  }
  {
    FaultPlan plan(fault::Op::kAlloc, 1, /*sticky=*/true);
    EXPECT_EQ(nullptr, mem::strDup("x"));
    EXPECT_EQ(nullptr, mem::allocZero(2, 2));
    EXPECT_EQ(nullptr, mem::realloc(static_cast<char*>(nullptr), 4));
    EXPECT_EQ(3, plan.failures());
  }
  FaultPlan countOnly(fault::Op::kAlloc, 0);
  char* s = mem::strNDup("abcdef", 3);
  ASSERT_NE(nullptr, s);
  EXPECT_STREQ("abc", s);
  mem::free(s);
  EXPECT_EQ(1, countOnly.calls());
  EXPECT_EQ(0, countOnly.failures());
}

TEST(ZarMem, MakeReturnsNullInsteadOfThrowingAndAllocZeroRejectsOverflow) {
  struct Obj {
    int v;
    explicit Obj(int x) : v(x) {}
  };
  {
    FaultPlan plan(fault::Op::kAlloc, 1);
    EXPECT_EQ(nullptr, mem::make<Obj>(1));
  }
  mem::UniqueObj<Obj> o(mem::make<Obj>(7));
  ASSERT_NE(nullptr, o);
  EXPECT_EQ(7, o->v);
  EXPECT_EQ(nullptr, mem::allocZero(SIZE_MAX / 2, 4));
}

}  // namespace
}  // namespace zar
