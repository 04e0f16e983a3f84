// Start-up of the utility layer: settles the internationalisation layer's
// data directory (nlz_get_dir), where message catalogs are found when NLSPATH
// does not name them.
//
// qumbra_initialize, in order:
// 1. When the data directory is already set (by nlz_set_dir, or by the
//    QVNLZDIR environment variable), it is kept.
// 2. Otherwise the installed catalog directory next to the running library is
//    taken when it exists: "<lib dir>/<relative path to the data dir>", where
//    the relative path is the one between the library and catalog install
//    directories of this build (so a relocated install tree still works).
// 3. Otherwise the catalog directory of the configured install prefix, when
//    it exists.
// Returns 0 when the data directory is set afterwards, -1 when none was found
// (the directory stays empty). Safe from any thread, any number of times.
#ifndef ZAR_PLATFORM_QUMBRA_H_
#define ZAR_PLATFORM_QUMBRA_H_

int qumbra_initialize(void);

// The candidate directories of steps 2 and 3 (for diagnostics and tests):
// fills buf with the directory of step 2, or returns -1 when it cannot be
// found out.
int qumbra_installed_dir(char* buf, int len);

#endif  // ZAR_PLATFORM_QUMBRA_H_
