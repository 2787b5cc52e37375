/*
 * A fixed path that a test may redirect (see systemkey/systemkey_seams.h).
 * The override is copied into the object, so callers need not keep theirs.
 * Redirecting is only allowed while no operation reads the path; reading is
 * lock-free so the production path pays nothing for the seam.
 */
#ifndef SYSTEMKEY_SEAM_PATH_H
#define SYSTEMKEY_SEAM_PATH_H

#include <atomic>
#include <climits>
#include <cstdio>

class SeamPath {
public:
    explicit constexpr SeamPath(const char* defaultPath) : default_(defaultPath) {}

    const char* get() const
    {
        return overridden_.load(std::memory_order_acquire) ? buf_ : default_;
    }

    void set(const char* path)
    {
        overridden_.store(false, std::memory_order_release);
        if (path != nullptr) {
            std::snprintf(buf_, sizeof buf_, "%s", path);
            overridden_.store(true, std::memory_order_release);
        }
    }

private:
    const char* default_;
    char buf_[PATH_MAX] = {};
    std::atomic<bool> overridden_{false};
};

#endif
