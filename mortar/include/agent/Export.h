/// @file
/// The mark of what leaves a shared library: everything without it is hidden.
#pragma once

/// Makes a class or function visible outside the shared library that defines it.
#define AGENT_EXPORT __attribute__((visibility("default")))

/// Keeps a private member of a visible class inside its shared library.
#define AGENT_LOCAL __attribute__((visibility("hidden")))
