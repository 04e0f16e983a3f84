// Route types registered at run time: waiting routes taken over and falling
// back, statuses, what each print entry point hands a type, and a removal
// waiting for a running print. Threads cancelled inside callbacks are the
// reliability suite's cancel scenario.
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <set>
#include <thread>

#include "tests/testutil/caproute.h"
#include "tests/testutil/stress.h"
#include "tests/testutil/testutil.h"
#include "zar/status.h"

namespace {

using zar::test::CaptureFd;
using zar::test::CaptureRoute;
using Strings = std::vector<std::string>;

constexpr uint32_t kSysFailed = 0x38C5209C;  // "XKJSC0156E   The %s system routine failed: ..."
const char kSysText[] = "XKJSC0156E   The read system routine failed: system error code: 7";

using SvcDynRoute = zar::test::SvcTest;
using zar::test::svcRoute;

void print(uint32_t severity) {
  zar_svc_printf_withfile(zarsv_client_svc_handle, "dyn.cc", 5, "%s%d", 0, severity, kSysFailed,
                          "read", 7);
}

bool printsToStderr(uint32_t severity) {
  CaptureFd err(2);
  print(severity);
  return !err.text().empty();
}
void opened(const char*, const char*, void*, void**, int32_t* ok) { *ok = 1; }
void noPrint(void*, void*, zar_svc_prolog*, va_list) {}

TEST_F(SvcDynRoute, TypeTakesOverWaitingRoutesWhichFallBackWhenItGoes) {
  EXPECT_ZAR_OK(svcRoute("WARNING:CAPA:arg1"));
  EXPECT_TRUE(printsToStderr(svc_c_sev_warning));  // waiting as its fallback
  auto cap = std::make_unique<CaptureRoute>("CAPA");
  ASSERT_ZAR_OK(cap->addStatus);
  EXPECT_EQ(Strings{"arg1"}, cap->opens);
  EXPECT_FALSE(printsToStderr(svc_c_sev_warning));
  ASSERT_EQ(1u, cap->records.size());
  EXPECT_EQ("%s", cap->records[0].format);
  EXPECT_EQ(kSysText, cap->records[0].text);
  // Removal tells the type once, without route data; the route falls back.
  EXPECT_ZAR_OK(cap->remove());
  EXPECT_EQ(1, cap->typeCloses);
  EXPECT_EQ(0, cap->closes);
  EXPECT_TRUE(printsToStderr(svc_c_sev_warning));
  // Registered again the name takes the route over again; routing the
  // severity elsewhere closes it on the type.
  CaptureRoute again("CAPA");
  EXPECT_EQ(Strings{"arg1"}, again.opens);
  EXPECT_ZAR_OK(svcRoute("WARNING:DISCARD:"));
  EXPECT_EQ(1, again.closes);
}

TEST_F(SvcDynRoute, BadNamesFailedOpensSecondRegistrationsAndUnknownRemovals) {
  unsigned long st = 0;
  for (const char* bad : {"", "STDERR", "GOESTO", "FILE", "XMLSTDOUT", "a.b", "a:b", "a;b"}) {
    zar_svc_add_route(bad, nullptr, opened, noPrint, nullptr, &st);
    EXPECT_ZAR_STATUS(ZAR_S_SVC_BAD_ROUTE, st) << bad;
  }
  zar_svc_add_route("CAPN", nullptr, nullptr, noPrint, nullptr, &st);  // no open callback
  EXPECT_ZAR_STATUS(ZAR_S_SVC_BAD_ROUTE, st);
  zar_svc_remove_route("NOSUCHTYPE", &st);
  EXPECT_ZAR_STATUS(ZAR_S_SVC_BAD_ROUTE, st);
  zar_svc_add_route("stderr", nullptr, opened, noPrint, nullptr, &st);  // kinds are upper case
  EXPECT_ZAR_OK(st);

  CaptureRoute first("CAPB");
  first.onOpen = [](const std::string& where) { return where != "bad"; };
  zar_svc_add_route("CAPB", nullptr, opened, noPrint, nullptr, &st);  // the first one stays
  EXPECT_ZAR_OK(st);
  EXPECT_ZAR_OK(svcRoute("NOTICE:CAPB:x"));
  EXPECT_EQ(Strings{"x"}, first.opens);
  // A failed open is the routing's status unless a later element succeeds;
  // its route writes as the fallback.
  EXPECT_ZAR_STATUS(ZAR_S_SVC_ROUTE_OPEN_FAILED, svcRoute("NOTICE:CAPB:bad"));
  EXPECT_TRUE(printsToStderr(svc_c_sev_notice));
  EXPECT_ZAR_OK(svcRoute("NOTICE:CAPB:bad;DISCARD:"));
  EXPECT_ZAR_OK(first.remove());
  EXPECT_ZAR_STATUS(ZAR_S_SVC_BAD_ROUTE, first.remove());
}

TEST_F(SvcDynRoute, EachEntryPointHandsTheTypeTheTextOrTheArguments) {
  CaptureRoute cap("CAPE");
  unsigned long st = 1;
  zar_svc_debug_routing("wsc:core.9:CAPE:dbg", &st);
  ASSERT_ZAR_OK(st);
  ASSERT_ZAR_OK(svcRoute("ERROR:CAPE:err"));
  zar_svc_handle h = zarsv_client_svc_handle;
  print(svc_c_sev_error);
  zar_svc_printf_cs_withfile(h, zarsvc_get_utf8_code_page(), "f", 1, "%s%d", 0, svc_c_sev_error,
                             kSysFailed, "read", 7);
  zar_svc__debug(h, 0, 3, "n=%d", 4);
  zar_svc__debug_utf8(h, 0, 3, "n=%d", 4);
  zar_svc__debug_utf8_withfile(h, "f", 1, 0, 3, "n=%d", 4);
  Strings got;
  for (const CaptureRoute::Record& r : cap.records) got.push_back(r.format + "|" + r.text);
  EXPECT_EQ((Strings{std::string("%s|") + kSysText,
                     "XKJSC0156E   The %s system routine failed: system error code: %d|" +
                         std::string(kSysText),
                     "%s|n=4", "n=%d|n=4", "%s|n=4"}),
            got);
  // Debug routes of a type that goes write nowhere.
  EXPECT_ZAR_OK(cap.remove());
  CaptureFd err(2);
  zar_svc__debug(h, 0, 1, "gone");
  EXPECT_EQ("", err.text());
}

// Phases of a print that a removal must wait for: 1 entered, 2 released,
// 3 returned.
std::atomic<int> gPhase{0};
std::atomic<bool> gClosedAfterPrint{false};

TEST_F(SvcDynRoute, RemovalWaitsForARunningPrint) {
  unsigned long st = 1;
  zar_svc_add_route(
      "CAPW", nullptr, opened,
      [](void*, void*, zar_svc_prolog*, va_list) {
        gPhase.store(1);
        while (gPhase.load() != 2) usleep(1000);
        gPhase.store(3);
      },
      [](const char*, void*, void* data, unsigned long*) {
        if (data == nullptr) gClosedAfterPrint.store(gPhase.load() == 3);
      },
      &st);
  ASSERT_ZAR_OK(svcRoute("NOTICE:CAPW:x"));
  std::thread printer([] { print(svc_c_sev_notice); });
  while (gPhase.load() != 1) sched_yield();
  std::thread remover([] { zar_svc_remove_route("CAPW", nullptr); });
  usleep(50000);  // a removal that did not wait would have told the type by now
  gPhase.store(2);
  printer.join();
  remover.join();
  EXPECT_TRUE(gClosedAfterPrint.load());
}

// One registration of a type that checks that prints reach only open routes.
// The test deletes it once its removal returned: a later callback would be a
// use after free.
struct Instance {
  std::mutex mu;
  std::set<void*> live;  // route data of the open routes
  int bad = 0;
  static Instance& of(void* arg) { return *static_cast<Instance*>(arg); }
  static void open(const char*, const char*, void* arg, void** data, int32_t* ok) {
    std::lock_guard<std::mutex> lock(of(arg).mu);
    of(arg).live.insert(*data = new int(0));
    *ok = 1;
  }
  static void print(void* arg, void* data, zar_svc_prolog*, va_list) {
    std::lock_guard<std::mutex> lock(of(arg).mu);
    of(arg).bad += of(arg).live.count(data) == 0;
  }
  static void close(const char*, void* arg, void* data, unsigned long*) {
    Instance& in = of(arg);
    std::lock_guard<std::mutex> lock(in.mu);
    if (data == nullptr) {  // the type goes: its routes are done with
      for (void* d : in.live) delete static_cast<int*>(d);
      in.live.clear();
    } else if (in.live.erase(data) == 1) {
      delete static_cast<int*>(data);
    } else {
      ++in.bad;
    }
  }
};

TEST_F(SvcDynRoute, TypesComeAndGoWhileThreadsPrint) {
  CaptureFd err(2);  // severity routes write to standard error between registrations
  unsigned long st = 1;
  zar_svc_debug_routing("wsc:*.9:CAPC:d1;CAPC:d2", &st);
  ASSERT_ZAR_OK(st);
  ASSERT_ZAR_OK(svcRoute("NOTICE:CAPC:n1;CAPC:n2"));
  std::atomic<bool> done{false};
  long wrong = zar::test::runConcurrently(3, [&](int t) -> long {
    while (t < 2 && !done.load()) {
      if (t == 0) print(svc_c_sev_notice);
      if (t == 1) zar_svc__debug(zarsv_client_svc_handle, 1, 5, "d");
    }
    long n = 0;
    for (int i = 0; t == 2 && i < 200; ++i) {
      auto in = std::make_unique<Instance>();
      unsigned long s = 1;
      zar_svc_add_route("CAPC", in.get(), Instance::open, Instance::print, Instance::close, &s);
      n += s != 0;
      if (i % 4 == 0) n += svcRoute("NOTICE:CAPC:n1;CAPC:n2") != 0;  // closes on the type
      zar_svc_remove_route("CAPC", &s);
      std::lock_guard<std::mutex> lock(in->mu);
      n += (s != 0) + in->bad + static_cast<long>(in->live.size());
    }
    if (t == 2) done.store(true);
    return n;
  });
  EXPECT_EQ(0, wrong);
}

}  // namespace
