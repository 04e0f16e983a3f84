// Fuzz target of the catalog reader: any bytes given as a catalog file are
// either refused or read without going outside the file, and every text
// they yield is terminated.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <initializer_list>

#include "platform/nlz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  int fd = memfd_create("catalog", MFD_CLOEXEC);
  if (fd < 0) return 0;
  if (size > 0 && write(fd, data, size) != static_cast<ssize_t>(size)) {
    close(fd);
    return 0;
  }
  char path[64];
  snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
  nlz_cat_t cat = nlz_catopen(path, 0, nullptr);
  if (cat != nullptr) {
    static nlz_cs_t latin1 = nlz_cs_new("ISO-8859-1");
    size_t total = 0;
    for (int set : {1, 2, 255})
      for (int num = 0; num < 64; ++num) {
        const char* t = nlz_catgets(cat, set, num, nullptr, nullptr);
        if (t != nullptr) total += strlen(t);
        t = nlz_catgets(cat, set, num, nullptr, latin1);
        if (t != nullptr) total += strlen(t);
      }
    if (total > (size_t{1} << 40)) abort();  // keeps the reads
    nlz_catclose(cat);
  }
  close(fd);
  return 0;
}
