// Small move-only owners of the common library (module "zv-qel-pub") for a descriptor, a stdio stream
// and a directory stream held inside a function: closed on every way out unless release() handed them
// over (into a record, once everything succeeded). Depends on nothing but the C library, so every part
// of the library, the log client included, may use them.
#ifndef ZV_PUB_OWNED_OWNED_H
#define ZV_PUB_OWNED_OWNED_H

#include <dirent.h>
#include <stdio.h>
#include <unistd.h>

// Move-only owner of a resource handle: releases it on destruction unless release() handed it over.
template <typename T, T kNone, int (*kClose)(T)>
class pub_util_unique {
   public:
    pub_util_unique() = default;
    explicit pub_util_unique(T h) : m_h(h) {}
    pub_util_unique(const pub_util_unique &) = delete;
    pub_util_unique &operator=(const pub_util_unique &) = delete;
    pub_util_unique(pub_util_unique &&o) noexcept : m_h(o.release()) {}
    pub_util_unique &operator=(pub_util_unique &&o) noexcept {
        reset(o.release());
        return *this;
    }
    ~pub_util_unique() { reset(); }

    T get() const { return m_h; }
    bool ok() const { return m_h != kNone; }
    // Hands the handle to the caller; the owner is empty afterwards.
    T release() {
        T h = m_h;
        m_h = kNone;
        return h;
    }
    // Closes the current handle (if any) and takes h.
    void reset(T h = kNone) {
        if (m_h != kNone) kClose(m_h);
        m_h = h;
    }

   private:
    T m_h = kNone;
};

// Owners of a descriptor (none: -1), a stdio stream and a directory stream (none: nullptr).
using pub_util_unique_fd = pub_util_unique<int, -1, close>;
using pub_util_unique_file = pub_util_unique<FILE *, nullptr, fclose>;
using pub_util_unique_dir = pub_util_unique<DIR *, nullptr, closedir>;

#endif  // ZV_PUB_OWNED_OWNED_H
