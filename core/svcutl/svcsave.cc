// The per-thread message save: a thread keeps its severity messages, fully
// formatted, in a list of its own (held back or also printed), and later
// prints them through the routes of their severities, clears them, or keeps
// them. The list lives in the thread-specific slot made at set-up and goes
// with the thread.
#include <pthread.h>
#include <stdarg.h>
#include <string.h>

#include "base/zarmem.h"
#include "core/svcutl/svcint.h"
#include "zar/status.h"

namespace zar::svc {

// One saved message, in the form its print call had it.
// Invariants: text and file are owned; prolog.format is null (the
// arguments are gone) and prolog.file is file.
struct SavedMsg {
  SavedMsg* next;         // the next newer message
  bool utf8Source;        // text is UTF-8, else in the local code set
  int32_t textLength;
  char* text;             // the message formatted in its source code set, or null
  char* file;             // copy of the saving call's file name
  zar_svc_prolog prolog;  // of the saving call: handle, time, sub-component, ...
};

// One thread's save. Invariants: used only by its own thread, through the
// thread-specific slot, so no lock guards it; count messages are chained
// from first (oldest) to last; printing is set while the list is being
// printed, when clearing is put off until the print ends.
struct MsgSaveState {
  bool active;
  bool printing;
  bool clearPending;
  uint32_t selector;  // below 32; reserved (every severity message is saved)
  uint32_t mode;      // 0 save only, 1 save and print
  uint32_t count;
  SavedMsg* first;
  SavedMsg* last;
};

namespace {

MsgSaveState* threadState() {
  ensureInit();
  if (!gSvc.msgsaveKeyMade) return nullptr;
  return static_cast<MsgSaveState*>(pthread_getspecific(gSvc.msgsaveKey));
}

void freeSavedMsgs(SavedMsg* first) {
  while (first != nullptr) {
    SavedMsg* next = first->next;
    mem::free(first->text);
    mem::free(first->file);
    mem::free(first);
    first = next;
  }
}

void clearSavedMsgs(MsgSaveState* state) {
  if (state->printing) {
    state->clearPending = true;
    return;
  }
  freeSavedMsgs(state->first);
  state->first = nullptr;
  state->last = nullptr;
  state->count = 0;
}

// A handle may have been unregistered (and freed) since its
// message was saved.
bool stillRegistered(zar_svc_handle handle) ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  for (uint32_t i = 0; i < gSvc.mapSize; ++i) {
    if (gSvc.map[i] == handle) return true;
  }
  return false;
}

// args is never read: a saved record has no format.
void writeSaved(zar_svc_record* record, svc_route_list* list, ...)
    ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  va_list args;
  va_start(args, list);
  writeRoutes(record, list, nullptr, nullptr, args);
  va_end(args);
}

void printOne(const SavedMsg* msg) {
  SvcLock lock;
  zar_svc_handle handle = msg->prolog.handle;
  if (!stillRegistered(handle) || msg->prolog.table_index >= handle->table_size) return;
  int sev = severityIndex(msg->prolog.attributes);
  svc_route_list* list = &gSvc.routes[sev];
  if (list->count == 0) {
    unsigned long st = 0;
    zar_svc__fillin(msg->prolog.attributes, &st);
  }
  zar_svc_record record;
  record.prolog = msg->prolog;
  record.utf8Source = msg->utf8Source;
  record.useSavedText(msg->text, msg->textLength);
  writeSaved(&record, list);
}

}  // namespace

MsgSaveState* activeMsgSave() {
  MsgSaveState* state = threadState();
  return state != nullptr && state->active ? state : nullptr;
}

bool doSaveMsg(MsgSaveState* state, zar_svc_record* record, va_list args) {
  auto msg = static_cast<SavedMsg*>(mem::allocZero(1, sizeof(SavedMsg)));
  if (msg == nullptr) return true;  // printed as usual instead
  const zar_svc_prolog& p = record->prolog;
  msg->file = mem::strDup(p.file);
  if (msg->file == nullptr) {
    mem::free(msg);
    return true;
  }
  msg->utf8Source = record->utf8Source;
  if (p.format != nullptr) {
    nlz_cs_t cs = record->utf8Source ? utf8CodeSet() : localCodePage();
    msg->text = localSprintf(cs, p.format, &msg->textLength, args);
  }
  msg->prolog = p;
  msg->prolog.format = nullptr;
  msg->prolog.file = msg->file;
  // The caller's argument types may not outlive the call; a route type gets
  // a saved message as "%s" and its text.
  msg->prolog.argtypes = "%s";
  msg->prolog.xml = 0;
  if (state->last == nullptr) {
    state->first = msg;
  } else {
    state->last->next = msg;
  }
  state->last = msg;
  ++state->count;
  return state->mode == 1;
}

}  // namespace zar::svc

using zar::svc::MsgSaveState;

extern "C" {

void zar_svc_msgsave_destructor(void* state) {
  auto s = static_cast<MsgSaveState*>(state);
  zar::svc::freeSavedMsgs(s->first);
  zar::mem::free(s);
}

ZAR_API unsigned long zar_svc_msgsave_start(uint32_t selector, uint32_t mode, void* reserved) {
  if (reserved != nullptr || mode > 1 || selector >= 32) return ZAR_S_SVC_BAD_MSGSAVE_ARGS;
  MsgSaveState* state = zar::svc::threadState();
  if (state == nullptr) {
    if (!zar::svc::gSvc.msgsaveKeyMade) return ZAR_S_MSG_NO_MEMORY;
    state = static_cast<MsgSaveState*>(zar::mem::allocZero(1, sizeof(MsgSaveState)));
    if (state == nullptr) return ZAR_S_MSG_NO_MEMORY;
    if (pthread_setspecific(zar::svc::gSvc.msgsaveKey, state) != 0) {
      zar::mem::free(state);
      return ZAR_S_MSG_NO_MEMORY;
    }
  }
  state->selector = selector;
  state->mode = mode;
  state->active = true;
  return 0;
}

ZAR_API void zar_svc_msgsave_stop(uint8_t clear) {
  MsgSaveState* state = zar::svc::threadState();
  if (state == nullptr) return;
  state->active = false;
  if (clear != 0) zar::svc::clearSavedMsgs(state);
}

ZAR_API void zar_svc_msgsave_clear(int which) {
  if (which != -1) return;
  MsgSaveState* state = zar::svc::threadState();
  if (state != nullptr) zar::svc::clearSavedMsgs(state);
}

ZAR_API void zar_svc_msgsave_print(int which) {
  if (which != -1) return;
  MsgSaveState* state = zar::svc::threadState();
  if (state == nullptr || state->printing) return;
  // A route type's print callback of this thread may ask to clear the list
  // while it is walked; that waits until the walk ends (or is cancelled).
  struct Printing {
    explicit Printing(MsgSaveState* s) : s_(s) { s_->printing = true; }
    ~Printing() {
      s_->printing = false;
      if (s_->clearPending) {
        s_->clearPending = false;
        zar::svc::clearSavedMsgs(s_);
      }
    }
    MsgSaveState* s_;
  } printing(state);
  for (const zar::svc::SavedMsg* msg = state->first; msg != nullptr; msg = msg->next)
    zar::svc::printOne(msg);
}

}  // extern "C"
