// libzar: ZARCmdLine, a command-line parser whose options may also come from
// one stanza of a response file. Usable from C++17.
//
// The parser decides nothing about which options exist. It turns the argument
// vector ("-name value" words) and the entries of a stanza file ("name =
// value" lines of one [stanza]) into named options, keeps the first
// occurrence of every name and sets later ones aside as duplicates. The
// program asks for the names it knows (findOption), marks them (validated)
// and reports what is left (invalidOptions, duplicateOptions).
//
// Conventions of this header:
// - Ownership: the parser owns every option, name and value it holds. Texts
//   and tables it hands out (through ZARStringRef out-parameters and table
//   references) stay valid while the parser lives; they are read only.
// - Status: operations return an unsigned status code (include/zar/status.h):
//   0, ZAR_S_NO_MEMORY (0x38C52097; also logged as message XKJSC0151E on the
//   client component), ZAR_S_NOT_AVAILABLE (0x38C52099: no such option or
//   command name), ZAR_S_CMDLINE_BAD_OPTION (0x38C53137: a yes/no option holds
//   another value), or the status of a stanza file that could not be opened
//   or read (ZAR_S_STZ_*). Nothing throws. An out-parameter is left unchanged
//   when the status is not 0.
// - NULL: null words of the argument vector are skipped like stray words.
// - Threads: no internal lock. A parser is filled and queried by one thread
//   (the const operations keep marks and a snapshot inside the parser).
#ifndef ZAR_CMDLINE_HPP
#define ZAR_CMDLINE_HPP

#include "zar/export.h"
#include "zar/hashtable.hpp"
#include "zar/status.h"  // the status codes returned here
#include "zar/string.hpp"

// Invariants:
// - options_ holds the first occurrence of each name (case-sensitive); every
//   later occurrence of a name already there is in duplicates_, in the order
//   the occurrences came. Each occurrence is a key and an Option of its own,
//   owned by the table that holds it.
// - invalid_ refers to keys and options of options_ and owns nothing; it is
//   filled once, by the first invalidOptions() (invalidComputed_ then true).
// - cmdName_ is empty exactly when the argument vector had no command name.
class ZAR_API ZARCmdLine {
 public:
  // One occurrence of an option.
  class ZAR_API Option {
   public:
    // Empty value, file and stanza; not validated.
    Option();
    virtual ~Option();

    ZARString value;    // the option's value; empty when none was given
    bool validated;     // set by ZARCmdLine::validated()
    ZARString rspFile;  // response file it came from; empty for the command line
    ZARString stanza;   // stanza of that file; empty for the command line
  };

  // Keys are option names without the leading '-'.
  typedef ZARHashTable<ZARString, Option> OptionTable;
  typedef ZARHashTableIter<ZARString, Option> OptionIter;

  // Buckets of each of the three tables.
  static constexpr unsigned kBuckets = 29;

  // No options and no command name.
  ZARCmdLine();
  // Releases the command name, then the tables with every option.
  ~ZARCmdLine();
  ZARCmdLine(const ZARCmdLine&) = delete;
  ZARCmdLine& operator=(const ZARCmdLine&) = delete;

  // Parses an argument vector such as main's. When argv[0] does not begin
  // with '-' it is the command name (the whole word) and options start at
  // argv[1]; otherwise options start at argv[0]. A word "-name" is an option
  // named "name" (so "--x" names "-x" and "-" the empty name); the next word
  // is its value unless it begins with '-' (a negative number reads as an
  // option) or there is none. Other words are ignored. "-a=1" is the option
  // named "a=1". Returns 0, or ZAR_S_NO_MEMORY (logged): the options added
  // before stay and the rest of the vector is not read.
  unsigned initialize(int argc, const char* const* argv);

  // Adds the entries of stanza stanzaName of the stanza file fileName as
  // options (names as they stand in the file, without '-'; an entry without a
  // value gives an empty value), each remembering the file and stanza names.
  // Other stanzas are not read; a stanza that is not in the file adds nothing.
  // Returns 0; the status of an open that failed, and then nothing is added
  // (ZAR_S_STZ_OPEN_FAILED for a file that is missing, unreadable or could
  // not be locked; ZAR_S_NO_MEMORY); the status of a format or read error
  // that ended the walk of the file (ZAR_S_STZ_BAD_FORMAT, ZAR_S_STZ_INTERNAL;
  // the entries before the bad line stay); or ZAR_S_NO_MEMORY (logged; the
  // options added before stay). Names are compared byte for byte.
  // Thread safety: waits while another process holds an exclusive lock on
  // the file (a cancellation point).
  unsigned loadRspFile(const ZARStringRef& fileName, const ZARStringRef& stanzaName);

  // The value of option name (the first occurrence), referring to text that
  // lives as long as the parser: 0; ZAR_S_NOT_AVAILABLE when there is none.
  unsigned findOption(const ZARString& name, ZARStringRef& value) const;
  // The value of option name read as yes/no (the whole value, ASCII case
  // ignored): 0 with flag true for "yes", false for "no";
  // ZAR_S_CMDLINE_BAD_OPTION for any other value; ZAR_S_NOT_AVAILABLE when
  // the option is absent.
  unsigned findOption(const ZARString& name, bool& flag) const;

  // Marks option name as understood by the program; unknown names are
  // ignored and duplicates are never marked.
  void validated(const ZARStringRef& name) const;
  // The options that were not marked, as a snapshot taken at the first call:
  // later marks and later options do not change it. A walk (OptionIter) gives
  // the buckets in ascending order, within a bucket the options in the order
  // of the options table (the latest added first).
  const OptionTable& invalidOptions() const;
  // Every occurrence of a name after its first, with its value and source.
  const OptionTable& duplicateOptions() const { return duplicates_; }
  // Number of distinct option names (duplicates not counted).
  int getNumOptions() const;
  // The command name: 0; ZAR_S_NOT_AVAILABLE when the vector had none.
  unsigned getCmdName(ZARStringRef& name) const;

 private:
  bool initialized_;              // initialize() has started
  OptionTable options_;           // first occurrences; owning
  OptionTable duplicates_;        // later occurrences; owning
  mutable bool invalidComputed_;  // invalid_ has been filled
  mutable OptionTable invalid_;   // unmarked options of options_; not owning
  ZARString cmdName_;             // empty when there is none

  // Gives tables that have no buckets (their set-up ran out of memory) their
  // buckets; false when that is still impossible.
  bool readyTables();
  // Adds one occurrence, taking key and option over (deleted on failure).
  unsigned add(ZARString* key, Option* option);
};

// The library holds the instantiation of the option tables.
extern template class ZARHashTable<ZARString, ZARCmdLine::Option>;

#endif  // ZAR_CMDLINE_HPP
