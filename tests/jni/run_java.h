#pragma once

#include <string>

// Running the Java programs of java/ in a Java VM of their own, with -Xcheck:jni.

struct JavaOutcome {
    int status;          // exit status; -1 if the VM was killed
    std::string output;  // standard output, of Java and of native code
    std::string log;     // standard error, on which the library logs
};

// Runs `java PROGRAM_AND_ARGUMENTS`. The class path holds the test programs and, with
// `class_path_has_jar`, the library's jar. `environment` precedes the command, as in "A=1 B=2".
// Fails the current test if the VM finds fault with a use of JNI.
JavaOutcome run_java(const std::string& program_and_arguments, bool class_path_has_jar = true,
                     const std::string& environment = "");
