// Where in the source a log line or an error comes from.
//
// SOURCE_FILE names the current source by its path from the repository's root, a .cpp without its
// extension, as long as the path given to the compiler shows the folder `plugin`. The text has
// static storage duration.
#ifndef PLUGINLIB_SOURCEPLACE_H
#define PLUGINLIB_SOURCEPLACE_H

#include <cstddef>
#include <string_view>

template <std::size_t Size>
struct SourcePath {
    char text[Size] = {};

    consteval SourcePath(const char (&path)[Size]) {
        std::string_view name(path, Size - 1);
        if (const auto root = name.rfind("/plugin/"); root != name.npos) {
            name.remove_prefix(root + 1);
        }
        if (name.ends_with(".cpp")) {
            name.remove_suffix(4);
        }
        name.copy(text, name.size());
    }
};

template <SourcePath Path>
constexpr const char* sourcePathText() {
    return Path.text;
}

// The operation that logs or fails, where a helper below it does so in its name.
struct CallSite {
    const char* function;
    int line;
};

constexpr CallSite here(const char* function = __builtin_FUNCTION(), int line = __builtin_LINE()) {
    return {function, line};
}

// A macro because __FILE__ must be that of the place of use.
#define SOURCE_FILE (sourcePathText<SourcePath{__FILE__}>())

#endif
