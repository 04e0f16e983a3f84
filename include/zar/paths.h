/*
 * libzar: the product's install directories and locale subdirectories.
 *
 * Conventions of this header:
 * - Ownership: zar_get_path returns the library's own text (do not free or
 *   change it); zar_getlocaledir returns a newly allocated path that the
 *   caller releases with free(3).
 * - NULL: a null argument gives a null result (zar_canonicalize_path does
 *   nothing); an index outside 0 to 9 gives null.
 * - Threads: every function may be called from any thread. The table is set
 *   up once, on the first zar_get_path.
 */
#ifndef ZAR_PATHS_H
#define ZAR_PATHS_H

#include "zar/export.h"

ZAR_EXTERN_C_BEGIN

/* Indices of the install-path table. Every path ends with '/'. */
#define ZAR_PATH_ROOT 0    /* "/opt/kpsrv/" */
#define ZAR_PATH_BIN 1     /* "/opt/kpsrv/bin/" */
#define ZAR_PATH_ETC 2     /* "/opt/kpsrv/etc/" */
                           /* 3: no path (null) */
#define ZAR_PATH_SBIN 4    /* "/opt/kpsrv/sbin/" */
#define ZAR_PATH_LIB 5     /* "/opt/kpsrv/lib/" */
#define ZAR_PATH_NLS_MSG 6 /* "/opt/kpsrv/nls/msg/": the message catalogs */
#define ZAR_PATH_NLZ_DIR 7 /* the internationalisation data directory; default "/opt/kpsrv/nls/NLZ/" */
#define ZAR_PATH_LOG 8     /* "/var/kpsrv/log/" */
#define ZAR_PATH_LEGACY 9  /* "/opt/Brantholm/" */
#define ZAR_PATH_COUNT 10

/* The path of the given index (null for index 3 and for indices beyond 9).
 * The first call sets the table up (zar_path_initialize). */
ZAR_API const char* zar_get_path(unsigned int index);

/* Sets the table up; run once by the first zar_get_path. */
ZAR_API void zar_path_initialize(void);

/* Starts the internationalisation layer and makes entry 7 a copy of its data
 * directory when it has one. Returns that copy (owned by the table), or null
 * when the layer has no directory. */
ZAR_API const char* zar_load_paths(void);

/* Tidies path in place: removes leading and trailing blanks and tabs,
 * replaces every run of '/' by one '/', then removes one trailing '/'
 * (so "/" becomes ""). Blanks inside the path stay. */
ZAR_API void zar_canonicalize_path(char* path);

/* The locale subdirectory of base for the message locale (LC_ALL, else
 * LC_MESSAGES, else the system's message locale, else "C"): the first of
 * base/<canonical locale, e.g. de_DE>, base/<its first two characters>,
 * base/<canonical language>, base/C that exists, else a copy of base.
 * Newly allocated; null when base is null or memory is short. */
ZAR_API char* zar_getlocaledir(const char* base);

ZAR_EXTERN_C_END

#endif /* ZAR_PATHS_H */
