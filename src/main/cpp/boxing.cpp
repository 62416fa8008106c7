#include "boxing.h"

#include "resources.h"

namespace {

template <typename T>
jobject box_with(JNIEnv* env, const char* wrapper, const char* signature, T value) {
    LocalRef<jclass> clazz(env, env->FindClass(wrapper));
    if (!clazz) return nullptr;
    jmethodID valueOf = env->GetStaticMethodID(clazz.get(), "valueOf", signature);
    if (valueOf == nullptr) return nullptr;
    jobject boxed = env->CallStaticObjectMethod(clazz.get(), valueOf, value);
    return env->ExceptionCheck() ? nullptr : boxed;
}

// Calls the accessor when the value is an instance of the wrapper; false when it is not or the
// call could not be made, so that the caller tries the next wrapper.
template <typename R, typename Call>
bool unbox_with(JNIEnv* env, jobject value, const char* wrapper, const char* method, const char* signature,
                Call call, R* result) {
    LocalRef<jclass> clazz(env, env->FindClass(wrapper));
    if (!clazz) {
        env->ExceptionClear();
        return false;
    }
    if (!env->IsInstanceOf(value, clazz.get())) return false;
    jmethodID accessor = env->GetMethodID(clazz.get(), method, signature);
    if (accessor == nullptr) {
        env->ExceptionClear();
        return false;
    }
    *result = static_cast<R>(call(env, value, accessor));
    return true;
}

jint call_int(JNIEnv* env, jobject value, jmethodID method) { return env->CallIntMethod(value, method); }
jint call_boolean(JNIEnv* env, jobject value, jmethodID method) {
    return env->CallBooleanMethod(value, method) ? 1 : 0;
}
jint call_short(JNIEnv* env, jobject value, jmethodID method) { return env->CallShortMethod(value, method); }
jint call_char(JNIEnv* env, jobject value, jmethodID method) { return env->CallCharMethod(value, method); }
jint call_byte(JNIEnv* env, jobject value, jmethodID method) { return env->CallByteMethod(value, method); }
jlong call_long(JNIEnv* env, jobject value, jmethodID method) { return env->CallLongMethod(value, method); }
jfloat call_float(JNIEnv* env, jobject value, jmethodID method) { return env->CallFloatMethod(value, method); }
jdouble call_double(JNIEnv* env, jobject value, jmethodID method) { return env->CallDoubleMethod(value, method); }

}  // namespace

jobject box(JNIEnv* env, jlong value) { return box_with(env, "java/lang/Long", "(J)Ljava/lang/Long;", value); }
jobject box(JNIEnv* env, jint value) { return box_with(env, "java/lang/Integer", "(I)Ljava/lang/Integer;", value); }
jobject box(JNIEnv* env, jbyte value) { return box_with(env, "java/lang/Byte", "(B)Ljava/lang/Byte;", value); }
jobject box(JNIEnv* env, jshort value) { return box_with(env, "java/lang/Short", "(S)Ljava/lang/Short;", value); }
jobject box(JNIEnv* env, jchar value) {
    return box_with(env, "java/lang/Character", "(C)Ljava/lang/Character;", value);
}
jobject box(JNIEnv* env, jboolean value) {
    return box_with(env, "java/lang/Boolean", "(Z)Ljava/lang/Boolean;", value);
}
jobject box(JNIEnv* env, jfloat value) {
    // Varargs promote float to double, as the JNI call forms expect.
    return box_with(env, "java/lang/Float", "(F)Ljava/lang/Float;", static_cast<jdouble>(value));
}
jobject box(JNIEnv* env, jdouble value) {
    return box_with(env, "java/lang/Double", "(D)Ljava/lang/Double;", value);
}

jint unBoxToInt(JNIEnv* env, jobject value) {
    // JNI counts null as an instance of every class, and no accessor may be called on it.
    if (value == nullptr) return UNBOX_FAILURE;
    jint result = UNBOX_FAILURE;
    if (unbox_with(env, value, "java/lang/Integer", "intValue", "()I", call_int, &result)) return result;
    if (unbox_with(env, value, "java/lang/Boolean", "booleanValue", "()Z", call_boolean, &result)) return result;
    if (unbox_with(env, value, "java/lang/Short", "shortValue", "()S", call_short, &result)) return result;
    if (unbox_with(env, value, "java/lang/Character", "charValue", "()C", call_char, &result)) return result;
    if (unbox_with(env, value, "java/lang/Byte", "byteValue", "()B", call_byte, &result)) return result;
    return UNBOX_FAILURE;
}

jlong unBoxToLong(JNIEnv* env, jobject value) {
    jlong result = UNBOX_FAILURE;
    if (value != nullptr) unbox_with(env, value, "java/lang/Long", "longValue", "()J", call_long, &result);
    return result;
}

jfloat unBoxToFloat(JNIEnv* env, jobject value) {
    jfloat result = UNBOX_FAILURE;
    if (value != nullptr) unbox_with(env, value, "java/lang/Float", "floatValue", "()F", call_float, &result);
    return result;
}

jdouble unBoxToDouble(JNIEnv* env, jobject value) {
    jdouble result = UNBOX_FAILURE;
    if (value != nullptr) unbox_with(env, value, "java/lang/Double", "doubleValue", "()D", call_double, &result);
    return result;
}
