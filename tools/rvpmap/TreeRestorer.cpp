#include "TreeRestorer.h"

#include "Content.h"
#include "Signals.h"
#include "Text.h"
#include "TreeWalk.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <system_error>

namespace {

// Errors of the target after which the rest would fail as well.
bool isFinal(int error) {
    return error == ENOSPC || error == EDQUOT || error == EROFS || error == EIO;
}

std::string wordsFor(int error) {
    return error == EEXIST ? "exists already and is kept"
                           : fmt::format("cannot be written: {}", std::strerror(error));
}

uint64_t bytesBelow(const Session& session) {
    const kmp_fs& fs = session.volume.statistics();
    return session.options.path == "/" ? fs.usedBlocks * fs.blockSize : 0;
}

} // namespace

TreeRestorer::TreeRestorer(Session& session)
    : m_session(session), m_failures(session.options.volume, Failures::When::AT_THE_END),
      m_tree(session.options.output, session.options.owners),
      m_progress("extract", Progress::Unit::BYTES, bytesBelow(session)) {}

void TreeRestorer::restore(FoundFile& top) {
    try {
        restoreTree(top);
    } catch (...) {
        m_failures.printList("not restored:");
        throw;
    }
    m_failures.printList("not restored:");
}

void TreeRestorer::restoreTree(FoundFile& top) {
    if (top.file.typeBits() == S_IFDIR) {
        restoreBelow(top);
    } else {
        restoreEntry(top.path.substr(top.path.rfind('/') + 1), top.path, top.file);
    }
}

void TreeRestorer::restoreBelow(FoundFile& top) {
    m_directories.push_back(top.file.attributes());
    TreeWalk walk(std::move(top.file), top.path, TreeWalk::Open::ALL, m_failures);
    for (auto step = walk.next(); step != TreeWalk::Step::END; step = walk.next()) {
        checkSignals();
        if (step == TreeWalk::Step::LEAVE) {
            leaveDirectory(walk.path());
        } else if (!restoreEntry(std::string(walk.name()), walk.path(), walk.file())) {
            walk.skip();
        }
    }
}

bool TreeRestorer::restoreEntry(const std::string& name, const std::string& path, File& file) {
    const bool restored = attempt(path, [&] {
        const kmp_file& attributes = file.attributes();
        if (name.find('/') != std::string::npos) {
            throw ToolError(ExitStatus::FAILED, "no file can have a name with a slash");
        }
        if (linkToFirst(name, file)) {
            return;
        }
        switch (file.typeBits()) {
        case S_IFDIR:
            m_tree.enterDirectory(name);
            m_directories.push_back(attributes);
            break;
        case S_IFREG:
            restoreFile(name, file);
            break;
        case S_IFLNK:
            m_tree.makeSymlink(name, file.linkTarget(), attributes);
            break;
        case S_IFIFO:
        case S_IFSOCK:
        case S_IFCHR:
        case S_IFBLK:
            m_tree.makeNode(name, attributes);
            break;
        default:
            throw ToolError(ExitStatus::FAILED, "its type is not known");
        }
        rememberFirst(name, file);
    });
    m_restored += restored ? 1 : 0;
    return restored;
}

void TreeRestorer::restoreFile(const std::string& name, File& file) {
    AtomicFile target = m_tree.createFile(name);
    copyToFile(file, target.descriptor(), m_progress);
    checkSignals();
    m_tree.finishFile(target, file.attributes());
}

bool TreeRestorer::linkToFirst(const std::string& name, const File& file) {
    const auto first = m_first.find(file.index());
    if (first == m_first.end()) {
        return false;
    }
    m_tree.makeLink(name, first->second);
    return true;
}

void TreeRestorer::rememberFirst(const std::string& name, const File& file) {
    if (file.hasSeveralPaths()) {
        m_first.emplace(file.index(), m_tree.pathOf(name));
    }
}

void TreeRestorer::leaveDirectory(const std::string& path) {
    const kmp_file attributes = m_directories.back();
    m_directories.pop_back();
    attempt(path, [&] { m_tree.leaveDirectory(attributes); });
}

// What is wrong with one file is noted; what is wrong with the target ends the work.
template <typename Action>
bool TreeRestorer::attempt(const std::string& path, Action action) {
    try {
        action();
        return true;
    } catch (const ToolError& error) {
        m_failures.add(path, error.what());
    } catch (const std::system_error& error) {
        const int code = error.code().value();
        if (isFinal(code)) {
            throw ToolError(ExitStatus::FAILED,
                            fmt::format("{}: cannot write to {}: {}", printable(path),
                                        printable(m_session.options.output), std::strerror(code)));
        }
        m_failures.add(path, wordsFor(code));
    }
    return false;
}
