#pragma once

/// Exports what hosts use. The shared library hides everything else.
#define CORVANE_EXPORT __attribute__((visibility("default")))
