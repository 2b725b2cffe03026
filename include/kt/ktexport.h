// Export macro of the base library. Everything in the product is hidden by default; the public
// classes and functions of the base library are marked KT_EXPORT so that other users can link them.
#ifndef KT_KTEXPORT_H
#define KT_KTEXPORT_H

#if defined(_WIN32)
#define KT_EXPORT
#else
#define KT_EXPORT __attribute__((visibility("default")))
#endif

#endif  // KT_KTEXPORT_H
