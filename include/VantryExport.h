#ifndef VANTRY_EXPORT_H
#define VANTRY_EXPORT_H

/// @file
/// The marks of what a program can link against.

/// Marks a class or a constant that the library exports. Everything without the mark is hidden: a program
/// that names it does not link.
#define VANTRY_API __attribute__((visibility("default")))
/// Takes one member of an exported class out again.
#define VANTRY_LOCAL __attribute__((visibility("hidden")))

#endif
