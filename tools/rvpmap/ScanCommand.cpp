// The tree of what the disks hold. An array or volume group stands below each of its members; what
// it holds itself is shown where it comes first.
#include "FileSystemText.h"
#include "Json.h"
#include "Progress.h"
#include "Session.h"
#include "Stack.h"
#include "Text.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

namespace {

// What the provider says of a layer.
struct Claim {
    bool claimed = false;
    std::string fileSystem; // "ext4"; empty when it is not claimed or cannot be opened
    std::string failure;
};

Claim claimOf(const Provider& provider, const StackNode& node) {
    Claim claim;
    try {
        Volume volume(provider, *node.layer, node.name);
        claim.claimed = volume.claim();
        if (claim.claimed) {
            volume.open();
            claim.fileSystem = fileSystemName(volume.statistics().type);
        }
    } catch (const ToolError& error) {
        claim.failure = error.what();
    }
    return claim;
}

using Claims = std::map<const StackNode*, Claim>;

Claims claimAll(const Options& options, const Stack& stack) {
    const Provider provider(options.root);
    Progress progress("scan", Progress::Unit::PARTS, stack.nodes().size());
    Claims claims;
    for (const StackNode& node : stack.nodes()) {
        if (node.layer != nullptr) {
            claims[&node] = claimOf(provider, node);
        }
        progress.advance(1);
    }
    return claims;
}

std::vector<std::string> allNotes(const StackNode& node, const Claims& claims) {
    std::vector<std::string> notes = node.notes;
    const auto found = claims.find(&node);
    if (found != claims.end() && !found->second.failure.empty()) {
        notes.push_back(found->second.failure);
    }
    return notes;
}

class JsonTree {
  public:
    explicit JsonTree(const Claims& claims) : m_claims(claims) {}

    nlohmann::ordered_json list(const std::vector<StackNode*>& nodes) {
        auto result = nlohmann::ordered_json::array();
        for (const StackNode* node : nodes) {
            result.push_back(object(*node));
        }
        return result;
    }

  private:
    nlohmann::ordered_json object(const StackNode& node) {
        nlohmann::ordered_json result;
        putName(result, "name", node.name);
        result["type"] = node.type;
        result["size"] = node.size;
        result["state"] = stateName(node.state);
        result["content"] =
            node.content.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(node.content);
        addClaim(result, node);
        result["notes"] = nlohmann::ordered_json::array();
        for (const std::string& note : allNotes(node, m_claims)) {
            result["notes"].push_back(toUtf8(note));
        }
        if (m_shown.insert(&node).second) {
            result["children"] = list(node.children);
        }
        return result;
    }

    void addClaim(nlohmann::ordered_json& result, const StackNode& node) const {
        result["claim"] = nullptr;
        result["filesystem"] = nullptr;
        const auto found = m_claims.find(&node);
        if (found != m_claims.end()) {
            result["claim"] = found->second.claimed ? "secondary" : "none";
            if (!found->second.fileSystem.empty()) {
                result["filesystem"] = found->second.fileSystem;
            }
        }
    }

    const Claims& m_claims;
    std::set<const StackNode*> m_shown;
};

// What a user of a terminal sees: the tree, then what there is to say of its nodes.
class TextTree {
  public:
    TextTree(const Claims& claims, TextBuffer& out) : m_claims(claims), m_out(out) {}

    void print(const std::vector<StackNode*>& disks) {
        m_lines.push_back({"NAME", "TYPE", "SIZE", "STATE", "CONTENT"});
        for (const StackNode* disk : disks) {
            add(*disk, "", "");
        }
        printLines();
        for (const auto& [name, note] : m_notes) {
            fmt::format_to(std::back_inserter(m_out), "{}: {}\n", name, printable(note));
        }
    }

  private:
    struct Line {
        std::string name, type, size, state, content;
    };

    // Columns, not bytes: only the first byte of a character counts.
    static std::size_t width(const std::string& text) {
        return static_cast<std::size_t>(
            std::count_if(text.begin(), text.end(), [](char c) { return (c & '\xC0') != '\x80'; }));
    }

    void add(const StackNode& node, const std::string& branch, const std::string& indent) {
        m_lines.push_back({branch + printable(node.name), node.type, humanSize(node.size),
                           stateName(node.state), contentOf(node)});
        if (!m_shown.insert(&node).second) {
            return;
        }
        for (const std::string& note : allNotes(node, m_claims)) {
            m_notes.emplace_back(printable(node.name), note);
        }
        for (const StackNode* child : node.children) {
            const bool last = child == node.children.back();
            add(*child, indent + (last ? "└─" : "├─"), indent + (last ? "  " : "│ "));
        }
    }

    std::string contentOf(const StackNode& node) const {
        const auto found = m_claims.find(&node);
        if (found == m_claims.end() || !found->second.claimed) {
            return node.content.empty() ? "-" : node.content;
        }
        const std::string& kind =
            found->second.fileSystem.empty() ? "file system" : found->second.fileSystem;
        return node.content.empty() ? kind : fmt::format("{}; {}", node.content, kind);
    }

    void printLines() {
        std::size_t nameWidth = 0;
        for (const Line& line : m_lines) {
            nameWidth = std::max(nameWidth, width(line.name));
        }
        for (const Line& line : m_lines) {
            fmt::format_to(std::back_inserter(m_out), "{}{:{}}  {:6}  {:>6}  {:11}  {}\n",
                           line.name, "", nameWidth - width(line.name), line.type, line.size,
                           line.state, line.content);
        }
    }

    const Claims& m_claims;
    TextBuffer& m_out;
    std::vector<Line> m_lines;
    std::vector<std::pair<std::string, std::string>> m_notes;
    std::set<const StackNode*> m_shown;
};

} // namespace

ExitStatus runScan(const Options& options, const Stack& stack) {
    const Claims claims = claimAll(options, stack);
    Output output;
    if (options.json) {
        appendLine(output.buffer(), JsonTree(claims).list(stack.disks()));
    } else {
        TextTree(claims, output.buffer()).print(stack.disks());
    }
    output.flush();
    return ExitStatus::DONE;
}
