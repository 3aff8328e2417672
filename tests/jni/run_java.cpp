#include "tests/jni/run_java.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>

std::string call_stabilizer(const std::string& arguments, bool with_jar,
                            const std::string& environment) {
    // OpenCL drivers for the processor install signal handlers of their own over those by which the
    // VM works; the VM's own remedy is to have this library see such calls first.
    const std::string command =
        environment +
        " LD_PRELOAD='" SIGNAL_CHAINING_LIBRARY "' '" JAVA_PROGRAM
        "' -Xcheck:jni --enable-native-access=ALL-UNNAMED -XX:+ErrorFileToStdout -cp '" +
        TEST_CLASSES + (with_jar ? ":" LIBRARY_JAR : "") +
        "' -Djava.library.path='" LIBRARY_FOLDER "' CallStabilizer " + arguments + " 2>&1";
    std::FILE* const pipe = popen(command.c_str(), "r");  // NOLINT(cert-env33-c)
    std::string output;
    char part[4096];
    for (std::size_t count; (count = std::fread(part, 1, sizeof(part), pipe)) > 0;) {
        output.append(part, count);
    }
    EXPECT_EQ(pclose(pipe), 0) << output;
    for (const char* complaint : {"WARNING", "Warning: ", "FATAL ERROR in native method"}) {
        EXPECT_THAT(output, testing::Not(testing::HasSubstr(complaint)));
    }
    return output;
}
