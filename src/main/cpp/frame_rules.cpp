#include "frame_rules.h"

#include "line_table.h"

#include <cstring>

const char* frame_language_name(jint language) {
    switch (language) {
        case LANG_JAVA: return "JAVA";
        case LANG_CFML: return "CFML";
        default: return "UNKNOWN";
    }
}

FrameLanguage classify_class_signature(const char* signature) {
    if (strncmp(signature, "Lcf", 3) == 0 &&
        (strstr(signature, "$func") != nullptr || strstr(signature, "2ecfm") != nullptr ||
         strstr(signature, "2ecfc") != nullptr)) {
        return LANG_CFML;
    }
    return has_suffix(signature, "$cf;") ? LANG_CFML : LANG_JAVA;
}

bool is_hidden_frame(const char* method_name) {
    return strncmp(method_name, "_call0", 6) == 0 || strncmp(method_name, "_factor", 7) == 0;
}
