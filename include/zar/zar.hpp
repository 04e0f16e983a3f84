// libzar: the C++ classes (string, string reference, tokenizer, hash table,
// command-line parser, message cache), usable from C++17. Includes the whole
// C API as well.
#ifndef ZAR_ZAR_HPP
#define ZAR_ZAR_HPP

#include "zar/zar.h"

#include "zar/string.hpp"
#include "zar/hashtable.hpp"
#include "zar/cmdline.hpp"
#include "zar/msgcache.hpp"

#endif  // ZAR_ZAR_HPP
