// The internationalisation layer: code sets, locales, conversions and message
// catalogs, over what glibc gives (iconv, newlocale, nl_langinfo, catopen).
//
// Conventions of every function here:
// - Code-set handles (nlz_cs_t) and locale objects (nlz_loc_t) are opaque and
//   immutable once made; one handle may be used from any number of threads.
// - A null code-set handle means the code set of the calling thread's current
//   locale (the LC_CTYPE code set of uselocale(), else of setlocale()), as the
//   C library's own wctomb does; nlz_vsprintf and nlz_vfprintf instead use the
//   default code set set with nlz_set_def_cs, falling back to that rule.
// - Wide characters are 16-bit units (UTF-16 in host order). A wide string ends
//   with a 0 unit. A surrogate pair is one character.
// - Byte lengths are int; conversions never write more than the room given,
//   write no terminator unless they say so, and return -1 on any failure
//   (invalid or unrepresentable input, room too small, no memory) with errno
//   EILSEQ, E2BIG, EINVAL or ENOMEM. An input length below 0 means the input
//   is NUL-terminated.
// - Code sets are byte-oriented and ASCII-transparent where the name allows
//   it; UTF-16 and UTF-32 are not byte code sets and are refused by
//   nlz_cs_new. nlz_mblen and nlz_strstr assume a stateless code set.
// - Nothing here logs; failures are results (and errno where stated).
#ifndef ZAR_PLATFORM_NLZ_H_
#define ZAR_PLATFORM_NLZ_H_

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "zar/nls.h"  // zar_codeset_t, zar_locale_t

typedef zar_codeset_t nlz_cs_t;
typedef zar_locale_t nlz_loc_t;
typedef struct nlz_cat_s* nlz_cat_t;
typedef uint16_t nlz_wchar_t;

// ---- Code sets --------------------------------------------------------------

// Makes a handle for a code-set name ("UTF8", "utf-8", "ISO8859-1",
// "ISO-8859-1", "646", ...). The name is normalised (case, '-', '_', '.' and
// blanks ignored; common aliases mapped) before iconv is asked. Null when the
// code set is unknown (errno EINVAL), the name is longer than 63 bytes, or
// memory is short. Each handle keeps a small pool of iconv descriptors per
// direction, so concurrent conversions never share one descriptor.
nlz_cs_t nlz_cs_new(const char* name);
void nlz_cs_free(nlz_cs_t cs);  // null is ignored
// The normalised name the handle was made for, e.g. "UTF-8", "ISO-8859-1".
const char* nlz_cs_name(nlz_cs_t cs);
// 1 when the handle (or, for null, the thread's locale code set) is UTF-8.
int nlz_cs_is_utf8(nlz_cs_t cs);

// Converts inLen bytes of text in cs into UTF-8 (nlz_to_utf8) or UTF-8 into cs
// (nlz_from_utf8). Writes at most outLen bytes, no terminator; returns the
// number of bytes written, or -1.
int nlz_to_utf8(nlz_cs_t cs, const char* in, int inLen, char* out, int outLen);
int nlz_from_utf8(nlz_cs_t cs, const char* in, int inLen, char* out, int outLen);

// Converts the NUL-terminated multibyte text in into at most outCount wide
// units including a terminating 0 unit; returns the units written without the
// terminator, or -1 (also when the terminator does not fit).
int nlz_mbstowcs(nlz_cs_t cs, nlz_wchar_t* out, const char* in, int outCount);
// Converts the 0-terminated wide text in into at most outLen bytes including
// a terminating NUL; returns the bytes written without the NUL, or -1.
int nlz_wcstombs(nlz_cs_t cs, char* out, const nlz_wchar_t* in, int outLen);
// Converts one character (a Unicode code point; a lone surrogate is invalid)
// into at most 8 bytes at out; returns the byte count, or -1 when cs cannot
// represent it.
int nlz_wctomb(nlz_cs_t cs, char* out, uint32_t wc);
// Length in bytes of the character that starts at s (at most n bytes looked
// at): 0 for a NUL byte, -1 for an invalid or incomplete character.
int nlz_mblen(nlz_cs_t cs, const char* s, int n);

// White space as the library's text formats understand it (space, tab, line
// feed, carriage return, vertical tab, form feed and the Unicode spaces).
int nlz_iswspace(nlz_wchar_t wc);
// Character-aware strstr in code set cs: a match never starts inside a
// multibyte character. Null when needle does not occur.
const char* nlz_strstr(nlz_cs_t cs, const char* haystack, const char* needle);

// ---- Locales ------------------------------------------------------------------

// A locale object for a locale name ("de_DE.ISO-8859-1", "C", ...), over
// newlocale(LC_ALL_MASK). Null when the locale is unknown or memory is short.
nlz_loc_t nlz_loc_new(const char* name);
void nlz_loc_free(nlz_loc_t loc);  // null is ignored
const char* nlz_loc_name(nlz_loc_t loc);
// The code set of a locale object (owned by the object), e.g. "ISO-8859-1".
const char* nlz_loc_cs_name(nlz_loc_t loc);

