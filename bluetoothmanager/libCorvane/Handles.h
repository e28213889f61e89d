#pragma once

#include <gio/gio.h>

#include <cstdio>
#include <memory>

namespace corvane {

template <auto Release>
struct HandleDeleter {
    template <class Handle>
    void operator()(Handle* handle) const noexcept {
        Release(handle);
    }
};

using VariantPtr = std::unique_ptr<GVariant, HandleDeleter<g_variant_unref>>;
using PipePtr = std::unique_ptr<FILE, HandleDeleter<pclose>>;
using TextPtr = std::unique_ptr<gchar, HandleDeleter<g_free>>;
using ErrorPtr = std::unique_ptr<GError, HandleDeleter<g_error_free>>;

/// The error's text for a log record; empty when it has none.
inline const char* messageOf(const GError& error) {
    return error.message != nullptr ? error.message : "";
}

}  // namespace corvane
