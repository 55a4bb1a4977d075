// Files of the tests' own.
#ifndef TESTS_FILES_H
#define TESTS_FILES_H

#include <filesystem>
#include <fstream>
#include <iterator>
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
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

#endif
