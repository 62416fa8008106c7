#include "loaded_classes.h"

#include "global.h"
#include "resources.h"

LoadedClasses::~LoadedClasses() { release(); }

void LoadedClasses::release() {
    for (jint k = 0; m_classes && k < m_count; k++) m_env->DeleteLocalRef(m_classes[static_cast<size_t>(k)]);
    m_classes.reset();
    m_count = 0;
}

jvmtiError LoadedClasses::read() {
    jvmtiError error = g_jvmti->GetLoadedClasses(&m_count, m_classes.out());
    if (error != JVMTI_ERROR_NONE) {
        m_count = 0;
        return error;
    }
    // The VM has just handed over one local reference per class.
    ensure_local_capacity(m_env, m_count);
    return error;
}
