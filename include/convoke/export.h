/*
 * export.h - the one way libConvoke marks what it exports.
 *
 * The library is built with hidden visibility; CONVOKE_API marks the host C functions, the engine
 * callbacks and the public classes and functions of the base library. The linker's export list is
 * generated from the declarations that carry this macro, so marking a declaration is all it takes
 * to export it. Plain C99, so that C hosts include it through convoke.h.
 */
#ifndef CONVOKE_CONVOKE_EXPORT_H
#define CONVOKE_CONVOKE_EXPORT_H

#if defined(_WIN32)
#if defined(CONVOKE_BUILDING_LIBRARY)
#define CONVOKE_API __declspec(dllexport)
#else
#define CONVOKE_API __declspec(dllimport)
#endif
#else
#define CONVOKE_API __attribute__((visibility("default")))
#endif

#endif /* CONVOKE_CONVOKE_EXPORT_H */
