// SPDX-License-Identifier: Apache-2.0

// The Java binding, inside a Java VM of this process. A process can have one VM, once, so each test
// runs in a process of its own.

#include <gmock/gmock.h>

#include <future>
#include <string>

#include "tests/support/log_capture.h"
#include "tests/support/sdcard_folder.h"
#include "videostabilizer/jni.h"

using test_support::log_lines;
using test_support::LogLine;
using testing::ElementsAre;

namespace {

JavaVM* vm = nullptr;
JNIEnv* env = nullptr;  // of the main thread, on which tests run

LogLine info(const std::string& text) {
    return {4, "NUVIK_Stabilizer_onLoad", text};
}

LogLine error(const std::string& text) {
    return {6, "NUVIK_Stabilizer_onLoad", text};
}

// What toString() says of the pending exception, which is then no longer pending.
std::string take_exception() {
    jthrowable exception = env->ExceptionOccurred();
    if (exception == nullptr) {
        return "none";
    }
    env->ExceptionClear();
    jmethodID to_string =
        env->GetMethodID(env->FindClass("java/lang/Object"), "toString", "()Ljava/lang/String;");
    auto* const text = static_cast<jstring>(env->CallObjectMethod(exception, to_string));
    if (env->ExceptionCheck()) {
        return "an exception without a text";
    }
    const char* const bytes = env->GetStringUTFChars(text, nullptr);
    std::string copy = bytes;
    env->ReleaseStringUTFChars(text, bytes);
    return copy;
}

// Without a class path it lacks the class that the library binds.
void create_vm(const std::string& class_path = "") {
    std::string texts[] = {"-Xcheck:jni", "-Djava.class.path=" + class_path,
                           "-Djava.library.path=" LIBRARY_FOLDER};
    JavaVMOption options[] = {
        {texts[0].data(), nullptr}, {texts[1].data(), nullptr}, {texts[2].data(), nullptr}};
    JavaVMInitArgs arguments{JNI_VERSION_1_4, 3, options, JNI_FALSE};
    void* created = nullptr;
    ASSERT_EQ(JNI_CreateJavaVM(&vm, &created, &arguments), JNI_OK);
    env = static_cast<JNIEnv*>(created);
}

TEST(BindingBeforeLoad, HasNoEnvironment) {
    EXPECT_EQ(getJNIEnv(), nullptr);
    EXPECT_THAT(log_lines(), ElementsAre(error("Failed to obtain JNIEnv")));
}

TEST(BindingWithClass, LoadsWithItAndStabilisesAClipTwice) {
    create_vm(LIBRARY_JAR);
    jclass stabilizer = env->FindClass("com/nuvik/stabilizer/Stabilizer");
    ASSERT_EQ(take_exception(), "none");
    EXPECT_THAT(
        log_lines(),
        ElementsAre(info("loading . . ."),
                    info("Registering com/nuvik/stabilizer/Stabilizer natives\n"), info("loaded")));
    const SdcardFolder folder;
    SKIP_UNLESS_MADE(folder);
    write_sdcard_input(90 * SdcardFolder::FRAME_BYTES);
    jmethodID method = env->GetMethodID(stabilizer, "test_stabilizer", "()I");
    for (int round = 0; round < 2; ++round) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(env->CallIntMethod(env->AllocObject(stabilizer), method), 0);
        EXPECT_EQ(take_exception(), "none");
        const std::string text = testing::internal::GetCapturedStdout();
        EXPECT_THAT(text, testing::HasSubstr(" of frames: 90\n"));
        EXPECT_EQ(size_of_file(SdcardFolder::OUTPUT), 90 * SdcardFolder::FRAME_BYTES);
    }
}

class Binding : public testing::Test {
  protected:
    static void SetUpTestSuite() { create_vm(); }
    void SetUp() override { test_support::clear_log(); }
    void TearDown() override { EXPECT_EQ(take_exception(), "none"); }
};

TEST_F(Binding, RefusesToLoadIntoAVmWithoutTheClass) {
    const std::string name = "com/nuvik/stabilizer/Stabilizer";
    EXPECT_EQ(JNI_OnLoad(vm, nullptr), -1);
    EXPECT_THAT(log_lines(),
                ElementsAre(info("loading . . ."), info("Registering " + name + " natives\n"),
                            error("Native registration unable to find class '" + name + "'\n"),
                            error("can't load Stabilizer")));
    EXPECT_EQ(take_exception(), "java.lang.NoClassDefFoundError: " + name);

    EXPECT_EQ(videostabilizer::register_Stabilizer(env), -1);
    take_exception();
}

TEST_F(Binding, ReportsMethodsThatTheClassDoesNotHave) {
    char name[] = "no_such_method";
    char signature[] = "()I";
    const JNINativeMethod methods[] = {{name, signature, reinterpret_cast<void*>(getJNIEnv)}};
    EXPECT_EQ(jniRegisterNativeMethods(env, "java/lang/Object", methods, 1), -1);
    EXPECT_THAT(log_lines(), ElementsAre(info("Registering java/lang/Object natives\n"),
                                         error("RegisterNatives failed for 'java/lang/Object'\n")));
    EXPECT_THAT(take_exception(), testing::StartsWith("java.lang.NoSuchMethodError: "));
}

TEST_F(Binding, ThrowsExceptionsByName) {
    EXPECT_EQ(jniThrowException(env, "java/io/IOException", "no tape"), 0);
    EXPECT_EQ(take_exception(), "java.io.IOException: no tape");
    EXPECT_EQ(jniThrowException(env, "java/lang/IllegalStateException", nullptr), 0);
    EXPECT_EQ(take_exception(), "java.lang.IllegalStateException");
    EXPECT_THAT(log_lines(), ElementsAre());

    EXPECT_EQ(jniThrowException(env, "no/such/Exception", "lost"), -1);
    EXPECT_EQ(take_exception(), "none");
    // This VM always can throw; its function table is exchanged to see the other case.
    const JNINativeInterface_* const functions = env->functions;
    JNINativeInterface_ without_throw = *functions;
    without_throw.ThrowNew = [](JNIEnv*, jclass, const char*) -> jint { return JNI_ERR; };
    env->functions = &without_throw;
    EXPECT_EQ(jniThrowException(env, "java/lang/Error", "no tape"), 0);
    env->functions = functions;
    EXPECT_THAT(log_lines(), ElementsAre(error("Unable to find exception class no/such/Exception"),
                                         error("Failed throwing 'java/lang/Error' 'no tape'")));
}

TEST_F(Binding, GivesEachThreadItsOwnEnvironment) {
    EXPECT_EQ(std::async(std::launch::async, JNI_OnLoad, vm, nullptr).get(), -1);
    EXPECT_THAT(log_lines(), ElementsAre(error("GetEnv failed!")));
    JNI_OnLoad(vm, nullptr);  // tells the library its VM, although it fails later
    take_exception();
    test_support::clear_log();

    EXPECT_EQ(getJNIEnv(), env);
    std::async(std::launch::async, [] {
        void* own = nullptr;
        EXPECT_EQ(vm->AttachCurrentThread(&own, nullptr), JNI_OK);
        EXPECT_EQ(getJNIEnv(), own);
        EXPECT_NE(getJNIEnv(), env);
        EXPECT_EQ(vm->DetachCurrentThread(), JNI_OK);
    }).get();
    EXPECT_THAT(log_lines(), ElementsAre());

    EXPECT_EQ(std::async(std::launch::async, getJNIEnv).get(), nullptr);
    EXPECT_THAT(log_lines(), ElementsAre(error("Failed to obtain JNIEnv")));
}

}  // namespace
