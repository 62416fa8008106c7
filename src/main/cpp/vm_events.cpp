#include "vm_events.h"

#include "error_name.h"
#include "global.h"
#include "lock.h"
#include "log.h"

#include <mutex>

namespace {
// JVMTI event numbers start at 50; the virtual-thread events end below 50 + 64.
constexpr jint FIRST_EVENT = 50;
constexpr jint EVENTS = 64;

// What the VM was last told of each event, under the lock.
struct Switches {
    std::timed_mutex lock;
    bool on[EVENTS] = {};
};

void switch_one(bool& on, const VmEventWish& wish) {
    if (on == wish.wanted) return;
    jvmtiError error = g_jvmti->SetEventNotificationMode(wish.wanted ? JVMTI_ENABLE : JVMTI_DISABLE,
                                                         static_cast<jvmtiEvent>(wish.event), nullptr);
    if (error == JVMTI_ERROR_NONE) {
        on = wish.wanted;
        LOG_DEBUG("\t%s - events %s", wish.name, wish.wanted ? "enabled" : "disabled");
    } else if (error == JVMTI_ERROR_WRONG_PHASE) {
        LOG_DEBUG("\t%s - events not switched: the VM is going away", wish.name);  // expected at its end
    } else {
        LOG_WARN("\t%s - events could not be switched - %s", wish.name, get_error_message(error).c_str());
    }
}
}  // namespace

void switch_vm_events(std::initializer_list<VmEventWish> wishes) {
    if (g_jvmti == nullptr) return;
    static auto* switches = new Switches();
    auto guard = lock_patiently(switches->lock);
    if (!guard.owns_lock()) return;
    for (const VmEventWish& wish : wishes) {
        jint slot = wish.event - FIRST_EVENT;
        if (slot >= 0 && slot < EVENTS) switch_one(switches->on[slot], wish);
    }
}
