// Thread cancellation at random points of prints, catalog lookups, delays
// and route-type callbacks: afterwards every lock is free and no record is
// torn.
#include <pthread.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>

#include "tests/stress/driver.h"
#include "tests/testutil/testutil.h"
#include "zar/msg.h"
#include "zar/svc.h"
#include "zar/thread.h"

namespace zar::stress {
namespace {

struct Worker {
  long id = 0;
  pthread_t thread{};
  std::atomic<long> printed{0};  // prints that returned
  std::atomic<long> lookups{0};
};

// A route type whose print callback reaches a cancellation point.
std::atomic<long> gCallbacks{0};
void slowOpen(const char*, const char*, void*, void**, int32_t* opened) {
  *opened = 1;
}
void slowPrint(void*, void*, zar_svc_prolog*, va_list) {
  gCallbacks.fetch_add(1);
  usleep(20);
}

// Prints, looks catalog texts up (local and German) and waits, in random
// order, until cancelled.
void* work(void* arg) {
  Worker* w = static_cast<Worker*>(arg);
  std::mt19937_64 rng(w->id);
  unsigned long st = 0;
  for (long n = 0;;) {
    switch (rng() % 5) {
      case 0:
      case 1:
        printRecord(named("w", w->id), n, recordLength(rng));
        w->printed.store(++n);
        break;
      case 2:
        free(zar_msg_get_msg(zarsv_deploy_svc_g_table[rng() % ZAR_MSG_DEPLOY_TABLE_COUNT].code,
                             &st));
        w->lookups.fetch_add(1);
        break;
      case 3:
        free(zar_msg_get_locale_cat_msg(
            zarsv_client_svc_g_table[rng() % ZAR_MSG_CLIENT_TABLE_COUNT].code, "de_DE.ISO-8859-1",
            "UTF8", 4, &st));
        w->lookups.fetch_add(1);
        break;
      default:
        struct timespec d = {0, static_cast<long>(rng() % 900000000)};
        zarthread_delay_np(&d);
    }
  }
  return nullptr;
}

Scenario cancellation("cancel", [](Run& run) {
  int threads = run.size("threads", 8, 8);
  long cancels = run.size("cancels", 1000, 20000);
  setenv("NLSPATH", (zar::test::buildDir() + "/nls/msg/%L/%N").c_str(), 1);
  std::string path = run.file("cancel.log");
  initServiceability();
  unsigned long st = 0;
  zar_svc_add_route("SLOW", nullptr, slowOpen, slowPrint, nullptr, &st);
  if (st != 0 || route("TEXTFILE:" + path + ";SLOW:x") != 0) run.fail("route refused");
  std::vector<std::unique_ptr<Worker>> all;
  auto start = [&] {
    all.push_back(std::make_unique<Worker>());
    Worker* w = all.back().get();
    w->id = all.size() - 1;
    if (pthread_create(&w->thread, nullptr, work, w) != 0) abort();
    return w;
  };
  std::vector<Worker*> live;
  for (int t = 0; t < threads; ++t) live.push_back(start());
  long notCancelled = 0;
  for (long c = 0; c < cancels; ++c) {
    usleep(run.random(0, 3000));
    Worker*& victim = live[run.random(0, threads - 1)];
    pthread_cancel(victim->thread);
    void* result = nullptr;
    pthread_join(victim->thread, &result);
    notCancelled += result != PTHREAD_CANCELED;
    victim = start();
  }
  for (Worker* w : live) {
    pthread_cancel(w->thread);
    pthread_join(w->thread, nullptr);
  }
  // No lock is left held: each of these returns at once. Removing the route
  // type waits for its running callbacks: none is left.
  long hung = 0;
  static unsigned long ignored = 0;
  for (const std::function<void()>& fn : std::initializer_list<std::function<void()>>{
           [] { printRecord("after", 0, 100); },
           [] { free(zar_msg_get_msg(zarsv_client_svc_g_table[0].code, &ignored)); },
           [] {
             struct timespec d = {0, 1000};
             zarthread_delay_np(&d);
           },
           [] { zar_svc_remove_route("SLOW", &ignored); }})
    hung += !finishesWithin(1.5, fn);

  // Every print that returned wrote its record; the one a cancel
  // interrupted may or may not have.
  zar::test::RecordTally tally;
  tallyFile(path, false, &tally);
  std::map<std::string, std::pair<long, long>> expected{{"after", {0, 1}}};
  long prints = 0, lookups = 0, inFlightMissing = 0;
  for (const auto& w : all) {
    std::string key = named("w", w->id);
    long done = w->printed.load();
    expected[key] = {0, done + 1};
    const auto& seqs = tally.seqs[key];
    inFlightMissing += std::find(seqs.begin(), seqs.end(), done) == seqs.end();
    prints += done;
    lookups += w->lookups.load();
  }
  zar::test::Loss loss = zar::test::judge(tally, expected);
  loss.lost -= inFlightMissing;  // the detail describes those too
  if (loss.lost + loss.duplicated + loss.unexpected + loss.unordered == 0) loss.detail.clear();
  reportRecords(run, tally, loss);
  run.figure("prints", prints);
  run.figure("lookups", lookups);
  run.figure("callbacks", gCallbacks.load());
  run.faults("hung", hung);
  run.faults("not_cancelled", notCancelled);
});

}  // namespace
}  // namespace zar::stress
