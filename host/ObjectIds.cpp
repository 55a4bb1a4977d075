// Object ids, interned by name and kind and counted: ids that are never given back cost nothing
// beyond the first of their name.
#include "kmhost.h"

#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <utility>

namespace {

// The id comes first, so that an id's address is its entry's.
struct Interned {
    struct km_objid id;
    unsigned long count;
};

using Key = std::pair<int, std::string>;
using KeyView = std::pair<int, std::string_view>;

struct KeyLess {
    using is_transparent = void;
    bool operator()(const auto& left, const auto& right) const {
        return left.first != right.first
                   ? left.first < right.first
                   : std::string_view(left.second) < std::string_view(right.second);
    }
};

using Table = std::map<Key, Interned, KeyLess>;

std::mutex s_lock;

// Never destroyed: providers may give ids back while the process ends.
Table& table() {
    static Table& ids = *new Table;
    return ids;
}

// The name is followed by zero bytes to a multiple of four and four more, so that reading it as
// wide characters stays inside.
char* paddedCopy(std::string_view name) {
    const std::size_t size = (name.size() + 1 + 3) / 4 * 4 + 4;
    char* copy = static_cast<char*>(std::calloc(size, 1));
    if (copy != nullptr) {
        name.copy(copy, name.size());
    }
    return copy;
}

struct km_objid* makeId(std::string_view name, int kind) {
    char* copy = paddedCopy(name);
    if (copy == nullptr) {
        return nullptr;
    }
    Interned entry = {};
    entry.id.name = copy;
    entry.id.length = static_cast<int32_t>(name.size() + 1);
    entry.id.kind = kind;
    entry.count = 1;
    try {
        return &table().emplace(Key(kind, name), entry).first->second.id;
    } catch (const std::bad_alloc&) {
        std::free(copy);
        return nullptr;
    }
}

} // namespace

struct km_objid* km_objid(const char* name, int length, int kind) {
    const std::string_view text(name, strnlen(name, static_cast<std::size_t>(length)));
    const std::lock_guard lock(s_lock);
    const auto found = table().find(KeyView(kind, text));
    if (found == table().end()) {
        return makeId(text, kind);
    }
    ++found->second.count;
    return &found->second.id;
}

void km_free_objid(struct km_objid* id) {
    if (id == nullptr) {
        return;
    }
    const std::lock_guard lock(s_lock);
    const auto found = table().find(KeyView(id->kind, id->name));
    if (found == table().end() || &found->second.id != id || --found->second.count != 0) {
        return;
    }
    std::free(id->name);
    table().erase(found);
}

std::size_t kmhost_objid_count() {
    const std::lock_guard lock(s_lock);
    return table().size();
}
