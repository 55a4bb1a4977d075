// Writes metadata trees as text; internal to LvmConfig.
#ifndef RVP_LVMDUMPER_H
#define RVP_LVMDUMPER_H

#include "LvmConfig.h"

#include <cstddef>
#include <list>
#include <ostream>
#include <string>
#include <vector>

// Writes a subtree, with a list of the open sections in place of recursion. Ends early once the
// stream has failed.
class LvmDumper {
  public:
    using Node = LvmConfig::Node;

    explicit LvmDumper(std::ostream& out) : m_out(out) {}

    void write(const Node& top, long indent) {
        open(top, indent);
        while (!m_sections.empty() && m_out) {
            Section& section = m_sections.back();
            if (section.next != section.node->children.end()) {
                const Node& child = *section.next++;
                open(child, section.childIndent);
            } else {
                close();
            }
            if (m_buffer.size() >= FLUSH_SIZE) {
                flush();
            }
        }
        flush();
    }

    // Appends the names of an array's elements: "[ a, b ]" or "[]".
    static void appendElements(std::string& to, const std::list<Node>& list) {
        const char* before = "[ ";
        for (const Node& element : list) {
            to += before;
            to += element.name;
            before = ", ";
        }
        to += list.empty() ? "[]" : " ]";
    }

  private:
    struct Section {
        const Node* node;
        std::list<Node>::const_iterator next;
        long indent;
        long childIndent;
    };

    static constexpr std::size_t FLUSH_SIZE = 1 << 16;
    static constexpr long INDENT = 2;

    void open(const Node& node, long indent) {
        if (node.type != Node::STRING && node.type != Node::NUMBER) {
            writeBlanks(indent);
        }
        m_buffer += node.name;
        switch (node.type) {
        case Node::SET:
            openSection(node, indent);
            return;
        case Node::ARRAY:
            m_buffer += " = ";
            appendElements(m_buffer, node.children);
            break;
        case Node::SCALAR:
            if (!node.children.empty()) {
                m_buffer += " = ";
                m_buffer += node.children.front().name;
            }
            break;
        case Node::STRING:
        case Node::NUMBER:
            break;
        }
        endNode();
    }

    void openSection(const Node& node, long indent) {
        long childIndent = indent;
        if (!node.name.empty()) {
            m_buffer += " {\n";
            childIndent += INDENT;
        }
        m_sections.push_back({&node, node.children.begin(), indent, childIndent});
    }

    void close() {
        const Section section = m_sections.back();
        m_sections.pop_back();
        if (!section.node->name.empty()) {
            writeBlanks(section.indent);
            m_buffer += '}';
        }
        endNode();
    }

    void endNode() {
        if (!m_sections.empty()) {
            m_buffer += '\n';
        }
    }

    void writeBlanks(long count) {
        if (count > 0) {
            m_buffer.append(static_cast<std::size_t>(count), ' ');
        }
    }

    void flush() {
        m_out.write(m_buffer.data(), static_cast<std::streamsize>(m_buffer.size()));
        m_buffer.clear();
    }

    std::ostream& m_out;
    std::string m_buffer;
    std::vector<Section> m_sections;
};

#endif
