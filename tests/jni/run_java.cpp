#include "tests/jni/run_java.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace {

class TemporaryFolder {
  public:
    TemporaryFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "java XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary folder");
        path_ = pattern;
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string file(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

std::string read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace

JavaOutcome run_java(const std::string& program_and_arguments, bool class_path_has_jar,
                     const std::string& environment) {
    const TemporaryFolder folder;
    std::string class_path = TEST_CLASSES;
    if (class_path_has_jar) class_path += std::string(":") + LIBRARY_JAR;
    // OpenCL drivers for the processor install signal handlers of their own over those by which the
    // VM works; the VM's own remedy is to have this library see such calls first.
    const std::string command = environment +
                                " LD_PRELOAD='" SIGNAL_CHAINING_LIBRARY "' '" JAVA_PROGRAM
                                "' -Xcheck:jni --enable-native-access=ALL-UNNAMED -cp '" +
                                class_path +
                                "' -Djava.library.path='" LIBRARY_FOLDER "' -XX:ErrorFile='" +
                                folder.file("crash.txt") + "' " + program_and_arguments + " > '" +
                                folder.file("output.txt") + "' 2> '" + folder.file("log.txt") + "'";
    const int result = std::system(command.c_str());  // NOLINT(concurrency-mt-unsafe)
    JavaOutcome outcome{WIFEXITED(result) ? WEXITSTATUS(result) : -1,
                        read_file(folder.file("output.txt")), read_file(folder.file("log.txt"))};
    for (const std::string& text : {outcome.output, outcome.log}) {
        for (const char* complaint : {"WARNING", "Warning: ", "FATAL ERROR in native method"}) {
            EXPECT_EQ(text.find(complaint), std::string::npos) << text;
        }
    }
    return outcome;
}
