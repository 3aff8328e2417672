// SPDX-License-Identifier: Apache-2.0

#pragma once

// The Java binding. A Java VM that loads the library calls JNI_OnLoad, which binds the native
// method "test_stabilizer", signature "()I", of class "com/nuvik/stabilizer/Stabilizer" to
// test_stabilizer(). On failure JNI_OnLoad returns -1 and the VM refuses the library; the reason is
// in the log under the tag "NUVIK_Stabilizer_onLoad".
//
// The functions are for native code inside a Java VM. Without <jni.h> this header declares nothing;
// a library built without a JDK exports none of it.

#if __has_include(<jni.h>)

#include <jni.h>

#include "videostabilizer/export.h"

namespace videostabilizer {

// Binds the native method of class "com/nuvik/stabilizer/Stabilizer"; JNI_OnLoad calls it.
// Threads: thread-safe. Returns what jniRegisterNativeMethods does.
VIDEOSTABILIZER_API int register_Stabilizer(JNIEnv* env);

}  // namespace videostabilizer

// For the three functions below: `env` belongs to the calling thread, on which no Java exception
// may be pending. Class names have slashes ("java/io/IOException") and are looked up with the class
// loader of the calling Java method, on other threads with the system's. Local references created
// here live until the calling native method returns. Threads: thread-safe.
extern "C" {

// Binds `count` native methods of a class.
// Returns 0; -1 if the class is missing or lacks such a native method. The VM's exception
// (NoClassDefFoundError, NoSuchMethodError) is then left pending for the Java caller.
VIDEOSTABILIZER_API int jniRegisterNativeMethods(JNIEnv* env, const char* className,
                                                 const JNINativeMethod* methods, int count);

// Makes an exception pending, which is thrown once the calling native method returns. `msg` may be
// null. Returns 0, even if the VM could not throw (logged); -1 if there is no such class, with no
// exception pending.
VIDEOSTABILIZER_API int jniThrowException(JNIEnv* env, const char* className, const char* msg);

// The calling thread's environment, valid on this thread only. Null on a thread that is not
// attached to the VM, and before the VM has loaded the library.
VIDEOSTABILIZER_API JNIEnv* getJNIEnv();

}  // extern "C"

#endif
