#pragma once

#include <gio/gio.h>

#include <cstdio>
#include <memory>
#include <utility>

#include <unistd.h>

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

/// Owns a file descriptor; -1 for none.
class Descriptor {
public:
    explicit Descriptor(int opened = -1) : fd(opened) {}
    ~Descriptor() {
        if (fd >= 0) close(fd);
    }
    Descriptor(Descriptor&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(fd, other.fd);
        return *this;
    }

    int get() const { return fd; }

private:
    int fd;
};

/// The error's text for a log record; empty when it has none.
inline const char* messageOf(const GError& error) {
    return error.message != nullptr ? error.message : "";
}

}  // namespace corvane
