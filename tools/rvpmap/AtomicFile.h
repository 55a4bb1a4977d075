// A file that appears under its name when it is whole, or not at all.
#ifndef RVPMAP_ATOMICFILE_H
#define RVPMAP_ATOMICFILE_H

#include "UniqueFd.h"

#include <string>

class AtomicFile {
  public:
    // NAMELESS where the file system and /proc allow it: whatever ends the process, nothing is
    // left. Otherwise, and for libraries that open files by name, under a temporary name.
    enum class Until { NAMELESS, NAMED };
    // Creates an empty file in the directory `directory`, which must stay open, private to the
    // user. `name` is its name later on, one path component. Throws std::system_error, as all
    // operations do.
    AtomicFile(int directory, const std::string& name, Until until = Until::NAMELESS);
    // Without a commit, nothing is left.
    ~AtomicFile();
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;

    int descriptor() const { return m_file.get(); }
    // In the directory, until the commit; empty for a nameless file.
    const std::string& temporaryName() const { return m_temporary; }
    enum class Existing { REPLACE, KEEP };
    // Gives the file its name. With KEEP, a file that has the name already stays and EEXIST is
    // thrown.
    void commit(Existing existing);

  private:
    bool createNameless();
    void createNamed();
    void nameIt(Existing existing);
    void renameToKeep();

    int m_directory;
    std::string m_name;
    std::string m_temporary;
    UniqueFd m_file;
};

#endif
