/// @file
/// Marks what libkxlib exports, as far as abi/libkxlib.symbols lists it; everything else is hidden.
#ifndef KXEXPORT_H
#define KXEXPORT_H

/// Stands between `class` and the name of what is exported.
#define KX_EXPORT __attribute__((visibility("default")))

#endif
