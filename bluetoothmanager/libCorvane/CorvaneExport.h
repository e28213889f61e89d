#pragma once

/// Marks what hosts use. Everything else of the shared library is hidden.
#define CORVANE_EXPORT __attribute__((visibility("default")))
