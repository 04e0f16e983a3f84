// UUIDs made in bulk: from one thread, from threads, from processes and
// across fork, never twice, and in each maker's order of time.
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <fstream>
#include <thread>

#include "tests/stress/driver.h"
#include "tests/testutil/stress.h"
#include "tests/testutil/testutil.h"
#include "zar/uuid.h"

namespace zar::stress {
namespace {

using Bytes = std::array<unsigned char, 16>;

Bytes bytesOf(const kp_uuid_t& u) {
  Bytes b;
  memcpy(b.data(), &u, sizeof u);
  return b;
}

uint64_t timeOf(const kp_uuid_t& u) {
  return (static_cast<uint64_t>(u.time_hi_and_version & 0x0FFF) << 48) |
         (static_cast<uint64_t>(u.time_mid) << 32) | u.time_low;
}

unsigned clockSeqOf(const kp_uuid_t& u) {
  return (static_cast<unsigned>(u.clock_seq_hi_and_reserved & 0x3F) << 8) | u.clock_seq_low;
}

// One maker's UUIDs in the order made: the time rises from each to the
// next, or the clock sequence changes with it (the clock went back).
struct Order {
  long failed = 0;     // kp_uuid_create gave a status
  long unordered = 0;  // neither a later time nor a new clock sequence
  long clockSteps = 0;
  bool havePrev = false;
  kp_uuid_t prev{};

