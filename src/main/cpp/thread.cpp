#include "thread.h"

#include "error_name.h"
#include "global.h"
#include "hooks.h"
#include "log.h"
#include "reference.h"
#include "resources.h"
#include "thread_info.h"
#include "virtual_threads.h"
#include "vm_events.h"

#include <atomic>
#include <memory>
#include <new>
#include <unordered_map>
#include <vector>

namespace {
// The records of live threads by Java thread id, for threads that read another thread's record.
// They never ask JVMTI for another thread's storage: a thread that is exiting may have its JVMTI
// state torn down under such a call. A record leaves the map in ThreadEnd; a thread that found it
// before holds a share of it, so it stays valid for that thread however long it takes. The lock
// guards the map alone and is never held across a call into the VM: a thread can be suspended in
// any such call, and a lock it held then would stop every other thread until it is resumed.
// Both live as long as the process: a callback may still run while it exits.
struct ThreadRegistry {
    std::mutex lock;
    std::unordered_map<jlong, std::shared_ptr<ThreadData>> records;
};

ThreadRegistry& registry() {
    static auto* instance = new ThreadRegistry();
    return *instance;
}

// The calling thread's own record and thread object, so that its own path needs no lock.
thread_local ThreadData* t_own_record = nullptr;
thread_local jobject t_own_thread = nullptr;

bool is_own_thread(JNIEnv* env, jthread thread) {
    if (t_own_record == nullptr) return false;
    return thread == nullptr || env->IsSameObject(thread, t_own_thread);
}
}  // namespace

void attach_thread_data(JNIEnv* env, jthread thread, jlong id) {
    std::shared_ptr<ThreadData> record(new (std::nothrow) ThreadData());
    if (!record) return;
    record->thread_id = id;
    jvmtiError error = g_jvmti->SetThreadLocalStorage(thread, record.get());
    if (error != JVMTI_ERROR_NONE) {
        LOG_ERROR("SetThreadLocalStorage %s %d", get_error_message(error).c_str(), error);
        return;
    }
    t_own_thread = env->NewGlobalRef(thread);
    t_own_record = record.get();
    std::lock_guard<std::mutex> guard(registry().lock);
    registry().records[id] = std::move(record);
}

void release_thread_data(JNIEnv* env) {
    if (t_own_record == nullptr) return;
    std::shared_ptr<ThreadData> record;
    {
        std::lock_guard<std::mutex> guard(registry().lock);
        auto found = registry().records.find(t_own_record->thread_id);
        if (found != registry().records.end()) {
            record = std::move(found->second);
            registry().records.erase(found);
        }
    }
    g_jvmti->SetThreadLocalStorage(nullptr, nullptr);
    env->DeleteGlobalRef(t_own_thread);
    t_own_thread = nullptr;
    t_own_record = nullptr;
}

namespace {
std::atomic<long> s_virtual_records{0};

std::shared_ptr<ThreadData> registered(jlong id) {
    std::lock_guard<std::mutex> guard(registry().lock);
    auto found = registry().records.find(id);
    return found != registry().records.end() ? found->second : nullptr;
}

// The record of a virtual thread, made now if it has none. The registry holds it first, so that
// two threads making one for the same thread agree on it.
std::shared_ptr<ThreadData> virtual_record(JNIEnv* env, jthread thread, jlong id) {
    std::shared_ptr<ThreadData> record;
    {
        std::lock_guard<std::mutex> guard(registry().lock);
        std::shared_ptr<ThreadData>& slot = registry().records[id];
        if (slot) return slot;
        slot.reset(new (std::nothrow) ThreadData());
        if (!slot) {
            registry().records.erase(id);
            return nullptr;
        }
        slot->thread_id = id;
        slot->virtual_thread = env->NewWeakGlobalRef(thread);
        record = slot;
    }
    jvmtiError error = g_jvmti->SetThreadLocalStorage(thread, record.get());
    if (error != JVMTI_ERROR_NONE) {
        LOG_DEBUG("SetThreadLocalStorage of a virtual thread %s %d", get_error_message(error).c_str(), error);
        std::lock_guard<std::mutex> guard(registry().lock);
        registry().records.erase(id);
        return nullptr;  // the last share takes the weak reference with it
    }
    // Its end frees it: the end event must be on from now.
    if (s_virtual_records++ == 0) update_virtual_thread_events();
    return record;
}

// A record made for a virtual thread while it was ending, after its end event: nothing else frees
// it once the thread is gone.
void forget_dead_virtual_thread(const std::shared_ptr<ThreadData>& record) {
    std::lock_guard<std::mutex> guard(registry().lock);
    auto found = registry().records.find(record->thread_id);
    if (found == registry().records.end() || found->second != record) return;
    registry().records.erase(found);
    s_virtual_records--;
}
}  // namespace

