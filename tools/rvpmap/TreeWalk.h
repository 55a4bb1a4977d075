// A walk over everything below one directory, depth first, in the directories' own order.
//
// The walk keeps one small record a level, and a buffer for the deepest levels only, so neither
// many files nor deep trees cost memory. A directory that is reached twice, which only a damaged
// volume has, is not entered again. Whatever cannot be read is added to the failures, and the walk
// goes on behind it.
#ifndef RVPMAP_TREEWALK_H
#define RVPMAP_TREEWALK_H

#include "DirectoryReader.h"
#include "IndexSet.h"
#include "Messages.h"

#include <deque>
#include <string>

class TreeWalk {
  public:
    enum class Step {
        ENTRY, // a file of any type; a directory comes before its contents
        LEAVE, // all contents of an entered directory have come; the first one's at last
        END
    };
    enum class Open { ALL, DIRECTORIES };

    // `directory` is an opened directory and `path` its path, which is not itself an entry. With
    // Open::ALL an entry comes only if it could be opened.
    TreeWalk(File directory, const std::string& path, Open open, Failures& failures);

    Step next();
    // Of the entry, or of the directory that is left; raw bytes.
    const std::string& path() const { return m_path.empty() ? ROOT : m_path; }
    // Of the entry. With Open::ALL the file is open until the next step.
    std::string_view name() const { return std::string_view(m_path).substr(m_nameAt); }
    uint64_t index() const { return m_index; }
    uint32_t typeBits() const { return m_typeBits; }
    File& file() { return *m_file; }
    // Keeps the walk out of the directory that is the current entry.
    void skip() { m_descend = false; }

  private:
    struct Level {
        DirectoryReader reader;
        std::size_t pathLength;
    };
    static constexpr std::size_t AWAKE_LEVELS = 32;
    static const std::string ROOT;

    bool enter();
    Step leave();
    const DirectoryEntry* nextEntry();
    bool accept(const DirectoryEntry& entry);
    bool openEntry();

    Open m_open;
    Failures& m_failures;
    std::deque<Level> m_levels;
    IndexSet m_entered;
    std::string m_path;
    std::size_t m_nameAt = 0;
    uint64_t m_index = 0;
    uint32_t m_typeBits = 0;
    std::optional<File> m_file;
    bool m_descend = false;
};

#endif
