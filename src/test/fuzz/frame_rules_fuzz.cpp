// Feeds arbitrary class signatures, method names and stacks to the frame rules. Class and method
// names come from whatever classes the application loads, generated ones included, so the rules
// must hold for any text; the search for a CFML caller must never ask for a frame outside the
// stack and must answer with a CFML frame or -1.
//
// Input: the first byte is the height (signed), the second the length of the class signature that
// follows; the rest is the stack, one frame per line, newest first: a flag byte (bit 0 CFML, bit 1
// unreadable) and the method name.
#include "frame_rules.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {
void require(bool condition) {
    if (!condition) __builtin_trap();
}

struct FakeFrame {
    bool cfml;
    bool readable;
    std::string name;
};

std::vector<FakeFrame> frames_of(const std::string& text) {
    std::vector<FakeFrame> frames;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        uint8_t flags = static_cast<uint8_t>(text[start]);
        frames.push_back(FakeFrame{(flags & 1) != 0, (flags & 2) == 0, text.substr(start + 1, end - start - 1)});
        start = end + 1;
    }
    return frames;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const jint height = static_cast<int8_t>(data[0]);
    const size_t cut = std::min<size_t>(data[1], size - 2);
    const std::string signature(reinterpret_cast<const char*>(data + 2), cut);
    const std::string stack(reinterpret_cast<const char*>(data + 2 + cut), size - 2 - cut);

    FrameLanguage language = classify_class_signature(signature.c_str());
    require(language == LANG_JAVA || language == LANG_CFML);
    require(std::strcmp(frame_language_name(language), language == LANG_CFML ? "CFML" : "JAVA") == 0);
    is_hidden_frame(signature.c_str());

    std::vector<FakeFrame> frames = frames_of(stack);
    const jint count = static_cast<jint>(frames.size());
    auto name_of = [&](jint index, const char** name) {
        require(index >= 0 && index < count);
        if (!frames[static_cast<size_t>(index)].readable) return false;
        *name = frames[static_cast<size_t>(index)].name.c_str();
        return true;
    };
    auto is_cfml = [&](jint index) {
        require(index >= 0 && index < count);
        return frames[static_cast<size_t>(index)].cfml;
    };
    jint parent = find_cf_parent(count, height, name_of, is_cfml);
    require(parent == -1 || (parent >= 0 && parent < count && frames[static_cast<size_t>(parent)].cfml));
    // The caller is older than the frame it was asked about.
    if (parent != -1) require(parent > count - height);
    return 0;
}
