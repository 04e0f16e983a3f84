/*
 * libzar: symbol export and language-linkage helpers shared by every public
 * header.
 *
 * The library is built with hidden visibility; ZAR_API marks the declarations
 * that belong to the public interface. The authoritative list of exported
 * symbols is the linker version script cmake/libzar.map.
 */
#ifndef ZAR_EXPORT_H
#define ZAR_EXPORT_H

#define ZAR_API __attribute__((visibility("default")))

#ifdef __cplusplus
#define ZAR_EXTERN_C_BEGIN extern "C" {
#define ZAR_EXTERN_C_END }
#else
#define ZAR_EXTERN_C_BEGIN
#define ZAR_EXTERN_C_END
#endif

/* printf-style format checking for public variadic functions. */
#if defined(__GNUC__)
#define ZAR_PRINTF_LIKE(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define ZAR_PRINTF_LIKE(fmt, args)
#endif

#endif /* ZAR_EXPORT_H */
