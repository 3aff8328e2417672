// The native half of the Java binding, inside a Java VM of this process. A process can have one VM,
// once; this one has no class path, so it lacks the class that the library binds.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <string>
#include <vector>

#include "tests/support/log_capture.h"
#include "videostabilizer/jni.h"

using test_support::LogLine;
using testing::ElementsAre;
using videostabilizer::register_Stabilizer;

namespace {

constexpr int INFO = 4;
constexpr int ERROR = 6;

LogLine line(int priority, const std::string& text) {
    return {priority, "NUVIK_Stabilizer_onLoad", text};
}

// The first test of its process, which ctest sees to; else somebody has called JNI_OnLoad.
TEST(BindingBeforeLoad, HasNoEnvironment) {
    EXPECT_EQ(getJNIEnv(), nullptr);
    EXPECT_THAT(test_support::log_lines(), ElementsAre(line(ERROR, "Failed to obtain JNIEnv")));
}

class Binding : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        if (vm_ != nullptr) return;
        char check_option[] = "-Xcheck:jni";
        JavaVMOption options[] = {{check_option, nullptr}};
        JavaVMInitArgs arguments{};
        arguments.version = JNI_VERSION_1_4;
        arguments.nOptions = 1;
        arguments.options = options;
        void* env = nullptr;
        ASSERT_EQ(JNI_CreateJavaVM(&vm_, &env, &arguments), JNI_OK);
        env_ = static_cast<JNIEnv*>(env);
    }

    void SetUp() override { test_support::clear_log(); }
    void TearDown() override { EXPECT_EQ(take_exception(), "none"); }

    // What toString() says of the pending exception, which is then no longer pending.
    static std::string take_exception() {
        jthrowable exception = env_->ExceptionOccurred();
        if (exception == nullptr) return "none";
        env_->ExceptionClear();
        jmethodID to_string = env_->GetMethodID(env_->FindClass("java/lang/Object"), "toString",
                                                "()Ljava/lang/String;");
        auto* const text = static_cast<jstring>(env_->CallObjectMethod(exception, to_string));
        if (env_->ExceptionCheck() || text == nullptr) return "an exception without a text";
        const char* const bytes = env_->GetStringUTFChars(text, nullptr);
        std::string copy = bytes;
        env_->ReleaseStringUTFChars(text, bytes);
        return copy;
    }

    static JavaVM* vm_;
    static JNIEnv* env_;  // of the main thread, on which tests run
};
JavaVM* Binding::vm_ = nullptr;
JNIEnv* Binding::env_ = nullptr;

TEST_F(Binding, RefusesToLoadIntoAVmWithoutTheClass) {
    EXPECT_EQ(JNI_OnLoad(vm_, nullptr), -1);
    EXPECT_THAT(
        test_support::log_lines(),
        ElementsAre(
            line(INFO, "loading . . ."),
            line(INFO, "Registering com/nuvik/stabilizer/Stabilizer natives\n"),
            line(ERROR,
                 "Native registration unable to find class 'com/nuvik/stabilizer/Stabilizer'\n"),
            line(ERROR, "can't load Stabilizer")));
    EXPECT_EQ(take_exception(), "java.lang.NoClassDefFoundError: com/nuvik/stabilizer/Stabilizer");

    EXPECT_EQ(register_Stabilizer(env_), -1);
    take_exception();
}

TEST_F(Binding, RefusesToLoadOnAThreadUnknownToTheVm) {
    EXPECT_EQ(std::async(std::launch::async, JNI_OnLoad, vm_, nullptr).get(), -1);
    EXPECT_THAT(test_support::log_lines(), ElementsAre(line(ERROR, "GetEnv failed!")));
}

TEST_F(Binding, ReportsMethodsThatTheClassDoesNotHave) {
    char name[] = "no_such_method";
    char signature[] = "()I";
    const JNINativeMethod methods[] = {{name, signature, reinterpret_cast<void*>(getJNIEnv)}};
    EXPECT_EQ(jniRegisterNativeMethods(env_, "java/lang/Object", methods, 1), -1);
    EXPECT_THAT(test_support::log_lines(),
                ElementsAre(line(INFO, "Registering java/lang/Object natives\n"),
                            line(ERROR, "RegisterNatives failed for 'java/lang/Object'\n")));
    EXPECT_THAT(take_exception(), testing::StartsWith("java.lang.NoSuchMethodError: "));
}

TEST_F(Binding, ThrowsExceptionsByName) {
    const struct {
        const char* class_name;
        const char* message;
        int result;
        const char* pending;
        std::vector<LogLine> log;
    } cases[] = {
        {"java/io/IOException", "no tape", 0, "java.io.IOException: no tape", {}},
        {"java/lang/IllegalStateException", nullptr, 0, "java.lang.IllegalStateException", {}},
        {"no/such/Exception",
         "lost",
         -1,
         "none",
         {line(ERROR, "Unable to find exception class no/such/Exception")}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.class_name);
        test_support::clear_log();
        EXPECT_EQ(jniThrowException(env_, c.class_name, c.message), c.result);
        EXPECT_EQ(take_exception(), c.pending);
        EXPECT_EQ(test_support::log_lines(), c.log);
    }

    // This VM always can throw; its function table is exchanged to see the other case.
    test_support::clear_log();
    const JNINativeInterface_* const functions = env_->functions;
    JNINativeInterface_ without_throw = *functions;
    without_throw.ThrowNew = [](JNIEnv*, jclass, const char*) -> jint { return JNI_ERR; };
    env_->functions = &without_throw;
    EXPECT_EQ(jniThrowException(env_, "java/lang/Error", "no tape"), 0);
    env_->functions = functions;
    EXPECT_THAT(test_support::log_lines(),
                ElementsAre(line(ERROR, "Failed throwing 'java/lang/Error' 'no tape'")));
}

TEST_F(Binding, GivesEachThreadItsOwnEnvironment) {
    JNI_OnLoad(vm_, nullptr);  // tells the library its VM, although it fails later
    take_exception();
    test_support::clear_log();

    EXPECT_EQ(getJNIEnv(), env_);
    std::async(std::launch::async, [] {
        void* own = nullptr;
        EXPECT_EQ(vm_->AttachCurrentThread(&own, nullptr), JNI_OK);
        EXPECT_EQ(getJNIEnv(), own);
        EXPECT_NE(getJNIEnv(), env_);
        EXPECT_EQ(vm_->DetachCurrentThread(), JNI_OK);
    }).get();
    EXPECT_THAT(test_support::log_lines(), ElementsAre());

    EXPECT_EQ(std::async(std::launch::async, getJNIEnv).get(), nullptr);
    EXPECT_THAT(test_support::log_lines(), ElementsAre(line(ERROR, "Failed to obtain JNIEnv")));
}

}  // namespace
