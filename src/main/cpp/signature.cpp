#include "signature.h"

#include <cstring>

namespace {
bool is_primitive(char c) { return c != '\0' && std::strchr("BCDFIJSZ", c) != nullptr; }
}  // namespace

std::string get_arg_sig(const char* signature, jint n) {
    std::string collected;
    jint index = 0;
    bool in_class_name = false;
    for (const char* p = signature; *p != '\0'; p++) {
        char c = *p;
        if (in_class_name) {
            collected += c;
            if (c != ';') continue;
            if (index == n) return collected;
            collected.clear();
            index++;
            in_class_name = false;
        } else if (c == '[') {
            collected += c;
        } else if (c == 'L') {
            collected += c;
            in_class_name = true;
        } else if (is_primitive(c)) {
            if (index == n) return collected + c;
            collected.clear();
            index++;
        } else if (c == ')') {
            return "";
        }
    }
    return "";
}

std::vector<ArgumentSlot> argument_slots(const char* signature, jint first_slot) {
    std::vector<ArgumentSlot> slots;
    jint slot = first_slot;
    for (jint n = 0;; n++) {
        std::string type = get_arg_sig(signature, n);
        if (type.empty()) break;
        slots.push_back(ArgumentSlot{slot, type});
        slot += type == "J" || type == "D" ? 2 : 1;
    }
    return slots;
}
