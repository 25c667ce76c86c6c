#pragma once

/// @file
/// The mark of what a host may use.

/// Marks what the shared library shows to a host; everything else stays hidden.
#define ZENK_API __attribute__((visibility("default")))

/// Keeps one member of an exported class to the library.
#define ZENK_HIDDEN __attribute__((visibility("hidden")))