ThreadDataAccess::ThreadDataAccess(jthread thread, bool create_virtual) {
    JNIEnv* env = current_env();
    if (env == nullptr) {
        m_error = JVMTI_ERROR_UNATTACHED_THREAD;
        return;
    }
    // The OS thread's own record stands for the current thread only where no virtual thread can
    // be mounted on it, or when asked for by the platform thread's own object.
    if (thread == nullptr ? !g_virtual_threads : is_own_thread(env, thread)) {
        m_data = t_own_record;
        return;
    }
    if (thread == nullptr) {
        m_data = own_thread_data();
        return;
    }
    jlong id = get_thread_id(env, thread);
    m_foreign_share = registered(id);
    if (!m_foreign_share && create_virtual && is_virtual_thread(env, thread)) {
        m_foreign_share = virtual_record(env, thread, id);
    }
    m_data = m_foreign_share.get();
}

// The weak reference goes with the last share of the record, which a dump may still hold.
ThreadData::~ThreadData() {
    JNIEnv* env = virtual_thread != nullptr && g_vm_alive ? current_env() : nullptr;
    if (env != nullptr) env->DeleteWeakGlobalRef(virtual_thread);
}

ThreadData* own_thread_data() {
    if (!g_virtual_threads) return t_own_record;
    void* stored = nullptr;
    return g_jvmti->GetThreadLocalStorage(nullptr, &stored) == JVMTI_ERROR_NONE ? static_cast<ThreadData*>(stored)
                                                                                : nullptr;
}

bool release_virtual_record() {
    ThreadData* own = own_thread_data();
    if (own == nullptr) return false;
    std::shared_ptr<ThreadData> record;
    {
        std::lock_guard<std::mutex> guard(registry().lock);
        auto found = registry().records.find(own->thread_id);
        if (found != registry().records.end() && found->second.get() == own) {
            record = std::move(found->second);
            registry().records.erase(found);
        }
    }
    g_jvmti->SetThreadLocalStorage(nullptr, nullptr);
    s_virtual_records--;
    return true;
}

long virtual_records() { return s_virtual_records.load(); }

void for_each_virtual_thread(JNIEnv* env, void (*visit)(jthread thread)) {
    if (virtual_records() == 0) return;
    std::vector<std::shared_ptr<ThreadData>> records;
    {
        std::lock_guard<std::mutex> guard(registry().lock);
        for (const auto& entry : registry().records) {
            if (entry.second->virtual_thread != nullptr) records.push_back(entry.second);
        }
    }
    for (const std::shared_ptr<ThreadData>& record : records) {
        LocalRef<jthread> thread(env, env->NewLocalRef(record->virtual_thread));
        if (thread) {
            visit(thread.get());
        } else {
            forget_dead_virtual_thread(record);
        }
    }
}

void update_virtual_thread_events() {
    if (!g_virtual_threads) return;
    bool hook = ReferenceCountedJObject(g_threadHook).isSet();
    switch_vm_events({{EVENT_VIRTUAL_THREAD_START, "VirtualThreadStart", hook},
                      {EVENT_VIRTUAL_THREAD_END, "VirtualThreadEnd", hook || virtual_records() > 0}});
}