// The process's message locale name (setlocale(LC_MESSAGES, NULL)) and code
// set name (nl_langinfo(CODESET)) into buf of len bytes; 0, or -1 when they
// cannot be had or do not fit.
int nlz_os_lang_name(char* buf, int len);
int nlz_os_cs_name(char* buf, int len);
// The decimal point of the thread's locale (LC_NUMERIC), as the C library's
// number formatting writes it: one byte, or 0 when it takes more than one.
char nlz_decimal_point(void);
// Canonical locale name (language_TERRITORY, e.g. "de_DE" from
// "de_DE.ISO-8859-1@euro" or "de-de") and canonical language ("de"); 0 or -1.
int nlz_canonical_loc(const char* name, char* buf, int len);
int nlz_canonical_lang(const char* name, char* buf, int len);

// A handle shared for the life of the process for a code-set name (made on
// first request, never freed; callers must not free it). Null as nlz_cs_new.
nlz_cs_t nlz_cs_shared(const char* name);
// 1 when the two handles name the same code set (null: the thread's).
int nlz_cs_same(nlz_cs_t a, nlz_cs_t b);
// 1 when the bytes 0x01..0x7F of cs (null: the thread's) are the ASCII
// characters, so that 7-bit text converts to the same units and back.
int nlz_cs_ascii_transparent(nlz_cs_t cs);

// ---- Settings of the layer -----------------------------------------------------

// The message path in use: the NLSPATH environment variable, or null.
const char* nlz_get_nlspath(void);
// The layer's data directory ("" until set; from the environment variable
// QVNLZDIR when that is set; qumbra_initialize settles it from the install
// layout). nlz_catopen looks there, as "<dir>/%L/%N" and "<dir>/%L/%N.cat",
// after the elements of NLSPATH. Every text returned stays valid for the life
// of the process (a later nlz_set_dir does not release it).
const char* nlz_get_dir(void);
int nlz_set_dir(const char* dir);  // 0, or -1 on no memory
// Default code set for nlz_vsprintf and nlz_vfprintf; the layer takes
// ownership of cs and keeps every handle it was given for the life of the
// process (another thread may still use a replaced one). Null restores the
// thread-locale rule. 0, or -1 on no memory (the setting is then unchanged).
int nlz_set_def_cs(nlz_cs_t cs);
nlz_cs_t nlz_get_def_cs(void);

// ---- Catalogs ------------------------------------------------------------------

// Open flags of nlz_catopen (bits; 0 gives the broadest search).
#define NLZ_CAT_LOCALE 0x1          // %L, %l, %t, %c from the LC_MESSAGES name of
                                    // loc (null: the thread's current locale);
                                    // without it from the LANG variable ("C" if unset)
#define NLZ_CAT_NO_DATADIR 0x2      // do not look in the layer's data directory
#define NLZ_CAT_NO_LANG_FALLBACK 0x4  // %L is only the locale name and its
                                      // normalised forms, never the bare language
#define NLZ_CAT_NO_C_FALLBACK 0x8   // never fall back to the "C" (English) catalogs

// Opens the XPG catalog name for the locale loc. A name containing '/' is a
// path; otherwise NLSPATH is expanded (%N name, %L locale name, %l language,
// %t territory, %c code set, %%; other '%' sequences stand for themselves;
// empty elements and expansions longer than PATH_MAX are skipped) and each
// element tried in order, then the data directory. %L is tried as the locale
// name, then as language_TERRITORY.CODESET with the code set normalised, then
// language_TERRITORY, then the language, then "C" (flags narrow this).
// The file is read whole and checked: every table entry and every text must
// lie inside the file. The catalog's code set is the one named by its marker
// message (set NLZ_CAT_CODESET_SET, message 1, text "charset=NAME"), else the
// code set in the locale name of the directory it was found in, else the code
// set of the locale it was opened for.
// Null with errno on failure: EACCES when some candidate was not readable,
// EINVAL when some candidate was not a valid catalog, ENOMEM, else ENOENT.
nlz_cat_t nlz_catopen(const char* name, int flags, nlz_loc_t loc);
#define NLZ_CAT_CODESET_SET 255
// The text of message num of set, converted from the catalog's code set into
// cs (null: no conversion); def when there is none or it cannot be converted.
// The text stays valid until nlz_catclose of the handle. Thread-safe.
const char* nlz_catgets(nlz_cat_t cat, int set, int num, const char* def, nlz_cs_t cs);
// The same, also giving the length of the text (without its terminator).
const char* nlz_catgets_len(nlz_cat_t cat, int set, int num, const char* def, nlz_cs_t cs,
                            size_t* len);
int nlz_catclose(nlz_cat_t cat);  // 0, or -1 for a null handle
// The path the catalog was read from, and the name of its code set ("" when
// unknown). Both owned by the handle.
const char* nlz_cat_path(nlz_cat_t cat);
const char* nlz_cat_cs_name(nlz_cat_t cat);

#endif  // ZAR_PLATFORM_NLZ_H_
