#include "tests/testutil/caproute.h"

#include <stdarg.h>
#include <stdio.h>


namespace zar::test {

CaptureRoute::CaptureRoute(std::string name) : name_(std::move(name)) {
  zar_svc_add_route(name_.c_str(), this, open, print, close, &addStatus_);
}

CaptureRoute::~CaptureRoute() {
  if (!removed_) remove();
  for (std::string* w : wheres_) delete w;
}

unsigned long CaptureRoute::remove() {
  removed_ = true;
  unsigned long st = 0;
  zar_svc_remove_route(name_.c_str(), &st);
  return st;
}

void CaptureRoute::open(const char*, const char* where, void* arg, void** data, int32_t* ok) {
  auto self = static_cast<CaptureRoute*>(arg);
  if (self->onOpen && !self->onOpen(where)) return;
  std::lock_guard<std::mutex> lock(self->mu_);
  self->opens_.push_back(where);
  self->wheres_.push_back(new std::string(where));
  *data = self->wheres_.back();
  *ok = 1;
}

void CaptureRoute::print(void* arg, void* data, zar_svc_prolog* p, va_list args) {
  auto self = static_cast<CaptureRoute*>(arg);
  if (self->onPrint) self->onPrint();
  va_list copy;
  va_copy(copy, args);
  int n = vsnprintf(nullptr, 0, p->format, copy);
  va_end(copy);
  std::string text(n > 0 ? static_cast<size_t>(n) : 0, '\0');
  if (n > 0) vsnprintf(&text[0], text.size() + 1, p->format, args);
  std::lock_guard<std::mutex> lock(self->mu_);
  self->records_.push_back(Record{*static_cast<std::string*>(data), p->format, text,
                                  p->attributes, p->message_index, p->file, p->line});
}

void CaptureRoute::close(const char*, void* arg, void* data, unsigned long*) {
  auto self = static_cast<CaptureRoute*>(arg);
  std::lock_guard<std::mutex> lock(self->mu_);
  if (data == nullptr) {
    ++self->typeCloses_;
  } else {
    ++self->closes_;
  }
}

std::vector<std::string> CaptureRoute::opens() {
  std::lock_guard<std::mutex> lock(mu_);
  return opens_;
}

std::vector<CaptureRoute::Record> CaptureRoute::records() {
  std::lock_guard<std::mutex> lock(mu_);
  return records_;
}

int CaptureRoute::closes() {
  std::lock_guard<std::mutex> lock(mu_);
  return closes_;
}

int CaptureRoute::typeCloses() {
  std::lock_guard<std::mutex> lock(mu_);
  return typeCloses_;
}

}  // namespace zar::test
