#include "error_name.h"

#include "global.h"
#include "log.h"
#include "resources.h"

std::string get_error_message(jvmtiError error) {
    std::string result;
    if (g_jvmti == nullptr) return result;
    JvmtiBuffer<char> name;
    jvmtiError status = g_jvmti->GetErrorName(error, name.out());
    if (status != JVMTI_ERROR_NONE) {
        LOG_ERROR("GetErrorName failed %d", status);
        return result;
    }
    result = name.get();
    return result;
}
