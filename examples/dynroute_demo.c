/*
 * dynroute_demo: a route type of the program's own. The type "COUNTER"
 * counts the records routed to it per severity and keeps the text of the
 * last one; a summary is printed when the program ends. Warnings are routed
 * to it with zar_svc_routing; once the type is removed, warnings go to
 * standard error again.
 *
 *   dynroute_demo [N]      N warnings (default 3) while the type is there
 */
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <zar/zar.h>

struct counter {
  unsigned long records[5]; /* by severity, FATAL to NOTICE_VERBOSE */
  unsigned long opens;
  unsigned long closes;
  char last[512];
};

static struct counter counts;

/* The callbacks run while the library holds its serviceability mutex: they
 * must not print serviceability messages themselves. */
static void counter_open(const char* name, const char* where, void* arg, void** route_data,
                         int32_t* opened) {
  struct counter* c = arg;
  (void)name;
  (void)where;
  c->opens++;
  *route_data = c;
  *opened = 1;
}

static void counter_print(void* arg, void* route_data, zar_svc_prolog* prolog, va_list args) {
  struct counter* c = arg;
  unsigned sev = (prolog->attributes & svc_c_sev_mask) >> 4;
  (void)route_data;
  if (sev >= 1 && sev <= 5) c->records[sev - 1]++;
  vsnprintf(c->last, sizeof c->last, prolog->format, args);
}

static void counter_close(const char* name, void* arg, void* route_data, unsigned long* status) {
  struct counter* c = arg;
  (void)name;
  (void)status;
  /* Null route data: the type itself is going while routes still use it. */
  if (route_data != NULL) c->closes++;
}

static void summary(void) {
  static const uint32_t severities[] = {svc_c_sev_fatal, svc_c_sev_error, svc_c_sev_warning,
                                        svc_c_sev_notice, svc_c_sev_notice_verbose};
  size_t i;
  printf("COUNTER summary: %lu route(s) opened, %lu closed\n", counts.opens, counts.closes);
  for (i = 0; i < 5; ++i) {
    if (counts.records[i] != 0)
      printf("  %s: %lu record(s)\n", zar_svc_inq_sev_name(severities[i]), counts.records[i]);
  }
  printf("  last: %s\n", counts.last);
}

static void warn(const char* routine, int code) {
  zar_svc_printf_withfile(zarsv_client_svc_handle, __FILE__, __LINE__, "%s%d", 0,
                          svc_c_sev_warning, ZAR_S_SYSCALL_FAILED_CODE, routine, code);
}

int main(int argc, char** argv) {
  int n = argc > 1 ? atoi(argv[1]) : 3;
  unsigned long st = 0;
  int i;
  if (!zarmsg_init("dynroute_demo", 0)) return 1;
  atexit(summary);

  zar_svc_add_route("COUNTER", &counts, counter_open, counter_print, counter_close, &st);
  if (st != 0) {
    fprintf(stderr, "dynroute_demo: zar_svc_add_route: 0x%8.8lx\n", st);
    return 1;
  }
  zar_svc_routing("WARNING:COUNTER:warnings", &st);
  if (st != 0) {
    fprintf(stderr, "dynroute_demo: zar_svc_routing: 0x%8.8lx\n", st);
    return 1;
  }
  for (i = 0; i < n; ++i) warn("read", i);

  zar_svc_remove_route("COUNTER", &st);
  if (st != 0) {
    fprintf(stderr, "dynroute_demo: zar_svc_remove_route: 0x%8.8lx\n", st);
    return 1;
  }
  warn("write", 99); /* standard error: the route has fallen back */
  return 0;
}
