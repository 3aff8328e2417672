#pragma once

#include <string>

// Runs tests/jni/java/CallStabilizer in a Java VM of its own, with -Xcheck:jni, and returns what
// it, native code and the log wrote, the latter two unordered with the first. Fails the current
// test if the VM finds fault with a use of JNI or does not exit with 0. The class path lacks the
// library's jar unless `with_jar`. `environment` precedes the command, as in "A=1 B=2".
std::string call_stabilizer(const std::string& arguments, bool with_jar = true,
                            const std::string& environment = "");
