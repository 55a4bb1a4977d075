#include "AtomicFile.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <fmt/format.h>
#include <random>
#include <system_error>

namespace {

constexpr const char* OWN_DESCRIPTORS = "/proc/self/fd";

[[noreturn]] void fail() {
    throw std::system_error(errno, std::generic_category());
}

// As long as no other process guesses it; the exclusive creation catches the rest.
std::string newTemporaryName() {
    static std::random_device random;
    return fmt::format(".rvpmap-{:08x}{:08x}", random(), random());
}

} // namespace

AtomicFile::AtomicFile(int directory, const std::string& name, Until until)
    : m_directory(directory), m_name(name) {
    if (until == Until::NAMED || !createNameless()) {
        createNamed();
    }
}

// Not every file system has such files, and without /proc they get no name.
bool AtomicFile::createNameless() {
    if (::access(OWN_DESCRIPTORS, X_OK) == 0) {
        m_file = UniqueFd(::openat(m_directory, ".", O_RDWR | O_TMPFILE | O_CLOEXEC, 0600));
    }
    return m_file.valid();
}

void AtomicFile::createNamed() {
    do {
        m_temporary = newTemporaryName();
        m_file = UniqueFd(::openat(m_directory, m_temporary.c_str(),
                                   O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    } while (!m_file.valid() && errno == EEXIST);
    if (!m_file.valid()) {
        m_temporary.clear();
        fail();
    }
}

AtomicFile::~AtomicFile() {
    if (!m_temporary.empty()) {
        ::unlinkat(m_directory, m_temporary.c_str(), 0);
    }
}

// Closing comes before naming: some file systems report a full disk only there. A nameless file
// would be gone then, so a duplicate of its descriptor is closed.
void AtomicFile::commit(Existing existing) {
    const bool nameless = m_temporary.empty();
    UniqueFd closed = nameless ? UniqueFd(::dup(m_file.get())) : std::move(m_file);
    if (!closed.valid() || closed.reset() != 0) {
        fail();
    }
    if (nameless) {
        nameIt(existing);
    }
    if (m_temporary.empty()) {
        return;
    }
    if (existing == Existing::KEEP) {
        renameToKeep();
    } else if (::renameat(m_directory, m_temporary.c_str(), m_directory, m_name.c_str()) != 0) {
        fail();
    }
    m_temporary.clear();
}

// Gives a nameless file its name, or a temporary one where it is to replace a file: no link does.
void AtomicFile::nameIt(Existing existing) {
    const std::string source = fmt::format("{}/{}", OWN_DESCRIPTORS, m_file.get());
    std::string target = m_name;
    while (::linkat(AT_FDCWD, source.c_str(), m_directory, target.c_str(), AT_SYMLINK_FOLLOW) !=
           0) {
        if (errno != EEXIST || existing == Existing::KEEP) {
            fail();
        }
        target = newTemporaryName();
    }
    if (target != m_name) {
        m_temporary = target;
    }
}

// Not every file system can rename without replacing; a hard link can stand in.
void AtomicFile::renameToKeep() {
    if (::renameat2(m_directory, m_temporary.c_str(), m_directory, m_name.c_str(),
                    RENAME_NOREPLACE) == 0) {
        return;
    }
    if (errno != EINVAL && errno != ENOSYS) {
        fail();
    }
    if (::linkat(m_directory, m_temporary.c_str(), m_directory, m_name.c_str(), 0) != 0) {
        fail();
    }
    ::unlinkat(m_directory, m_temporary.c_str(), 0);
}
