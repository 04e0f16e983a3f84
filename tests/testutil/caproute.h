// A capture route: a route type registered under a name that keeps what its
// callbacks receive, for the tests of route types and of what prints to
// them. The hooks let a test fail an open, or block or cancel a thread
// inside a callback. Read the fields once the callbacks are done.
#ifndef ZAR_TESTS_TESTUTIL_CAPROUTE_H_
#define ZAR_TESTS_TESTUTIL_CAPROUTE_H_

#include <stdarg.h>
#include <stdio.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "zar/svc.h"

namespace zar::test {

class CaptureRoute {
 public:
  struct Record {
    std::string format;  // the prolog's format during the call
    std::string text;    // the format rendered with its arguments
    int line;
  };

  explicit CaptureRoute(const char* name) : name_(name) {
    zar_svc_add_route(name, this, open, print, close, &addStatus);
  }
  ~CaptureRoute() {
    if (!removed_) remove();
  }
  unsigned long remove() {
    removed_ = true;
    unsigned long st = 1;
    zar_svc_remove_route(name_.c_str(), &st);
    return st;
  }

  std::function<bool(const std::string& where)> onOpen;  // false: the open fails
  std::function<void()> onPrint;
  unsigned long addStatus = 1;
  std::vector<std::string> opens;  // WHERE texts of the routes opened
  std::vector<Record> records;
  int closes = 0;      // closes of one route
  int typeCloses = 0;  // closes with null route data: the type went

 private:
  static void open(const char*, const char* where, void* arg, void** data, int32_t* ok) {
    auto self = static_cast<CaptureRoute*>(arg);
    if (self->onOpen && !self->onOpen(where)) return;
    std::lock_guard<std::mutex> lock(self->mu_);
    self->opens.push_back(where);
    *data = self;
    *ok = 1;
  }
  static void print(void* arg, void*, zar_svc_prolog* p, va_list args) {
    auto self = static_cast<CaptureRoute*>(arg);
    if (self->onPrint) self->onPrint();
    char text[1024];
    vsnprintf(text, sizeof text, p->format, args);
    std::lock_guard<std::mutex> lock(self->mu_);
    self->records.push_back(Record{p->format, text, p->line});
  }
  static void close(const char*, void* arg, void* data, unsigned long*) {
    auto self = static_cast<CaptureRoute*>(arg);
    std::lock_guard<std::mutex> lock(self->mu_);
    ++(data != nullptr ? self->closes : self->typeCloses);
  }

  std::string name_;
  bool removed_ = false;
  std::mutex mu_;
};

}  // namespace zar::test

#endif  // ZAR_TESTS_TESTUTIL_CAPROUTE_H_
