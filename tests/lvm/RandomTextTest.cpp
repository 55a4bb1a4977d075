// Random and damaged texts beside a plain reader that takes the text apart first and leaves at the
// first error by an exception.
#include "LvmConfig.h"

#include "TreeText.h"
#include "support/Files.h"

#include <gtest/gtest.h>
#include <random>
#include <regex>
#include <vector>

using Node = LvmConfig::Node;

namespace {

class PlainReader {
  public:
    static Reading read(const std::string& text) {
        PlainReader reader(text);
        Node root;
        try {
            reader.entries(root);
        } catch (const SyntaxError&) {
            return {1, treeText(root)};
        }
        return {0, treeText(root)};
    }

  private:
    enum Kind { END, OPEN_STRING, STRING, NUMBER, WORD, DELIMITER };
    struct Token {
        Kind kind;
        std::string text;
    };
    struct SyntaxError {};

    explicit PlainReader(const std::string& text) {
        static const std::regex pattern(
            "[ \t\n]*(?:#[^\n]*\n[ \t\n]*)?"
            "(?:(\"(?:\\\\[^]|[^\"\\\\])*\")|(\"[^]*)|"
            "([0-9]+(?![0-9A-Za-z_.+-]))|([0-9A-Za-z_][0-9A-Za-z_.+-]*)|"
            "([{}\\[\\]=,]))");
        constexpr Kind KINDS[] = {END, STRING, OPEN_STRING, NUMBER, WORD, DELIMITER};
        auto from = text.begin();
        std::smatch match;
        while (std::regex_search(from, text.end(), match, pattern,
                                 std::regex_constants::match_continuous)) {
            for (std::size_t group = 1; group < match.size(); ++group) {
                if (match[group].matched) {
                    m_tokens.push_back({KINDS[group], unescaped(match[group])});
                }
            }
            from = match[0].second;
        }
        m_tokens.push_back({END, ""});
    }

    static std::string unescaped(const std::string& text) {
        static const std::regex escape("\\\\([^])");
        return std::regex_replace(text, escape, "$1");
    }

    const Token& now() const { return m_tokens[m_next]; }
    bool at(const char* delimiter) const {
        return now().kind == DELIMITER && now().text == delimiter;
    }
    Token take() { return now().kind == END ? now() : m_tokens[m_next++]; }
    void require(bool condition) const {
        if (!condition) {
            throw SyntaxError();
        }
    }

    void entries(Node& node) {
        while (now().kind != END && !at("}")) {
            const Token key = take();
            require(key.kind == NUMBER || key.kind == WORD);
            require(now().kind == DELIMITER);
            if (at("{")) {
                take();
                Node& section = node.add(key.text, Node::SET);
                entries(section);
                require(at("}"));
                take();
            } else if (at("=")) {
                take();
                require(now().kind != END && now().kind != OPEN_STRING);
                if (at("[")) {
                    array(node.add(key.text, Node::ARRAY));
                } else {
                    require(value(node.add(key.text, Node::SCALAR)));
                }
            }
        }
    }

    void array(Node& node) {
        do {
            take();
            require(value(node) || at("]"));
        } while (at(","));
        require(at("]"));
        take();
    }

    bool value(Node& node) {
        const Kind kind = now().kind;
        if (kind != STRING && kind != NUMBER && kind != OPEN_STRING) {
            return false;
        }
        node.add(take().text, kind == NUMBER ? Node::NUMBER : Node::STRING);
        require(kind != OPEN_STRING);
        return true;
    }

    std::vector<Token> m_tokens;
    std::size_t m_next = 0;
};

class RandomText {
  public:
    std::string pieces() {
        static const std::vector<std::string> vocabulary = {
            "a", "vg", "k = ", "12",   "1.5", "-1", "\"s\"", "\"",   "\\", "\\\"",      "{",
            "}", "{ ", " }",   "[",    "]",   "=",  ",",     " ",    "\n", "\t",        "# c\n",
            "#", "\r", "\x80", "b=1 ", "{}",  "[]", "c{",    "d=[1", ", ", "x{y=\"z\"}"};
        std::string text;
        for (std::size_t left = below(25); left > 0; --left) {
            text += vocabulary[below(vocabulary.size())];
        }
        return text;
    }

    std::string damaged(std::string text) {
        for (std::size_t left = 1 + below(3); left > 0; --left) {
            const std::size_t place = below(text.size());
            const std::size_t length = below(3) == 0 ? below(40) : 1;
            switch (below(4)) {
            case 0:
                text.erase(place, length);
                break;
            case 1:
                text.insert(place, text.substr(below(text.size()), length));
                break;
            case 2:
                text.insert(place, pieces());
                break;
            default:
                text[place] = static_cast<char>(below(256));
            }
            text += ' ';
        }
        return text;
    }

  private:
    std::size_t below(std::size_t bound) { return m_random() % bound; }

    std::mt19937 m_random{20240301};
};

void expectReadAsPlainly(const std::string& text) {
    LvmConfig config;
    const Reading reading = readText(config, text);
    ASSERT_EQ(reading, PlainReader::read(text)) << text;
    LvmConfig again;
    again.parse("former{tree="); // an error, and a tree that goes
    again.root = Node();
    ASSERT_EQ(readText(again, text), reading) << text;
    if (reading.error == 0 && text.find('\\') == std::string::npos) {
        ASSERT_EQ(readText(dumpText(config.root)), reading) << text;
    }
}

TEST(LvmRandomText, PiecesOfTheGrammarAndDamagedMetadata) {
    RandomText random;
    for (int i = 0; i < 20000 && !HasFatalFailure(); ++i) {
        expectReadAsPlainly(random.pieces());
    }
    const std::string text = readFile(LVM_DATA_FOLDER "/linear.vgcfg");
    for (int i = 0; i < 500 && !HasFatalFailure(); ++i) {
        expectReadAsPlainly(random.damaged(text));
    }
}

} // namespace
