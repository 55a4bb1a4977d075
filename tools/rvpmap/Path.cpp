#include "Path.h"

#include "DirectoryReader.h"
#include "Messages.h"
#include "Text.h"

#include <fmt/format.h>
#include <string_view>
#include <sys/stat.h>
#include <vector>

namespace {

std::vector<std::string_view> splitPath(std::string_view path) {
    std::vector<std::string_view> components;
    while (!path.empty()) {
        const std::string_view component = path.substr(0, path.find('/'));
        path.remove_prefix(std::min(component.size() + 1, path.size()));
        if (component == "..") {
            if (!components.empty()) {
                components.pop_back();
            }
        } else if (!component.empty() && component != ".") {
            components.push_back(component);
        }
    }
    return components;
}

std::string shown(const std::string& path) {
    return path.empty() ? "/" : printable(path);
}

uint64_t findEntry(File directory, const std::string& path, std::string_view name) {
    DirectoryReader reader(std::move(directory));
    try {
        while (const DirectoryEntry* entry = reader.next()) {
            if (entry->name == name) {
                return entry->index;
            }
        }
    } catch (const ToolError& error) {
        throw about(path.empty() ? "/" : path, error);
    }
    throw ToolError(ExitStatus::NOT_FOUND, fmt::format("{}/{}: no such file or directory",
                                                       printable(path), printable(name)));
}

File openFile(Volume& volume, uint64_t index, const std::string& path) {
    try {
        return volume.openFile(index);
    } catch (const ToolError& error) {
        throw about(path.empty() ? "/" : path, error);
    }
}

void requireDirectory(const File& file, const std::string& path) {
    if (file.typeBits() != S_IFDIR) {
        throw ToolError(ExitStatus::NOT_FOUND, fmt::format("{}: is not a directory but a {}",
                                                           shown(path), typeName(file.typeBits())));
    }
}

} // namespace

FoundFile findFile(Volume& volume, const std::string& path) {
    std::string at;
    File file = openFile(volume, volume.rootIndex(), at);
    for (const std::string_view component : splitPath(path)) {
        requireDirectory(file, at);
        const uint64_t index = findEntry(std::move(file), at, component);
        at.append("/").append(component);
        file = openFile(volume, index, at);
    }
    return {at.empty() ? "/" : at, std::move(file)};
}
