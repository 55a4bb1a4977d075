// Files of the tests' own.
#ifndef TESTS_FILES_H
#define TESTS_FILES_H

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

// A folder that goes with its object, and what tests left in it.
class TemporaryFolder {
  public:
    TemporaryFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "dorado-test-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) {
            throw std::filesystem::filesystem_error("mkdtemp", name, {});
        }
        m_path = name;
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::string& path() const { return m_path; }
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }

  private:
    std::string m_path;
};

inline void writeFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

// The file's bytes; none when there is no file.
inline std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    std::string content(file ? static_cast<std::size_t>(file.tellg()) : 0, '\0');
    file.seekg(0);
    file.read(content.data(), static_cast<std::streamsize>(content.size()));
    return content;
}

// What a shell command prints, with the administrator's folders in PATH; throws unless it succeeds.
inline std::string outputOf(const std::string& command) {
    FILE* pipe = popen(("PATH=$PATH:/usr/sbin:/sbin; " + command).c_str(), "r");
    std::string output;
    char buffer[65536];
    while (const std::size_t got = fread(buffer, 1, sizeof buffer, pipe)) {
        output.append(buffer, got);
    }
    if (pclose(pipe) != 0) {
        throw std::runtime_error(command + ": failed: " + output);
    }
    return output;
}

#endif
