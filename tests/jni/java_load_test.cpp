// A Java program that loads the library, on machines with or without an OpenCL device.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/jni/run_java.h"

namespace {

#define LOG_TAG "/NUVIK_Stabilizer_onLoad: "

TEST(JavaLoad, RegistersByTheClassOrByTheApplication) {
    for (const char* arguments : {"0", "0 load"}) {
        EXPECT_EQ(call_stabilizer(arguments),
                  "I" LOG_TAG
                  "loading . . .\n"
                  "I" LOG_TAG
                  "Registering com/nuvik/stabilizer/Stabilizer natives\n"
                  "I" LOG_TAG
                  "loaded\n"
                  "done\n");
    }
}

TEST(JavaLoad, IsRefusedWithoutTheClass) {
    EXPECT_EQ(call_stabilizer("0 load", /*with_jar=*/false),
              "I" LOG_TAG
              "loading . . .\n"
              "I" LOG_TAG
              "Registering com/nuvik/stabilizer/Stabilizer natives\n"
              "E" LOG_TAG
              "Native registration unable to find class "
              "'com/nuvik/stabilizer/Stabilizer'\n"
              "E" LOG_TAG
              "can't load Stabilizer\n"
              "refused: java.lang.NoClassDefFoundError: com/nuvik/stabilizer/Stabilizer\n");
}

TEST(JavaCall, EndsWithAMessageWithoutADevice) {
    EXPECT_THAT(call_stabilizer("2", true, "OCL_ICD_VENDORS=/nonexistent/"),
                testing::EndsWith("test_stabilizer() = 0\n"
                                  "done\n"
                                  "ERR: can't create the stabilizer\n"
                                  "ERR: can't create the stabilizer\n"));
}

}  // namespace
