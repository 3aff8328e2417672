// Java programs that load the library, on machines with or without an OpenCL device.

#include <gtest/gtest.h>

#include "tests/jni/run_java.h"

namespace {

constexpr char LOADED_LOG[] =
    "I/NUVIK_Stabilizer_onLoad: loading . . .\n"
    "I/NUVIK_Stabilizer_onLoad: Registering com/nuvik/stabilizer/Stabilizer natives\n"
    "I/NUVIK_Stabilizer_onLoad: loaded\n";

TEST(JavaLoad, RegistersByTheClassOrByTheApplication) {
    const JavaOutcome by_class = run_java("CallStabilizer 0");
    EXPECT_EQ(by_class.status, 0);
    EXPECT_EQ(by_class.output, "processor traps arrive\n");
    EXPECT_EQ(by_class.log, LOADED_LOG);

    const JavaOutcome by_application = run_java("LoadLibrary");
    EXPECT_EQ(by_application.status, 0);
    EXPECT_EQ(by_application.output, "loaded\n");
    EXPECT_EQ(by_application.log, LOADED_LOG);
}

TEST(JavaLoad, IsRefusedWithoutTheClass) {
    const JavaOutcome outcome = run_java("LoadLibrary", /*class_path_has_jar=*/false);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output,
              "refused: java.lang.NoClassDefFoundError: com/nuvik/stabilizer/Stabilizer\n");
    EXPECT_EQ(outcome.log,
              "I/NUVIK_Stabilizer_onLoad: loading . . .\n"
              "I/NUVIK_Stabilizer_onLoad: Registering com/nuvik/stabilizer/Stabilizer natives\n"
              "E/NUVIK_Stabilizer_onLoad: Native registration unable to find class "
              "'com/nuvik/stabilizer/Stabilizer'\n"
              "E/NUVIK_Stabilizer_onLoad: can't load Stabilizer\n");
}

TEST(JavaCall, EndsWithAMessageWithoutADevice) {
    const JavaOutcome outcome = run_java("CallStabilizer 2", true, "OCL_ICD_VENDORS=/nonexistent/");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.output,
              "test_stabilizer() = 0\n"
              "test_stabilizer() = 0\n"
              "processor traps arrive\n"
              "ERR: can't create the stabilizer\n"
              "ERR: can't create the stabilizer\n");
}

}  // namespace
