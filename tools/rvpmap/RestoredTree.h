// The tree that a recursive extraction writes.
//
// Nothing is ever written outside of it: every operation names one path component below an open
// directory of the tree, no symbolic link is followed, and nothing that exists is overwritten. An
// existing directory is filled up. Directories are private to the user until they are complete.
// Operations throw std::system_error; those of the constructor ToolError.
#ifndef RVPMAP_RESTOREDTREE_H
#define RVPMAP_RESTOREDTREE_H

#include "AtomicFile.h"
#include "UniqueFd.h"

#include "kmp/kmp.h"

#include <deque>
#include <string>
#include <sys/types.h>

class RestoredTree {
  public:
    // Opens `target`, or makes it. `owners`: owner, group and set-id bits are restored as well.
    RestoredTree(const std::string& target, bool owners);

    // Makes a directory below the current one, which it becomes.
    void enterDirectory(const std::string& name);
    // Goes back to the parent and gives the directory that is left its attributes. The top
    // directory gets them only if it was made here.
    void leaveDirectory(const kmp_file& attributes);

    // A file to be written; it is part of the tree once `finishFile` has named it.
    AtomicFile createFile(const std::string& name) { return AtomicFile(current(), name); }
    void finishFile(AtomicFile& file, const kmp_file& attributes);
    void makeSymlink(const std::string& name, const std::string& target,
                     const kmp_file& attributes);
    // A FIFO, socket or device.
    void makeNode(const std::string& name, const kmp_file& attributes);
    // Another name of a file restored before; `first` is its path within the tree.
    void makeLink(const std::string& name, const std::string& first);

    // The path of `name` in the current directory, within the tree.
    std::string pathOf(const std::string& name) const;

  private:
    struct Level {
        UniqueFd directory; // closed while the walk is far below it
        dev_t device;
        ino_t inode;
        std::size_t pathLength;
    };
    static constexpr std::size_t OPEN_LEVELS = 32;

    int current() const { return m_levels.back().directory.get(); }
    void push(UniqueFd directory, std::size_t pathLength);
    void reopen(Level& parent, const Level& child);
    UniqueFd openParent(const std::string& path, std::string& name) const;
    void setAttributes(int descriptor, const kmp_file& attributes);
    void setAttributesOf(const std::string& name, const kmp_file& attributes);

    bool m_owners;
    bool m_made = false;
    std::string m_path;
    std::deque<Level> m_levels;
};

#endif
