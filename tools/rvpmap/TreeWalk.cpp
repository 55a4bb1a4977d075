#include "TreeWalk.h"

#include <sys/stat.h>

const std::string TreeWalk::ROOT = "/";

TreeWalk::TreeWalk(File directory, const std::string& path, Open open, Failures& failures)
    : m_open(open), m_failures(failures), m_path(path == ROOT ? "" : path) {
    m_entered.insert(directory.index());
    m_levels.push_back({DirectoryReader(std::move(directory)), m_path.size()});
}

TreeWalk::Step TreeWalk::next() {
    if (m_descend && !enter()) {
        return Step::LEAVE;
    }
    while (!m_levels.empty()) {
        m_file.reset();
        m_path.resize(m_levels.back().pathLength);
        const DirectoryEntry* entry = nextEntry();
        if (entry == nullptr) {
            return leave();
        }
        if (accept(*entry) && openEntry()) {
            m_descend = m_typeBits == S_IFDIR;
            return Step::ENTRY;
        }
    }
    return Step::END;
}

bool TreeWalk::enter() {
    m_descend = false;
    if (!m_entered.insert(m_index)) {
        m_failures.add(m_path, "this directory has come before under another path; it is not "
                               "entered again");
        return false;
    }
    m_levels.push_back({DirectoryReader(std::move(*m_file)), m_path.size()});
    if (m_levels.size() > AWAKE_LEVELS) {
        m_levels[m_levels.size() - 1 - AWAKE_LEVELS].reader.rest();
    }
    return true;
}

TreeWalk::Step TreeWalk::leave() {
    m_levels.pop_back();
    m_nameAt = m_levels.empty() ? 0 : std::min(m_levels.back().pathLength + 1, m_path.size());
    return Step::LEAVE;
}

const DirectoryEntry* TreeWalk::nextEntry() {
    try {
        return m_levels.back().reader.next();
    } catch (const ToolError& error) {
        m_failures.add(path(), error.what());
        return nullptr;
    }
}

bool TreeWalk::accept(const DirectoryEntry& entry) {
    m_path.push_back('/');
    m_nameAt = m_path.size();
    m_path.append(entry.name);
    m_index = entry.index;
    m_typeBits = entry.typeBits;
    if (entry.name.empty() || entry.name == "." || entry.name == "..") {
        m_failures.add(m_path, "is no name for a file; the entry is skipped");
        return false;
    }
    return true;
}

// The file's own type counts, not what the directory says of it.
bool TreeWalk::openEntry() {
    if (m_open == Open::DIRECTORIES && m_typeBits != 0 && m_typeBits != S_IFDIR) {
        return true;
    }
    Volume& volume = m_levels.back().reader.volume();
    try {
        m_file = volume.openFile(m_index);
    } catch (const ToolError& error) {
        m_failures.add(m_path, error.what());
        return false;
    }
    m_typeBits = m_file->typeBits();
    return true;
}
