#include "RestoredTree.h"

#include "ExitStatus.h"
#include "FileTime.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <system_error>

namespace {

constexpr int OPEN_DIRECTORY = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr mode_t PRIVATE_DIRECTORY = 0700;

void require(bool success) {
    if (!success) {
        throw std::system_error(errno, std::generic_category());
    }
}

UniqueFd openDirectory(int parent, const std::string& name) {
    UniqueFd directory(::openat(parent, name.c_str(), OPEN_DIRECTORY));
    require(directory.valid());
    return directory;
}

std::array<timespec, 2> timesOf(const kmp_file& attributes) {
    return {toTimespec(attributes.accessTime), toTimespec(attributes.modifyTime)};
}

mode_t permissions(const kmp_file& attributes, bool owners) {
    const bool directory = (attributes.mode & S_IFMT) == S_IFDIR;
    const unsigned mask = owners ? 07777 : directory ? 01777 : 0777;
    return static_cast<mode_t>(attributes.mode & mask);
}

uid_t userOf(const kmp_file& attributes) {
    return static_cast<uid_t>(attributes.owner & UINT32_MAX);
}

gid_t groupOf(const kmp_file& attributes) {
    return static_cast<gid_t>(attributes.owner >> 32);
}

} // namespace

// The modes given to new files are meant as they are; nothing is open to others before its time.
RestoredTree::RestoredTree(const std::string& target, bool owners) : m_owners(owners) {
    ::umask(0);
    m_made = ::mkdir(target.c_str(), PRIVATE_DIRECTORY) == 0;
    UniqueFd top;
    if (m_made || errno == EEXIST) {
        top = UniqueFd(::open(target.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    if (!top.valid()) {
        throw ToolError(ExitStatus::FAILED,
                        "cannot write to " + target + ": " + std::strerror(errno));
    }
    push(std::move(top), 0);
}

void RestoredTree::push(UniqueFd directory, std::size_t pathLength) {
    struct stat status = {};
    require(::fstat(directory.get(), &status) == 0);
    m_levels.push_back({std::move(directory), status.st_dev, status.st_ino, pathLength});
    // The top stays open for hard links.
    if (m_levels.size() > OPEN_LEVELS + 1) {
        m_levels[m_levels.size() - 1 - OPEN_LEVELS].directory.reset();
    }
}

void RestoredTree::enterDirectory(const std::string& name) {
    const bool made = ::mkdirat(current(), name.c_str(), PRIVATE_DIRECTORY) == 0;
    require(made || errno == EEXIST);
    UniqueFd directory = openDirectory(current(), name);
    m_path = pathOf(name);
    push(std::move(directory), m_path.size());
}

void RestoredTree::leaveDirectory(const kmp_file& attributes) {
    if (m_levels.size() == 1) {
        if (m_made) {
            setAttributes(current(), attributes);
        }
        return;
    }
    const Level child = std::move(m_levels.back());
    m_levels.pop_back();
    m_path.resize(m_levels.back().pathLength);
    if (!m_levels.back().directory.valid()) {
        reopen(m_levels.back(), child);
    }
    setAttributes(child.directory.get(), attributes);
}

// Only the very directory that was left counts, wherever others may have moved things.
void RestoredTree::reopen(Level& parent, const Level& child) {
    parent.directory = openDirectory(child.directory.get(), "..");
    struct stat status = {};
    require(::fstat(parent.directory.get(), &status) == 0);
    if (status.st_dev != parent.device || status.st_ino != parent.inode) {
        throw ToolError(ExitStatus::FAILED,
                        "the target's directories were moved while they were written");
    }
}

void RestoredTree::finishFile(AtomicFile& file, const kmp_file& attributes) {
    setAttributes(file.descriptor(), attributes);
    file.commit(AtomicFile::Existing::KEEP);
}

void RestoredTree::makeSymlink(const std::string& name, const std::string& target,
                               const kmp_file& attributes) {
    require(::symlinkat(target.c_str(), current(), name.c_str()) == 0);
    setAttributesOf(name, attributes);
}

void RestoredTree::makeNode(const std::string& name, const kmp_file& attributes) {
    const auto type = static_cast<mode_t>(attributes.mode & S_IFMT);
    const dev_t device = ::makedev(static_cast<unsigned>(attributes.device >> 32),
                                   static_cast<unsigned>(attributes.device & UINT32_MAX));
    require(::mknodat(current(), name.c_str(), type | permissions(attributes, false), device) == 0);
    setAttributesOf(name, attributes);
}

void RestoredTree::makeLink(const std::string& name, const std::string& first) {
    std::string firstName;
    const UniqueFd parent = openParent(first, firstName);
    require(::linkat(parent.get(), firstName.c_str(), current(), name.c_str(), 0) == 0);
}

UniqueFd RestoredTree::openParent(const std::string& path, std::string& name) const {
    UniqueFd directory(
        ::openat(m_levels.front().directory.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    require(directory.valid());
    std::size_t at = 0;
    for (std::size_t slash; (slash = path.find('/', at)) != std::string::npos; at = slash + 1) {
        directory = openDirectory(directory.get(), path.substr(at, slash - at));
    }
    name = path.substr(at);
    return directory;
}

// The owner comes first: changing it clears the set-id bits.
void RestoredTree::setAttributes(int descriptor, const kmp_file& attributes) {
    if (m_owners) {
        require(::fchown(descriptor, userOf(attributes), groupOf(attributes)) == 0);
    }
    require(::fchmod(descriptor, permissions(attributes, m_owners)) == 0);
    require(::futimens(descriptor, timesOf(attributes).data()) == 0);
}

void RestoredTree::setAttributesOf(const std::string& name, const kmp_file& attributes) {
    if (m_owners) {
        require(::fchownat(current(), name.c_str(), userOf(attributes), groupOf(attributes),
                           AT_SYMLINK_NOFOLLOW) == 0);
    }
    require(::utimensat(current(), name.c_str(), timesOf(attributes).data(), AT_SYMLINK_NOFOLLOW) ==
            0);
}

std::string RestoredTree::pathOf(const std::string& name) const {
    return m_path.empty() ? name : m_path + "/" + name;
}
