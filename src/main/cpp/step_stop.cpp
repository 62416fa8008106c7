#include "step_stop.h"

#include "breakpoints.h"
#include "events.h"
#include "hook_call.h"

namespace {
// Where the thread's last step stopped, when a breakpoint stands there too: the VM reports the
// single step and then the breakpoint at the same place, and a person expects one stop.
thread_local jmethodID t_step_stop_method = nullptr;
thread_local jlocation t_step_stop_location = -1;
}  // namespace

bool fire_step_stop(JNIEnv* env, jthread thread, jmethodID method, jlocation location) {
    bool marked = has_breakpoint(method, location);
    if (marked) {
        t_step_stop_method = method;
        t_step_stop_location = location;
    }
    bool fired = fire_breakpoint_hit(env, thread, method, location);
    // The breakpoint event follows only while the VM reports breakpoints for the thread. When the
    // hook switched them off, nothing comes to take the marker away, and the next genuine hit here
    // would be taken for the one it stands for.
    if (marked && !is_reported_by_vm(JVMTI_EVENT_BREAKPOINT)) t_step_stop_method = nullptr;
    return fired;
}

void forget_step_stop(jmethodID method, jlocation location) {
    if (t_step_stop_method != method || t_step_stop_location != location) t_step_stop_method = nullptr;
}

bool follows_step_stop(jmethodID method, jlocation location) {
    bool follows = t_step_stop_method == method && t_step_stop_location == location;
    t_step_stop_method = nullptr;
    return follows;
}
