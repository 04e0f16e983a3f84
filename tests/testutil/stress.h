// Runs a body on several threads at once, released together.
#ifndef ZAR_TESTS_TESTUTIL_STRESS_H_
#define ZAR_TESTS_TESTUTIL_STRESS_H_

#include <functional>

namespace zar::test {

// Runs body(threadIndex) on threads threads that start together; returns the
// sum of the bodies' results (use it to count mismatches).
long runConcurrently(int threads, const std::function<long(int)>& body);

}  // namespace zar::test

#endif  // ZAR_TESTS_TESTUTIL_STRESS_H_
