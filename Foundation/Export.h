#pragma once

/// Marks what the shared library exports; everything else stays inside it.
#define HALVEX_EXPORT __attribute__((visibility("default")))
/// Marks the hidden part of an exported class, at its definition.
#define HALVEX_HIDDEN __attribute__((visibility("hidden")))
