// SPDX-License-Identifier: Apache-2.0

#include "videostabilizer/jni.h"

#include <atomic>
#include <iterator>

#include "platform/log.h"
#include "videostabilizer/test_stabilizer.h"

namespace videostabilizer {
namespace {

constexpr char TAG[] = "NUVIK_Stabilizer_onLoad";
constexpr char STABILIZER_CLASS[] = "com/nuvik/stabilizer/Stabilizer";

// The VM that loaded the library; null before. Atomic, because getJNIEnv may run on any thread.
std::atomic<JavaVM*> java_vm{nullptr};

// Drops the two arguments that the VM passes.
jint JNICALL test_stabilizer_method(JNIEnv* /*env*/, jobject /*stabilizer*/) {
    return test_stabilizer();
}

// The casts are for the JDK's header, whose names are not const; Android's are.
const JNINativeMethod stabilizer_methods[] = {
    {const_cast<char*>("test_stabilizer"), const_cast<char*>("()I"),
     reinterpret_cast<void*>(test_stabilizer_method)},
};

// Null if the calling thread is not attached to the VM.
JNIEnv* calling_thread_env(JavaVM* vm) {
    void* env = nullptr;
    return vm->GetEnv(&env, JNI_VERSION_1_4) == JNI_OK ? static_cast<JNIEnv*>(env) : nullptr;
}

}  // namespace

int register_Stabilizer(JNIEnv* env) {
    return jniRegisterNativeMethods(env, STABILIZER_CLASS, stabilizer_methods,
                                    static_cast<int>(std::size(stabilizer_methods)));
}

}  // namespace videostabilizer

using namespace videostabilizer;

extern "C" VIDEOSTABILIZER_API jint JNICALL JNI_OnLoad(JavaVM* vm, void* /*reserved*/) {
    java_vm = vm;
    JNIEnv* const env = calling_thread_env(vm);
    if (env == nullptr) {
        __android_log_print(LOG_ERROR, TAG, "GetEnv failed!");
        return -1;
    }
    __android_log_print(LOG_INFO, TAG, "loading . . .");
    if (register_Stabilizer(env) != 0) {
        __android_log_print(LOG_ERROR, TAG, "can't load Stabilizer");
        return -1;
    }
    __android_log_print(LOG_INFO, TAG, "loaded");
    return JNI_VERSION_1_4;
}

int jniRegisterNativeMethods(JNIEnv* env, const char* className, const JNINativeMethod* methods,
                             int count) {
    __android_log_print(LOG_INFO, TAG, "Registering %s natives\n", className);
    jclass owner = env->FindClass(className);
    if (owner == nullptr) {
        __android_log_print(LOG_ERROR, TAG, "Native registration unable to find class '%s'\n",
                            className);
        return -1;
    }
    if (env->RegisterNatives(owner, methods, count) < 0) {
        __android_log_print(LOG_ERROR, TAG, "RegisterNatives failed for '%s'\n", className);
        return -1;
    }
    return 0;
}

int jniThrowException(JNIEnv* env, const char* className, const char* msg) {
    jclass exception = env->FindClass(className);
    if (exception == nullptr) {
        // The failed look-up has left its own exception pending.
        env->ExceptionClear();
        __android_log_print(LOG_ERROR, TAG, "Unable to find exception class %s", className);
        return -1;
    }
    if (env->ThrowNew(exception, msg) != JNI_OK) {
        __android_log_print(LOG_ERROR, TAG, "Failed throwing '%s' '%s'", className,
                            msg != nullptr ? msg : "");
    }
    return 0;
}

JNIEnv* getJNIEnv() {
    JavaVM* const vm = java_vm;
    JNIEnv* const env = vm != nullptr ? calling_thread_env(vm) : nullptr;
    if (env == nullptr) {
        __android_log_print(LOG_ERROR, TAG, "Failed to obtain JNIEnv");
    }
    return env;
}
