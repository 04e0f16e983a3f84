// The allocation helpers: failures give null (and ENOMEM) and leave an old
// block alone, make() returns null instead of throwing, products that
// overflow are refused. (The fault plans themselves are exercised by every
// allocation-failure sweep of the other tests.)
#include "base/zarmem.h"

#include <errno.h>
#include <string.h>

#include "tests/testutil/testutil.h"

namespace zar {
namespace {

using test::FaultPlan;

struct Obj {
  int v;
  explicit Obj(int x) : v(x) {}
};

TEST(ZarMem, FailuresGiveNullAndLeaveTheOldBlock) {
  char* p = static_cast<char*>(mem::alloc(4));
  ASSERT_NE(nullptr, p);
  memcpy(p, "abc", 4);
  {
    FaultPlan plan(fault::Op::kAlloc, 1, /*sticky=*/true);
    errno = 0;
    EXPECT_EQ(nullptr, mem::realloc(p, 64));
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_EQ(nullptr, mem::strDup("x"));
    EXPECT_EQ(nullptr, mem::allocZero(2, 2));
    EXPECT_EQ(nullptr, mem::make<Obj>(1));
    EXPECT_EQ(4, plan.failures());
  }
  EXPECT_STREQ("abc", p);
  mem::free(p);
  FaultPlan count(fault::Op::kAlloc, 0);
  char* s = mem::strNDup("abcdef", 3);
  ASSERT_NE(nullptr, s);
  EXPECT_STREQ("abc", s);
  mem::free(s);
  EXPECT_EQ(nullptr, mem::strDup(nullptr));
  mem::UniqueObj<Obj> o(mem::make<Obj>(7));
  ASSERT_NE(nullptr, o);
  EXPECT_EQ(7, o->v);
  EXPECT_EQ(2, count.calls());
  EXPECT_EQ(0, count.failures());
  EXPECT_EQ(nullptr, mem::allocZero(SIZE_MAX / 2, 4));
}

}  // namespace
}  // namespace zar