  void add(const kp_uuid_t& u) {
    if (havePrev) {
      if (timeOf(u) <= timeOf(prev)) {
        if (clockSeqOf(u) == clockSeqOf(prev)) ++unordered;
        else ++clockSteps;
      }
    }
    prev = u;
    havePrev = true;
  }
  void merge(const Order& o) {
    failed += o.failed;
    unordered += o.unordered;
    clockSteps += o.clockSteps;
  }
};

// Makes count UUIDs, checking their order, and keeps them when out is given.
Order make(long count, std::vector<Bytes>* out) {
  Order order;
  for (long i = 0; i < count; ++i) {
    kp_uuid_t u;
    uint64_t st = 0;
    kp_uuid_create(&u, &st);
    if (st != 0) {
      ++order.failed;
      continue;
    }
    order.add(u);
    if (out != nullptr) out->push_back(bytesOf(u));
  }
  return order;
}

long duplicates(std::vector<Bytes>* all) {
  std::sort(all->begin(), all->end());
  long dup = 0;
  for (size_t i = 1; i < all->size(); ++i) dup += (*all)[i] == (*all)[i - 1];
  return dup;
}

void report(Run& run, long made, long dup, const Order& order, const Procs& procs, double seconds) {
  run.figure("uuids", static_cast<double>(made));
  run.faults("duplicated", dup);
  run.faults("unordered", order.unordered);
  run.faults("failed", order.failed);
  run.faults("crashed", procs.crashed);
  run.faults("hung", procs.hung);
  run.figure("clock_steps", static_cast<double>(order.clockSteps));
  run.figure("uuids/s", static_cast<double>(made) / seconds);
}

// Writes a child's UUIDs and order figures to a file of the run's directory.
int saveChild(Run& run, const std::string& name, const std::vector<Bytes>& made, const Order& o) {
  std::ofstream f(run.file(name), std::ios::binary);
  long head[3] = {o.failed, o.unordered, o.clockSteps};
  f.write(reinterpret_cast<const char*>(head), sizeof head);
  f.write(reinterpret_cast<const char*>(made.data()), static_cast<std::streamsize>(made.size() * sizeof(Bytes)));
  return f.good() ? 0 : 1;
}

void loadChild(Run& run, const std::string& name, std::vector<Bytes>* all, Order* order) {
  std::string data = zar::test::readFile(run.file(name));
  long head[3] = {};
  if (data.size() < sizeof head) {
    run.fail(name + ": no results");
    return;
  }
  memcpy(head, data.data(), sizeof head);
  order->failed += head[0];
  order->unordered += head[1];
  order->clockSteps += head[2];
  for (size_t at = sizeof head; at + sizeof(Bytes) <= data.size(); at += sizeof(Bytes)) {
    Bytes b;
    memcpy(b.data(), data.data() + at, sizeof b);
    all->push_back(b);
  }
}

// Item: ten million from one thread, each later than the one before.
Scenario oneThread("uuid-one-thread", [](Run& run) {
  long count = run.size("count", 10000000, 100000000);
  double start = now();
  Order order = make(count, nullptr);  // a rising order makes them unique
  report(run, count, 0, order, Procs(), now() - start);
});

// Item: several processes at once.
Scenario processes("uuid-processes", [](Run& run) {
  int procs = static_cast<int>(run.size("processes", 8, 16));
  long count = run.size("per_process", 250000, 2500000);
  double start = now();
  Procs result = inProcesses(procs, 600, [&](int p) {
    std::vector<Bytes> made;
    made.reserve(static_cast<size_t>(count));
    Order o = make(count, &made);
    return saveChild(run, named("uuids.", p), made, o);
  });
  double seconds = now() - start;
  std::vector<Bytes> all;
  Order order;
  for (int p = 0; p < procs; ++p) loadChild(run, named("uuids.", p), &all, &order);
  if (all.size() != static_cast<size_t>(procs * count) - static_cast<size_t>(order.failed))
    run.fail(named("UUIDs kept: ", static_cast<long>(all.size())));
  report(run, static_cast<long>(all.size()), duplicates(&all), order, result, seconds);
});

// Item: several threads of one process at once.
Scenario threads("uuid-threads", [](Run& run) {
  int threads = static_cast<int>(run.size("threads", 4, 8));
  long count = run.size("per_thread", 1000000, 10000000);
  std::vector<std::vector<Bytes>> made(static_cast<size_t>(threads));
  std::vector<Order> orders(static_cast<size_t>(threads));
  double start = now();
  zar::test::runConcurrently(threads, [&](int t) {
    made[static_cast<size_t>(t)].reserve(static_cast<size_t>(count));
    orders[static_cast<size_t>(t)] = make(count, &made[static_cast<size_t>(t)]);
    return 0L;
  });
  double seconds = now() - start;
  std::vector<Bytes> all;
  Order order;
  for (int t = 0; t < threads; ++t) {
    all.insert(all.end(), made[static_cast<size_t>(t)].begin(), made[static_cast<size_t>(t)].end());
    order.merge(orders[static_cast<size_t>(t)]);
  }
  report(run, static_cast<long>(all.size()), duplicates(&all), order, Procs(), seconds);
});

// Item: a process whose threads make UUIDs without pause forks again and
// again; each child makes its own.
Scenario forks("uuid-fork", [](Run& run) {
  int forks = static_cast<int>(run.size("forks", 100, 2000));
  constexpr long kPerChild = 2000;
  constexpr int kThreads = 2;
  std::atomic<bool> stop{false};
  std::vector<std::vector<Bytes>> made(kThreads);
  std::vector<Order> orders(kThreads);
  std::vector<std::thread> makers;
  for (int t = 0; t < kThreads; ++t) {
    makers.emplace_back([&, t] {
      while (!stop.load()) orders[static_cast<size_t>(t)].merge(make(100, &made[static_cast<size_t>(t)]));
    });
  }
  Procs procs;
  double start = now();
  for (int i = 0; i < forks; ++i) {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
      std::vector<Bytes> mine;
      Order o = make(kPerChild, &mine);
      _exit(saveChild(run, named("child.", i), mine, o));
    }
    procs.count(waitUntil(pid, now() + 20));
  }
  double seconds = now() - start;
  stop.store(true);
  for (std::thread& m : makers) m.join();
  std::vector<Bytes> all;
  Order order;
  for (int t = 0; t < kThreads; ++t) {
    all.insert(all.end(), made[static_cast<size_t>(t)].begin(), made[static_cast<size_t>(t)].end());
    order.merge(orders[static_cast<size_t>(t)]);
  }
  for (int i = 0; i < forks; ++i) loadChild(run, named("child.", i), &all, &order);
  report(run, static_cast<long>(all.size()), duplicates(&all), order, procs, seconds);
});

}  // namespace
}  // namespace zar::stress
