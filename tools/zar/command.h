// Subcommands of the zar tool. Each subcommand lives in its own source file
// and registers itself with ZAR_TOOL_COMMAND; main() dispatches on the first
// argument and lists the registered commands for --help.
//
// Exit status convention of every subcommand: 0 success, 1 the operation
// failed (with the library's message on standard error), 2 bad usage (with a
// usage message on standard error).
#ifndef ZAR_TOOLS_ZAR_COMMAND_H_
#define ZAR_TOOLS_ZAR_COMMAND_H_

namespace zar::tool {

struct Command {
  const char* name;      // the first argument that selects it, e.g. "errtext"
  const char* synopsis;  // arguments after the name, e.g. "[--utf8] CODE..."
  const char* summary;   // one line for zar --help
  // argv[0] is the subcommand name; argv[argc] is null.
  int (*run)(const Command& self, int argc, char** argv);
};

bool registerCommand(const Command& cmd);

// Prints "zar NAME: MESSAGE" and the usage line to standard error; returns 2.
int usageError(const Command& cmd, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
// Prints the usage line of cmd to standard output (for --help).
void printUsage(const Command& cmd);

// Parses a number in decimal, or hexadecimal with 0x, into *out; false on
// any trailing text or overflow.
bool parseUnsigned(const char* text, unsigned long long max, unsigned long long* out);
bool parseSigned(const char* text, long long* out);

// zar log show (logshow.cc): argv[0] is "show".
int runLogShow(int argc, char** argv);

}  // namespace zar::tool

#define ZAR_TOOL_CONCAT2(a, b) a##b
#define ZAR_TOOL_CONCAT(a, b) ZAR_TOOL_CONCAT2(a, b)
#define ZAR_TOOL_COMMAND(...)                                                        \
  static const bool ZAR_TOOL_CONCAT(zarToolRegistered, __LINE__) [[maybe_unused]] = \
      ::zar::tool::registerCommand(::zar::tool::Command{__VA_ARGS__})

#endif  // ZAR_TOOLS_ZAR_COMMAND_H_
