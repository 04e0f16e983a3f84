// Runs a body on several threads at once, released together.
#ifndef ZAR_TESTS_TESTUTIL_STRESS_H_
#define ZAR_TESTS_TESTUTIL_STRESS_H_

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

namespace zar::test {

// Runs body(threadIndex) on threads threads that start together; returns the
// sum of the bodies' results (use it to count mismatches).
inline long runConcurrently(int threads, const std::function<long(int)>& body) {
  std::atomic<int> ready{0};
  std::atomic<bool> go{false};
  std::atomic<long> total{0};
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t) {
    pool.emplace_back([&, t] {
      ready.fetch_add(1);
      while (!go.load()) std::this_thread::yield();
      total.fetch_add(body(t));
    });
  }
  while (ready.load() < threads) std::this_thread::yield();
  go.store(true);
  for (auto& th : pool) th.join();
  return total.load();
}

}  // namespace zar::test

#endif  // ZAR_TESTS_TESTUTIL_STRESS_H_
