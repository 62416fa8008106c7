#include "thread_cleanups.h"

#include <atomic>

namespace {
struct Registered {
    ThreadCleanup cleanup;
    CleanupAt when;
};

// Constant-initialised, so that registrations made by other files' initialisers find it ready.
constexpr int MAX_CLEANUPS = 8;
Registered s_cleanups[MAX_CLEANUPS] = {};
std::atomic<int> s_count{0};
}  // namespace

bool on_thread_end(ThreadCleanup cleanup, CleanupAt when) {
    int slot = s_count.load(std::memory_order_relaxed);
    if (slot >= MAX_CLEANUPS) return false;
    s_cleanups[slot] = Registered{cleanup, when};
    s_count.store(slot + 1, std::memory_order_release);
    return true;
}

void run_thread_cleanups(JNIEnv* env, bool os_thread_ends) {
    int count = s_count.load(std::memory_order_acquire);
    for (int k = 0; k < count; k++) {
        if (os_thread_ends || s_cleanups[k].when == CleanupAt::EVERY_THREAD_END) s_cleanups[k].cleanup(env);
    }
}
