// Reads its options the way the product's tools do, with ZARCmdLine: from the
// command line and from one stanza of a response file. Options it does not
// know and options given more than once are reported with the product's
// message texts, which a ZARMsgCache fetches once each.
//
// Usage: cmdline_demo [-rspfile FILE [-stanza NAME]] [-host NAME] [-port N]
//                     [-verbose yes|no]
//
// The command line is parsed before the response file is loaded, so its
// options override the file's. The stanza defaults to [cmdline_demo].
// Exit status: 0; 1 when the response file could not be read (completely);
// 2 for an unknown option or a bad value.
#include <stdarg.h>
#include <stdio.h>

#include <initializer_list>

#include <zar/zar.hpp>

namespace {

// Texts of the product's deploy (0x38C53...) and client (0x38C52...) messages.
constexpr unsigned kGivenTwice = 0x38C53127;     // XKJSD0295W: option, value used
constexpr unsigned kNotYesNo = 0x38C5312A;       // XKJSD0298E: value, option
constexpr unsigned kRspUnreadable = 0x38C53132;  // XKJSD0306E: file, status
constexpr unsigned kUnknownEntry = 0x38C53134;   // XKJSD0308E: entry, stanza
constexpr unsigned kUnknownOption = 0x38C521F3;  // XKJSC0499E: option, command

const char kProgram[] = "cmdline_demo";
const char* const kKnown[] = {"rspfile", "stanza", "host", "port", "verbose"};

ZARMsgCache messages;

// Prints message id on standard error, its text formatted with the arguments.
void report(unsigned id, ...) {
  fflush(stdout);  // keep the order of the two streams on a terminal
  const char* format = messages.getMessage(id);
  if (format == nullptr) {  // memory exhausted
    fprintf(stderr, "%s: message 0x%8.8x\n", kProgram, id);
    return;
  }
  va_list args;
  va_start(args, id);
  fprintf(stderr, "%s: ", kProgram);
  vfprintf(stderr, format, args);
  fputc('\n', stderr);
  va_end(args);
}

}  // namespace

int main(int argc, char** argv) {
  if (zarmsg_init(kProgram, 0) != 1) return 1;
  int exitStatus = 0;
  ZARCmdLine options;
  unsigned st = options.initialize(argc, argv);
  if (st != 0) return 1;  // out of memory; the library has said so

  ZARStringRef text;
  if (options.getCmdName(text) == 0) printf("command: %s\n", text.getData());

  ZARStringRef file;
  if (options.findOption("rspfile", file) == 0) {
    ZARStringRef stanza(kProgram);
    options.findOption("stanza", stanza);  // the default stays when there is none
    st = options.loadRspFile(file, stanza);
    if (st != 0) {
      report(kRspUnreadable, file.getData(), static_cast<unsigned long>(st));
      exitStatus = 1;
    }
  }

  for (const char* name : kKnown) options.validated(name);
  for (const char* name : {"host", "port"}) {
    if (options.findOption(name, text) == 0) printf("%s = %s\n", name, text.getData());
  }
  bool verbose = false;
  if (options.findOption("verbose", verbose) == ZAR_S_CMDLINE_BAD_OPTION) {
    options.findOption("verbose", text);
    report(kNotYesNo, text.getData(), "verbose");
    exitStatus = 2;
  }
  printf("verbose = %s\n", verbose ? "yes" : "no");

  ZARString* name = nullptr;
  ZARCmdLine::Option* option = nullptr;
  ZARCmdLine::OptionIter unknown(options.invalidOptions());
  while (unknown.next(name, option)) {
    if (option->rspFile.getLen() > 0) {
      report(kUnknownEntry, name->getData(), option->stanza.getData());
    } else {
      ZARString dashed("-");
      dashed.append(*name);
      report(kUnknownOption, dashed.getData(), kProgram);
    }
    exitStatus = 2;
  }
  ZARCmdLine::OptionIter again(options.duplicateOptions());
  while (again.next(name, option)) {
    options.findOption(*name, text);
    report(kGivenTwice, name->getData(), text.getData());
  }
  return exitStatus;
}
