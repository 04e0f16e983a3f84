// A capture route: a route type registered under a name that keeps what its
// callbacks receive (opens, formatted records, closes), for tests of route
// types and of everything that prints to them. Hooks let a test block,
// fail or cancel inside a callback.
#ifndef ZAR_TESTS_TESTUTIL_CAPROUTE_H_
#define ZAR_TESTS_TESTUTIL_CAPROUTE_H_

#include <stdint.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "zar/svc.h"

namespace zar::test {

class CaptureRoute {
 public:
  // One record as the print callback saw it.
  struct Record {
    std::string where;   // the open's WHERE text of the route
    std::string format;  // the prolog's format during the call
    std::string text;    // format rendered with its arguments
    uint32_t attributes;
    uint32_t msgid;
    std::string file;
    int line;
  };

  // Registers the type (the status of zar_svc_add_route in addStatus()).
  explicit CaptureRoute(std::string name);
  // Removes the type unless removed already.
  ~CaptureRoute();
  CaptureRoute(const CaptureRoute&) = delete;
  CaptureRoute& operator=(const CaptureRoute&) = delete;

  unsigned long addStatus() const { return addStatus_; }
  unsigned long remove();  // zar_svc_remove_route

  // Hooks, run inside the callbacks (set them before routes use the type).
  std::function<bool(const std::string& where)> onOpen;  // false: the open fails
  std::function<void()> onPrint;

  std::vector<std::string> opens();   // WHERE texts of successful opens
  std::vector<Record> records();
  int closes();                       // closes of one route
  int typeCloses();                   // closes with null route data (removal)

 private:
  static void open(const char* name, const char* where, void* arg, void** data, int32_t* ok);
  static void print(void* arg, void* data, zar_svc_prolog* prolog, va_list args);
  static void close(const char* name, void* arg, void* data, unsigned long* status);

  std::string name_;
  unsigned long addStatus_ = 0;
  bool removed_ = false;
  std::mutex mu_;
  std::vector<std::string*> wheres_;  // route data: one per open route
  std::vector<std::string> opens_;
  std::vector<Record> records_;
  int closes_ = 0;
  int typeCloses_ = 0;
};

}  // namespace zar::test

#endif  // ZAR_TESTS_TESTUTIL_CAPROUTE_H_
