// The product's three components: their sub-component tables, handle
// variables, and their registration by zar_svc_init. Their compiled message
// tables are generated from messages/*.msg.
#include "core/svcutl/svcprod.h"

#include "base/zarstatus.h"
#include "core/svcutl/svcint.h"

extern "C" {

ZAR_API zar_svc_subcomp zarsv_client_svc_table[] = {
    {"core", "kpsrv.core", 0x38C52FD2, 0},
    {"admin", "kpsrv.admin", 0x38C52FD4, 0},
    {"azn-svc", "kpsrv.azn-svc", 0x38C52FD3, 0},
    {nullptr, nullptr, 0, 0},
};

ZAR_API zar_svc_subcomp zarsv_deploy_svc_table[] = {
    {"deploy", "kpweb.srv.deploy", 0x38C53FD2, 0},
    {"config", "kpweb.srv.config", 0x38C53FD3, 0},
    {"usage", "kpweb.srv.usage", 0x38C53FD4, 0},
    {"questions", "kpweb.srv.questions", 0x38C53FD5, 0},
    {"srvconfig", "kpweb.srv.srvconfig", 0x38C53FD6, 0},
    {"srvshlib", "kpweb.srv.srvshlib", 0x38C53FD7, 0},
    {nullptr, nullptr, 0, 0},
};

ZAR_API zar_svc_subcomp zarsv_if_svc_table[] = {
    {"keys", "kpsrv.keys", 0x38C58FD2, 0},
    {"interface", "kpsrv.interface", 0x38C58FD3, 0},
    {nullptr, nullptr, 0, 0},
};

ZAR_API zar_svc_handle zarsv_client_svc_handle = nullptr;
ZAR_API zar_svc_handle zarsv_deploy_svc_handle = nullptr;
ZAR_API zar_svc_handle zarsv_if_svc_handle = nullptr;

namespace {

// Registers each product component whose handle is still null, in the order
// client, deploy, interface; stops at the first failure.
void registerProduct(unsigned long* status) ZAR_REQUIRES(zar::svc::gSvc.mutex) {
  struct Component {
    zar_svc_subcomp* table;
    const char* name;
    zar_svc_handle* handle;
  };
  const Component components[] = {
      {zarsv_client_svc_table, "wsc", &zarsv_client_svc_handle},
      {zarsv_deploy_svc_table, "wsd", &zarsv_deploy_svc_handle},
      {zarsv_if_svc_table, "wsi", &zarsv_if_svc_handle},
  };
  zar::setStatus(status, 0);
  for (const Component& c : components) {
    if (*c.handle != nullptr) continue;
    zar_svc_handle h = zar::svc::registerHandle(c.table, c.name, status);
    if (h == nullptr) return;
    *c.handle = h;
  }
}

}  // namespace

ZAR_API void zar_svc_init(unsigned long magic,
                          unsigned long* status) ZAR_NO_THREAD_SAFETY_ANALYSIS {
  if (magic == ZAR_SVC_INIT_MUTEX_HELD) {
    zar::svc::ensureInit();
    registerProduct(status);
    return;
  }
  // One hold of the mutex for all three, so that two threads initialising at
  // once register each component once.
  zar::svc::SvcLock lock;
  registerProduct(status);
}

}  // extern "C"

zar_svc_handle zar::svc::clientHandle() {
  if (zarsv_client_svc_handle == nullptr) {
    unsigned long st = 0;
    zar_svc_init(0, &st);
  }
  return zarsv_client_svc_handle;
}
