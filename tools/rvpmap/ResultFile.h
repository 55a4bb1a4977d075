// A file that a command makes under the name that the user gave: it appears whole, or not at all.
#ifndef RVPMAP_RESULTFILE_H
#define RVPMAP_RESULTFILE_H

#include "AtomicFile.h"
#include "UniqueFd.h"

#include <optional>
#include <string>
#include <sys/types.h>

class ResultFile {
  public:
    // Creates the file, without a name or under a temporary one, in its folder. Throws WriteError,
    // as all operations do; what stands there already and is no regular file is refused.
    ResultFile(const std::string& path, AtomicFile::Until until);

    int descriptor() const { return m_file->descriptor(); }
    // Of a named one, for libraries that open files by name.
    std::string temporaryPath() const;
    // Brings the bytes to the disk and gives the file its name and usual permissions.
    void commit();
    // Gives it its name and these permissions; the system writes the bytes when it likes.
    void commit(mode_t permissions);

  private:
    [[noreturn]] void fail(int error) const;

    std::string m_path;
    std::string m_folder;
    UniqueFd m_directory;
    std::optional<AtomicFile> m_file;
};

#endif
