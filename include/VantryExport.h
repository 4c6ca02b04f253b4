#ifndef VANTRY_EXPORT_H
#define VANTRY_EXPORT_H

/// Marks what the library exports; everything without the mark is hidden.
#define VANTRY_API __attribute__((visibility("default")))
/// Takes a member of an exported class out again.
#define VANTRY_LOCAL __attribute__((visibility("hidden")))

#endif
