#include "breakpoints.h"

#include "breakpoint_location.h"
#include "error_name.h"
#include "exception.h"
#include "global.h"
#include "lock.h"
#include "log.h"
#include "native.h"

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <set>
#include <utility>

std::atomic<unsigned int> s_breakpoint_counter{0};

namespace {
using Place = std::pair<jmethodID, jlocation>;

// The places that hold breakpoints: the user's, so that a step stopping on one can tell, and the
// agent's own, where steps wait for calls to return, with the number of steps waiting at each.
// The VM holds one breakpoint per place for both. The sets are read only when a step stops or
// waits, never on the path of every single step, and their lock is never held across a VM call.
struct BreakpointPlaces {
    std::mutex lock;
    std::set<Place> places;
    std::map<Place, int> held;
    // One change of the VM's breakpoints at a time, so that the sets say what the VM holds. Timed:
    // its holder may be suspended inside the VM call, and waiting for it without end could block
    // the thread that would resume it; going on without it risks one place out of step.
    std::timed_mutex vm_change;
};

BreakpointPlaces& breakpoint_places() {
    static auto* instance = new BreakpointPlaces();
    return *instance;
}

// Places of the agent's that may stand in the VM: held ones, and any whose clearing failed.
std::atomic<int> s_return_places{0};

class VmChange {
public:
    VmChange() : m_guard(lock_patiently(breakpoint_places().vm_change)) {
        if (!m_guard.owns_lock()) LOG_DEBUG("breakpoint change lock busy, changing without it");
    }

private:
    std::unique_lock<std::timed_mutex> m_guard;
};

// The error the VM would give the user's change without making it, when a breakpoint of the
// agent's stands at the place: none for a set (the user's joins it) or a clear of the user's (the
// agent's stays), NOT_FOUND for a clear of a breakpoint the user never set. Empty when the VM must
// be asked.
std::optional<jvmtiError> answer_without_vm(const Place& place, bool set) {
    std::lock_guard<std::mutex> guard(breakpoint_places().lock);
    if (breakpoint_places().held.count(place) == 0) return std::nullopt;
    bool users = breakpoint_places().places.count(place) != 0;
    if (set) return users ? std::nullopt : std::optional<jvmtiError>(JVMTI_ERROR_NONE);
    return users ? JVMTI_ERROR_NONE : JVMTI_ERROR_NOT_FOUND;
}

void record_place(const Place& place, bool set) {
    std::lock_guard<std::mutex> guard(breakpoint_places().lock);
    if (set) {
        breakpoint_places().places.insert(place);
    } else {
        breakpoint_places().places.erase(place);
    }
}

using BreakpointCall = jvmtiError (jvmtiEnv::*)(jmethodID, jlocation);

void change_breakpoint(JNIEnv* env, jobject object, BreakpointCall call, int delta) {
    if (!require_agent(env)) return;
    std::optional<BreakpointLocation> location = BreakpointLocation::from_java(env, object);
    if (!location) {
        throw_exception(env, ILLEGAL_ARGUMENT, "Invalid BreakpointLocation");
        return;
    }
    if (delta > 0) {
        LOG_DEBUG("SetBreakpoint(%p,%d)", static_cast<void*>(location->method()), static_cast<int>(location->location()));
    } else {
        LOG_DEBUG("ClearBreakpoint(%p,%d)", static_cast<void*>(location->method()), static_cast<int>(location->location()));
    }
    Place place(location->method(), location->location());
    jvmtiError error = JVMTI_ERROR_NONE;
    {
        VmChange change;
        std::optional<jvmtiError> answer = answer_without_vm(place, delta > 0);
        error = answer ? *answer : (g_jvmti->*call)(place.first, place.second);
        if (error == JVMTI_ERROR_NONE) record_place(place, delta > 0);
    }
    if (error != JVMTI_ERROR_NONE) {
        throw_jvmti_exception(env, error);
        return;
    }
    if (delta > 0) {
        s_breakpoint_counter++;
    } else {
        s_breakpoint_counter--;
    }
}

}  // namespace

bool hold_return_breakpoint(jmethodID method, jlocation location) {
    Place place(method, location);
    VmChange change;
    bool users = false;
    {
        std::lock_guard<std::mutex> guard(breakpoint_places().lock);
        users = breakpoint_places().places.count(place) != 0;
    }
    // Set even where one of the agent's is held already: a class redefinition clears the VM's
    // breakpoints in its methods behind the agent's back.
    jvmtiError error = users ? JVMTI_ERROR_NONE : g_jvmti->SetBreakpoint(method, location);
    if (error != JVMTI_ERROR_NONE && error != JVMTI_ERROR_DUPLICATE) {
        LOG_DEBUG("SetBreakpoint(%p,%d) for a return refused %s(%d)", static_cast<void*>(method),
                  static_cast<int>(location), get_error_message(error).c_str(), error);
        return false;
    }
    std::lock_guard<std::mutex> guard(breakpoint_places().lock);
    if (breakpoint_places().held[place]++ == 0) s_return_places++;
    return true;
}

void drop_return_breakpoint(jmethodID method, jlocation location) {
    Place place(method, location);
    VmChange change;
    {
        std::lock_guard<std::mutex> guard(breakpoint_places().lock);
        auto held = breakpoint_places().held.find(place);
        if (held == breakpoint_places().held.end() || --held->second > 0) return;
        breakpoint_places().held.erase(held);
        if (breakpoint_places().places.count(place) != 0) {
            s_return_places--;
            return;
        }
    }
    jvmtiError error = g_vm_alive ? g_jvmti->ClearBreakpoint(method, location) : JVMTI_ERROR_WRONG_PHASE;
    // One that may still stand keeps breakpoint events told apart from the user's for good.
    if (error == JVMTI_ERROR_NONE || error == JVMTI_ERROR_NOT_FOUND) s_return_places--;
}

bool has_return_breakpoints() { return s_return_places.load(std::memory_order_relaxed) > 0; }

bool has_breakpoint(jmethodID method, jlocation location) {
    std::lock_guard<std::mutex> guard(breakpoint_places().lock);
    return breakpoint_places().places.count(std::make_pair(method, location)) != 0;
}

KV_NATIVE(void, setBreakpoint)(JNIEnv* env, jobject, jobject location) {
    change_breakpoint(env, location, &jvmtiEnv::SetBreakpoint, 1);
}

KV_NATIVE(void, clearBreakpoint)(JNIEnv* env, jobject, jobject location) {
    change_breakpoint(env, location, &jvmtiEnv::ClearBreakpoint, -1);
}

