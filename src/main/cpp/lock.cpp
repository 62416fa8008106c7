#include "lock.h"

#include "error_name.h"
#include "global.h"
#include "log.h"

JavaLock::JavaLock(const char* name) {
    if (g_jvmti == nullptr) return;
    jvmtiError error = g_jvmti->CreateRawMonitor(name, &m_monitor);
    if (error != JVMTI_ERROR_NONE) {
        m_monitor = nullptr;
        LOG_ERROR("Failed to CreateRawMonitor(%s) %s %d", name, get_error_message(error).c_str(), error);
    }
}

// Every monitor operation has the same shape; a macro keeps the caller's name in the log line.
#define KV_MONITOR_CALL(call, operation)                                                          \
    do {                                                                                          \
        if (m_monitor == nullptr) return;                                                         \
        jvmtiError error = g_jvmti->call;                                                         \
        if (error != JVMTI_ERROR_NONE) {                                                          \
            LOG_ERROR("Failed to " operation " %s %d", get_error_message(error).c_str(), error);  \
        }                                                                                         \
    } while (0)

void JavaLock::lock() { KV_MONITOR_CALL(RawMonitorEnter(m_monitor), "RawMonitorEnter"); }

void JavaLock::release() { KV_MONITOR_CALL(RawMonitorExit(m_monitor), "RawMonitorExit"); }

JavaLock::~JavaLock() { KV_MONITOR_CALL(DestroyRawMonitor(m_monitor), "DestroyRawMonitor"); }

JavaLockGuard::JavaLockGuard(JavaLock* lock) : m_lock(lock) {
    LOG_FINE("acquire %p", static_cast<void*>(lock));
    if (m_lock != nullptr) m_lock->lock();
}

JavaLockGuard::~JavaLockGuard() {
    LOG_FINE("release %p", static_cast<void*>(m_lock));
    if (m_lock != nullptr) m_lock->release();
}
