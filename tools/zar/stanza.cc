// zar stanza: reads and edits stanza configuration files for administrators.
//
//   zar stanza [--nowait] FILE list [STANZA]
//   zar stanza [--nowait] FILE get STANZA ENTRY
//   zar stanza [--nowait] FILE set [--create] STANZA ENTRY VALUE
//   zar stanza [--nowait] FILE delete STANZA [ENTRY]
//   zar stanza [--nowait] FILE validate
//
// set refuses a stanza that is not there unless --create is given (a typing
// error would otherwise add a stanza), and a value or name that the file
// format cannot hold as written: it would be read back differently.
//
// Reads take the shared lock, edits the exclusive lock, each for the whole
// command; --nowait fails at once when another process holds the file.
// Exit status: 0 done, 1 failed or not found (with a message on standard
// error), 2 bad usage.
#include <ctype.h>
#include <stdio.h>
#include <string.h>

#include "tools/zar/command.h"
#include "zar/zar.h"

namespace zar::tool {
namespace {

// Prints "zar stanza: FILE: <text of status>" and returns 1.
int failure(const char* file, uint32_t status) {
  zar_error_string_t text;
  int st = 0;
  zar_error_inq_text(status, text, &st);
  fprintf(stderr, "zar stanza: %s: %s\n", file, text);
  return 1;
}

int notFound(const char* file, const char* what, const char* stanza, const char* entry) {
  if (entry != nullptr)
    fprintf(stderr, "zar stanza: %s: no %s '%s' in stanza [%s]\n", file, what, entry, stanza);
  else
    fprintf(stderr, "zar stanza: %s: no %s [%s]\n", file, what, stanza);
  return 1;
}

// Owns an open record for the duration of one command.
class Open {
 public:
  Open(const char* path, uint32_t flags) { f_ = zarStzFileOpen(path, flags, &status_); }
  ~Open() { zarStzFileClose(f_); }
  Open(const Open&) = delete;
  Open& operator=(const Open&) = delete;
  zarStzFile* get() const { return f_; }
  uint32_t status() const { return status_; }

