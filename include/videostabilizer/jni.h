#pragma once

// The Java binding. When a Java VM loads the library it calls JNI_OnLoad, which binds the native
// method "test_stabilizer", signature "()I", of class "com/nuvik/stabilizer/Stabilizer" to
// test_stabilizer(). If that cannot be done JNI_OnLoad returns -1 and the VM refuses the library;
// the log says why under the tag "NUVIK_Stabilizer_onLoad".
//
// What is declared here is for native code that runs inside a Java VM. Where the compiler finds no
// <jni.h> this header declares nothing; a library built without a JDK exports none of it.

#if __has_include(<jni.h>)

#include <jni.h>

#include "videostabilizer/export.h"

namespace videostabilizer {

// Binds the native method of class "com/nuvik/stabilizer/Stabilizer"; JNI_OnLoad calls it.
// Returns what jniRegisterNativeMethods does.
VIDEOSTABILIZER_API int register_Stabilizer(JNIEnv* env);

}  // namespace videostabilizer

// Shared by the three functions below: `env` belongs to the calling thread, on which no Java
// exception may be pending. Class names have slashes ("java/io/IOException"). A class is looked up
// with the class loader of the Java method that called, on other threads with the system's. Local
// references that are made live until the calling native method returns.
extern "C" {

// Binds `count` native methods of a class; `methods` is only read.
// Returns 0; -1 if the class is missing or lacks such a native method. Then the VM's exception
// (NoClassDefFoundError, NoSuchMethodError) is left pending, to be seen by the Java caller.
VIDEOSTABILIZER_API int jniRegisterNativeMethods(JNIEnv* env, const char* className,
                                                 const JNINativeMethod* methods, int count);

// Makes an exception pending, which is thrown once the calling native method returns. `msg` may be
// null: an exception without a message.
// Returns 0, even if the VM could not throw (the log says so); -1 if there is no such class: then
// no exception is pending.
VIDEOSTABILIZER_API int jniThrowException(JNIEnv* env, const char* className, const char* msg);

// The calling thread's environment, valid on this thread only. Null on a thread that the VM does
// not know (none is attached here) and before the VM has loaded the library.
// Threads: thread-safe.
VIDEOSTABILIZER_API JNIEnv* getJNIEnv();

}  // extern "C"

#endif
