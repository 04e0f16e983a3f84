// How the modules below the serviceability report their own failures.
//
// A module of a lower layer never calls the serviceability: it reports a
// failure here, as a status code with its arguments, and the serviceability
// turns the report into a record through the hook it installs when it starts
// (at library load). Without a hook, reports take the raw path of
// base/rawlog.h.
//
// The hook is entered at most once per thread at a time: a report made while
// this thread is already inside one (the record's own making failed and
// reported again) takes the raw path. This is the library's one re-entry
// guard; active() lets the code-set set-up see it.
//
// Thread safety: everything here may be called from any thread.
#ifndef ZAR_BASE_REPORT_H_
#define ZAR_BASE_REPORT_H_

#include <stdarg.h>
#include <stdint.h>

namespace zar::report {

struct Hook {
  // Reports status code `code` as an error of the library, from the module
  // whose record name is recordFile, at line. argTypes gives the types of the
  // arguments in args, in the form of a message's argument list ("%s%d").
  void (*error)(const char* recordFile, int line, uint32_t code, const char* argTypes,
                va_list args);
  // Reports a failed internal check (expression expr, at file and line) and
  // ends the process, unless the serviceability's filter suppresses it.
  void (*checkFailed)(const char* expr, const char* file, int line);
};

// Installs the hook (null: back to the raw path). The hook object must live
// for the rest of the process.
void install(const Hook* hook) noexcept;

void error(const char* recordFile, int line, uint32_t code, const char* argTypes, ...);
void checkFailed(const char* expr, const char* file, int line);

// True while the calling thread is inside a report.
bool active() noexcept;

// The raw form of an error report, used without a hook and for reports made
// inside a report: "<recordFile>: status 0x<code>" and the arguments.
void rawError(const char* recordFile, int line, uint32_t code, const char* argTypes,
              va_list args);

}  // namespace zar::report

// Checks an internal invariant: a failure is reported and ends the process.
#define ZAR_CHECK(cond, file) \
  ((cond) ? (void)0 : ::zar::report::checkFailed(#cond, (file), __LINE__))

#endif  // ZAR_BASE_REPORT_H_
