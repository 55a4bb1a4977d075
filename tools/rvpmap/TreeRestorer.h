// Restores a tree of the volume into a directory, past everything that cannot be restored.
#ifndef RVPMAP_TREERESTORER_H
#define RVPMAP_TREERESTORER_H

#include "Messages.h"
#include "Path.h"
#include "Progress.h"
#include "RestoredTree.h"
#include "Session.h"

#include <deque>
#include <unordered_map>

class TreeRestorer {
  public:
    // Opens or makes the output directory of the session's options. Throws ToolError.
    explicit TreeRestorer(Session& session);

    // Everything below `top`, or `top` itself under its name where it is no directory. What could
    // not be restored is listed on standard error at the end, however that comes. Throws ToolError
    // when the target takes no more, Interrupted after a signal.
    void restore(FoundFile& top);

    uint64_t restored() const { return m_restored; }
    uint64_t failed() const { return m_failures.count(); }

  private:
    void restoreTree(FoundFile& top);
    void restoreBelow(FoundFile& top);
    bool restoreEntry(const std::string& name, const std::string& path, File& file);
    void restoreFile(const std::string& name, File& file);
    bool linkToFirst(const std::string& name, const File& file);
    void rememberFirst(const std::string& name, const File& file);
    void leaveDirectory(const std::string& path);
    template <typename Action>
    bool attempt(const std::string& path, Action action);

    Session& m_session;
    Failures m_failures;
    RestoredTree m_tree;
    Progress m_progress;
    // The first restored path of each file with several links.
    std::unordered_map<uint64_t, std::string> m_first;
    // Of the directories that are open at the moment.
    std::deque<kmp_file> m_directories;
    uint64_t m_restored = 0;
};

#endif