 private:
  zarStzFile* f_ = nullptr;
  uint32_t status_ = 0;
};

int list(const char* path, zarStzFile* f, const char* stanza) {
  if (stanza == nullptr) {
    for (zarStzMoveFirstStanza(f); f->status == 0 && f->stanzaName != nullptr;
         zarStzMoveNextStanza(f))
      printf("%s\n", f->stanzaName);
  } else {
    if (!zarStzMoveStanza(f, stanza))
      return f->status != 0 ? failure(path, f->status) : notFound(path, "stanza", stanza, nullptr);
    for (; f->status == 0 && f->entryName != nullptr; zarStzMoveNextEntry(f))
      printf("%s = %s\n", f->entryName, f->value != nullptr ? f->value : "");
  }
  return f->status != 0 ? failure(path, f->status) : 0;
}

int get(const char* path, zarStzFile* f, const char* stanza, const char* entry) {
  if (!zarStzMoveStanza(f, stanza))
    return f->status != 0 ? failure(path, f->status) : notFound(path, "stanza", stanza, nullptr);
  if (!zarStzMoveEntryInStanza(f, entry))
    return f->status != 0 ? failure(path, f->status) : notFound(path, "entry", stanza, entry);
  printf("%s\n", f->value != nullptr ? f->value : "");
  return 0;
}

// Why text cannot be written as a stanza name, entry name or value (what),
// or null when it can: a line break ends the line, '#' starts a comment, the
// reader drops blanks around names and values. (The library itself refuses
// ']' in a stanza name and '=' in an entry name.)
const char* unwritable(const char* text, char what) {
  size_t len = strlen(text);
  if (strpbrk(text, "\n\r") != nullptr) return "contains a line break";
  if (strchr(text, '#') != nullptr) return "contains '#', which starts a comment";
  if (len > 0 && (isblank(static_cast<unsigned char>(text[0])) ||
                  isblank(static_cast<unsigned char>(text[len - 1]))))
    return "starts or ends with a blank, which reading drops";
  if (what != 'v' && len == 0) return "is empty";
  return nullptr;
}

int set(const char* path, zarStzFile* f, const char* stanza, const char* entry, const char* value,
        bool create) {
  if (!zarStzMoveStanza(f, stanza)) {
    if (f->status != 0) return failure(path, f->status);
    if (!create) {
      fprintf(stderr, "zar stanza: %s: no stanza [%s] (give --create to add it)\n", path, stanza);
      return 1;
    }
    zarStzAddStanza(f, stanza);
    if (f->status != 0) return failure(path, f->status);
  }
  zarStzAddEntry(f, entry, value);
  return f->status != 0 ? failure(path, f->status) : 0;
}

int remove(const char* path, zarStzFile* f, const char* stanza, const char* entry) {
  if (!zarStzMoveStanza(f, stanza))
    return f->status != 0 ? failure(path, f->status) : notFound(path, "stanza", stanza, nullptr);
  if (entry == nullptr) return zarStzDeleteStanza(f, stanza) ? 0 : failure(path, f->status);
  if (!zarStzMoveEntryInStanza(f, entry))
    return f->status != 0 ? failure(path, f->status) : notFound(path, "entry", stanza, entry);
  return zarStzDeleteCurrentEntry(f) ? 0 : failure(path, f->status);
}

int run(const Command& self, int argc, char** argv) {
  int i = 1;
  uint32_t wait = 0;
  if (i < argc && strcmp(argv[i], "--nowait") == 0) {
    wait = ZAR_STZ_NOWAIT;
    ++i;
  }
  if (argc - i < 2) return usageError(self, "a file and an action are needed");
  const char* path = argv[i];
  const char* action = argv[i + 1];
  char** args = argv + i + 2;
  int nargs = argc - i - 2;

  struct Action {
    const char* name;
    int minArgs, maxArgs;
    bool edit;
  };
  static const Action kActions[] = {
      {"list", 0, 1, false},  {"get", 2, 2, false},      {"set", 3, 3, true},
      {"delete", 1, 2, true}, {"validate", 0, 0, false},
  };
  const Action* a = nullptr;
  for (const Action& candidate : kActions) {
    if (strcmp(candidate.name, action) == 0) a = &candidate;
  }
  if (a == nullptr) return usageError(self, "unknown action '%s'", action);
  if (nargs < a->minArgs || nargs > a->maxArgs + (a->edit ? 1 : 0))
    return usageError(self, "wrong number of arguments for '%s'", action);

  bool create = false;
  if (a->edit && nargs > 0 && strcmp(args[0], "--create") == 0 && action[0] == 's') {
    create = true;
    ++args;
    --nargs;
  }
  if (nargs < a->minArgs || nargs > a->maxArgs)
    return usageError(self, "wrong number of arguments for '%s'", action);
  if (action[0] == 's') {
    const char* names[] = {"stanza name", "entry name", "value"};
    for (int k = 0; k < 3; ++k) {
      if (const char* why = unwritable(args[k], "sev"[k]))
        return usageError(self, "the %s '%s' %s", names[k], args[k], why);
    }
  }
  // The user's locale (names and values are in its code page), the program
  // name of the records, and the components that log the library's messages.
  zarmsg_init("zar", 0);
  Open file(path, (a->edit ? ZAR_STZ_WRITE : ZAR_STZ_READ) | wait);
  zarStzFile* f = file.get();
  if (f == nullptr) return failure(path, file.status());
  const char* arg0 = nargs > 0 ? args[0] : nullptr;
  const char* arg1 = nargs > 1 ? args[1] : nullptr;
  switch (action[0]) {
    case 'l':
      return list(path, f, arg0);
    case 'g':
      return get(path, f, arg0, arg1);
    case 's':
      return set(path, f, arg0, arg1, args[2], create);
    case 'd':
      return remove(path, f, arg0, arg1);
    default:
      return zarStzValidate(f) ? 0 : failure(path, f->status);
  }
}

}  // namespace

ZAR_TOOL_COMMAND(
    "stanza",
    "[--nowait] FILE list [STANZA] | get STANZA ENTRY | set [--create] STANZA ENTRY VALUE | "
    "delete STANZA [ENTRY] | validate",
    "read and edit stanza configuration files", run);

}  // namespace zar::tool
