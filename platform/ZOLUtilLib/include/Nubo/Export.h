#ifndef NUBO_EXPORT_H
#define NUBO_EXPORT_H

/// Marks a class or function that users of the libraries may call; everything else is hidden in them.
#define ZOL_EXPORT __attribute__((visibility("default")))

#endif
