#include "LvmConfig.h"

#include "Error.h"
#include "LvmCharClass.h"
#include "LvmDumper.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <iostream>
#include <locale>
#include <new>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

namespace {

using Node = LvmConfig::Node;

// The fields' places are part of the binary interface. The types are not of standard layout, yet
// the compilers at hand define offsetof for all but virtual bases.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
static_assert(offsetof(Node, name) == 0 && offsetof(Node, type) == 32);
static_assert(offsetof(Node, children) == 40 && sizeof(Node) == 64);
static_assert(offsetof(LvmConfig, text) == 0 && offsetof(LvmConfig, pos) == 32);
static_assert(offsetof(LvmConfig, token) == 40 && offsetof(LvmConfig, tokenType) == 72);
static_assert(offsetof(LvmConfig, errorCode) == 76 && offsetof(LvmConfig, root) == 80);
static_assert(sizeof(LvmConfig) == 144 && sizeof(LvmUuid) == 32);
#pragma GCC diagnostic pop

// Works on constant and mutable children.
template <typename Children>
auto findByName(Children& children, const std::string& name) {
    return std::ranges::find(children, name, &Node::name);
}

std::string quoted(const std::string& text) {
    return '"' + text + '"';
}

template <typename Number>
Number numberIn(std::string text) {
    std::istringstream in(std::move(text));
    in.imbue(std::locale::classic());
    Number number = 0;
    in >> number;
    return number;
}

} // namespace

// The tree.

LvmConfig::Node::Node() : type(SET) {}

LvmConfig::Node::Node(std::string nodeName, DataType nodeType)
    : name(std::move(nodeName)), type(nodeType) {}

LvmConfig::Node::Node(const Node& other) : name(other.name), type(other.type) {
    if (other.children.empty()) {
        return;
    }
    std::vector<std::pair<const Node*, Node*>> pending{{&other, this}};
    while (!pending.empty()) {
        const auto [from, to] = pending.back();
        pending.pop_back();
        for (const Node& child : from->children) {
            Node& copy = to->add(child.name, child.type);
            if (!child.children.empty()) {
                pending.emplace_back(&child, &copy);
            }
        }
    }
}

LvmConfig::Node::Node(Node&& other) noexcept = default;

LvmConfig::Node& LvmConfig::Node::operator=(const Node& other) {
    return *this = Node(other);
}

LvmConfig::Node& LvmConfig::Node::operator=(Node&& other) noexcept {
    // `other` may be a descendant, so this node's children live until its content has been taken.
    Node taken(std::move(other));
    name.swap(taken.name);
    std::swap(type, taken.type);
    children.swap(taken.children);
    return *this;
}

LvmConfig::Node::~Node() {
    // Each child hands its children to this node before it dies, so that no destructor recurses.
    while (!children.empty()) {
        children.splice(std::next(children.begin()), children.front().children);
        children.pop_front();
    }
}

bool LvmConfig::Node::has(std::string childName) const {
    return type == SET && findByName(children, childName) != children.end();
}

bool LvmConfig::Node::remove(std::string childName) {
    if (type != SET) {
        return false;
    }
    const auto child = findByName(children, childName);
    if (child == children.end()) {
        return false;
    }
    children.erase(child);
    return true;
}

LvmConfig::Node& LvmConfig::Node::add(std::string childName, DataType childType) {
    return children.emplace_back(std::move(childName), childType);
}

LvmConfig::Node& LvmConfig::Node::add(unsigned long n, DataType childType) {
    return add(std::to_string(n), childType);
}

LvmConfig::Node& LvmConfig::Node::operator[](std::string childName) {
    if (type != SET) {
        throw std::out_of_range("Not a SET, can't access node [" + childName + "]");
    }
    const auto child = findByName(children, childName);
    return child != children.end() ? *child : add(std::move(childName), SET);
}

const LvmConfig::Node& LvmConfig::Node::operator[](std::string childName) const {
    const auto child = type == SET ? findByName(children, childName) : children.end();
    if (child == children.end()) {
        throw std::out_of_range("Not found, can't access node [" + childName + "] ");
    }
    return *child;
}

// The line numbers that the two index operators report are fixed; hosts match them.

const LvmConfig::Node& LvmConfig::Node::operator[](unsigned long i) const {
    constexpr int LINE = 220;
    if (i > children.size()) {
        throw std::out_of_range("Out of range, can't access node [" + std::to_string(i) + "] > " +
                                std::to_string(children.size()));
    }
    if (i == children.size()) {
        PLUGIN_LOG_AS("operator[]", LINE, 0, "Exception: VERIFY_ORMA_BOOL\n");
        throw OrmaError(1, SOURCE_FILE, LINE, "operator[]");
    }
    return *std::next(children.begin(), static_cast<std::ptrdiff_t>(i));
}

LvmConfig::Node& LvmConfig::Node::operator[](unsigned long i) {
    constexpr int LINE = 239;
    if (i > children.size()) {
        // Reports the length of the name, not the number of children, unlike the constant form.
        throw std::out_of_range("Out of range, can't access node [" + std::to_string(i) + "] > " +
                                std::to_string(name.size()));
    }
    if (i == children.size()) {
        PLUGIN_LOG_AS("operator[]", LINE, 0, "Exception: VERIFY_ORMA_BOOL\n");
        throw OrmaError(1, SOURCE_FILE, LINE, "operator[]");
    }
    return *std::next(children.begin(), static_cast<std::ptrdiff_t>(i));
}

LvmConfig::Node& LvmConfig::Node::operator=(std::string s) {
    children.clear();
    if (type != ARRAY) {
        type = SCALAR;
    }
    add(quoted(s), STRING);
    return *this;
}

LvmConfig::Node& LvmConfig::Node::operator=(unsigned long n) {
    children.clear();
    if (type != ARRAY) {
        type = SCALAR;
    }
    add(n, NUMBER);
    return *this;
}

LvmConfig::Node &LvmConfig::Node::operator,(std::string s) {
    if (type == ARRAY || type == SCALAR) {
        type = ARRAY;
        add(quoted(s), STRING);
    }
    return *this;
}

LvmConfig::Node &LvmConfig::Node::operator,(unsigned long n) {
    if (type == ARRAY || type == SCALAR) {
        type = ARRAY;
        add(n, STRING);
    }
    return *this;
}

std::string LvmConfig::Node::strValue() const {
    const Node* node = this;
    while (node->type == SCALAR) {
        if (node->children.empty()) {
            return {};
        }
        node = &node->children.front();
    }
    if (node->type == STRING && node->name.size() >= 2) {
        return node->name.substr(1, node->name.size() - 2);
    }
    if (node->type == ARRAY) {
        std::string elements;
        LvmDumper::appendElements(elements, node->children);
        return elements;
    }
    if (node->type == SET) {
        std::ostringstream out;
        node->dump(out, 0);
        if (!out) {
            throw std::bad_alloc(); // a string stream fails for no other reason
        }
        return out.str();
    }
    return node->name;
}

unsigned long LvmConfig::Node::numValue() const {
    return numberIn<unsigned long>(strValue());
}

int LvmConfig::Node::intValue() const {
    return numberIn<int>(strValue());
}

std::ostream& LvmConfig::Node::dump(std::ostream& out, int indent) const {
    LvmDumper(out).write(*this, indent);
    return out;
}

// The parser.

namespace {

// The first place from `from` on whose character is of none of the classes; the end at last.
inline std::uint64_t skip(const std::string& text, std::uint64_t from, std::uint8_t classes) {
    const char* data = text.data();
    const std::uint64_t size = text.size();
    while (from < size && isOf(data[from], classes)) {
        ++from;
    }
    return from;
}

// Moves the cursor over characters of the classes; false when the text ends before any other.
inline bool skipOver(LvmConfig& config, std::uint8_t classes) {
    config.pos = skip(config.text, config.pos, classes);
    if (config.pos >= config.text.size()) {
        config.pos = std::string::npos;
        return false;
    }
    return true;
}

bool skipToToken(LvmConfig& config) {
    if (!skipOver(config, BLANK)) {
        return false;
    }
    // Only one comment: a second one in a row ends the text, because its # starts no token.
    return config.text[config.pos] != '#' ||
           (skipOver(config, NOT_NEWLINE) && skipOver(config, BLANK));
}

bool readString(LvmConfig& config) {
    const std::string& text = config.text;
    std::uint64_t& pos = config.pos;
    config.tokenType = LvmConfig::TOKEN_STRING;
    std::uint64_t start = pos++;
    while ((pos = skip(text, pos, IN_STRING)) < text.size()) {
        if (text[pos] == '"') {
            ++pos;
            config.token.append(text, start, pos - start);
            return true;
        }
        if (pos + 1 == text.size()) { // a backslash with nothing to escape stands for itself
            ++pos;
            break;
        }
        config.token.append(text, start, pos - start);
        start = pos + 1;
        pos += 2;
    }
    config.token.append(text, start);
    config.errorCode = 1;
    return false;
}

bool readWord(LvmConfig& config) {
    const std::string& text = config.text;
    const char first = text[config.pos];
    const std::uint64_t end = skip(text, config.pos, WORD);
    if (isOf(first, DIGIT)) {
        config.tokenType = skip(text, config.pos, DIGIT) == end ? LvmConfig::TOKEN_NUMBER
                                                                : LvmConfig::TOKEN_IDENTIFIER;
    } else if (isOf(first, FIRST)) {
        config.tokenType = LvmConfig::TOKEN_IDENTIFIER;
    }
    config.token.append(text, config.pos, end - config.pos);
    config.pos = end;
    return config.tokenType != LvmConfig::TOKEN_NONE;
}

bool isDelimiter(const LvmConfig& config, char delimiter) {
    return config.tokenType == LvmConfig::TOKEN_DELIMITER && config.token.front() == delimiter;
}

Node& addChild(Node& node, std::string& name, Node::DataType type) {
    Node& child = node.children.emplace_back();
    child.name.swap(name);
    child.type = type;
    return child;
}

// Moves a value token into the tree; false when the token is none.
bool addValue(LvmConfig& config, Node& node) {
    if (config.tokenType == LvmConfig::TOKEN_STRING) {
        addChild(node, config.token, Node::STRING);
    } else if (config.tokenType == LvmConfig::TOKEN_NUMBER) {
        addChild(node, config.token, Node::NUMBER);
    } else {
        return false;
    }
    config.nextToken();
    return true;
}

void parseSection(LvmConfig& config, Node& node, unsigned depth);

// False when the entries end here with an error.
bool parseEntry(LvmConfig& config, Node& node, unsigned depth) {
    if (config.tokenType != LvmConfig::TOKEN_NUMBER &&
        config.tokenType != LvmConfig::TOKEN_IDENTIFIER) {
        return false;
    }
    std::string key = std::move(config.token);
    config.nextToken();
    if (config.tokenType != LvmConfig::TOKEN_DELIMITER) {
        return false;
    }
    if (isDelimiter(config, '{')) {
        if (depth == LvmConfig::MAX_DEPTH) {
            return false;
        }
        parseSection(config, addChild(node, key, Node::SET), depth + 1);
    } else if (isDelimiter(config, '=')) {
        if (!config.nextToken()) {
            return false;
        }
        if (isDelimiter(config, '[')) {
            config.parseArray(addChild(node, key, Node::ARRAY));
        } else {
            config.parseScalar(addChild(node, key, Node::SCALAR));
        }
    } // at any other the key is forgotten and the caller goes on from the delimiter
    return true;
}

// `depth` counts the sections that are open around the entries.
void parseEntries(LvmConfig& config, Node& node, unsigned depth) {
    while (config.tokenType != LvmConfig::TOKEN_NONE && !isDelimiter(config, '}')) {
        if (!parseEntry(config, node, depth)) {
            config.errorCode = 1;
            return;
        }
    }
}

void parseSection(LvmConfig& config, Node& node, unsigned depth) {
    if (!config.nextToken()) {
        config.errorCode = 1;
        return;
    }
    parseEntries(config, node, depth);
    if (isDelimiter(config, '}')) {
        config.nextToken();
    } else {
        config.errorCode = 1;
    }
}

} // namespace

const char* const LvmConfig::classText = "LvmConfig";

LvmConfig::LvmConfig() : pos(0), tokenType(TOKEN_NONE), errorCode(0) {}

void LvmConfig::parse(std::string s) {
    text = std::move(s);
    pos = 0;
    tokenType = TOKEN_NONE;
    errorCode = 0;
    if (nextToken()) {
        root = Node();
        parseList(root);
    }
}

std::uint8_t LvmConfig::getErrorCode() const {
    return errorCode;
}

bool LvmConfig::nextToken() {
    token.clear();
    tokenType = TOKEN_NONE;
    if (errorCode != 0 || pos == text.size() || !skipToToken(*this)) {
        return false;
    }
    const char first = text[pos];
    if (isOf(first, DELIMITER)) {
        tokenType = TOKEN_DELIMITER;
        token.push_back(first);
        ++pos;
        return true;
    }
    return first == '"' ? readString(*this) : readWord(*this);
}

void LvmConfig::parseList(Node& node) {
    parseEntries(*this, node, 0);
}

void LvmConfig::parseSet(Node& node) {
    parseSection(*this, node, 1);
}

void LvmConfig::parseArray(Node& node) {
    do {
        nextToken();
        if (!addValue(*this, node) && !isDelimiter(*this, ']')) {
            errorCode = 1;
            return;
        }
    } while (isDelimiter(*this, ','));
    if (isDelimiter(*this, ']')) {
        nextToken();
    } else {
        errorCode = 1;
    }
}

void LvmConfig::parseScalar(Node& node) {
    if (!addValue(*this, node)) {
        errorCode = 1;
    }
}

const LvmConfig::Node& LvmConfig::vg() const {
    const auto section = std::ranges::find(root.children, Node::SET, &Node::type);
    if (section == root.children.end()) {
        throw std::out_of_range("can't find a VG node");
    }
    return *section;
}

LvmConfig::Node& LvmConfig::vg() {
    const auto section = std::ranges::find(root.children, Node::SET, &Node::type);
    return section != root.children.end() ? *section : root["VolGroup0"];
}

void LvmConfig::dump() const {
    root.dump(std::cout, 0);
}

// The generator.

namespace {

// What a new volume group and its physical volumes begin with; a sector has 512 bytes.
constexpr unsigned long EXTENT_SECTORS = 8192;
constexpr unsigned long VOLUME_LIMIT = 256;
constexpr unsigned long DATA_START_SECTOR = 384;
constexpr int SECTOR_SHIFT = 9;
constexpr const char* CREATION_HOST = "localhost"; // the machine's own name is not asked for

std::string nextPvName(const Node& list) {
    return "pv" + std::to_string(list.children.size());
}

} // namespace

void LvmConfig::initNew(std::string vgName) {
    text.clear();
    pos = 0;
    tokenType = TOKEN_NONE;
    errorCode = 0;
    root = Node();

    Node& group = root[std::move(vgName)];
    group["id"] = LvmUuid().fmtId();
    group["seqno"] = 1;
    group["status"] = "RESIZEABLE", "READ", "WRITE";
    group["extent_size"] = EXTENT_SECTORS;
    group["max_lv"] = VOLUME_LIMIT;
    group["max_pv"] = VOLUME_LIMIT;

    root["contents"] = "Text Format Volume Group";
    root["version"] = 1;
    root["description"] = "";
    root["creation_host"] = CREATION_HOST;
    root["creation_time"] = static_cast<unsigned long>(std::time(nullptr));
}

void LvmConfig::addPv(std::string id, std::string device, unsigned long size) {
    Node& list = vg()["physical_volumes"];
    Node& entry = list[nextPvName(list)];
    entry["id"] = std::move(id);
    if (!device.empty()) {
        entry["device"] = std::move(device);
    }
    entry.add("status", Node::ARRAY) = "ALLOCATABLE";
    entry["dev_size"] = size;
    const unsigned long extentSectors = vg()["extent_size"].numValue();
    if (extentSectors == 0) {
        throw std::out_of_range("invalid sectorsPerExtent(0)");
    }
    entry["pe_start"] = DATA_START_SECTOR;
    entry["pe_count"] = ((size >> SECTOR_SHIFT) - DATA_START_SECTOR) / extentSectors;
}

LvmConfig::Node* LvmConfig::pvByUuId(std::string uuid) {
    Node& list = vg()["physical_volumes"];
    for (Node& entry : list.children) {
        if (entry["id"].strValue() == uuid) {
            return &entry;
        }
    }
    Node& entry = list[nextPvName(list)];
    entry["id"] = std::move(uuid);
    return &entry;
}

// UUIDs.

namespace {

constexpr std::size_t PLAIN_LENGTH = 32;
constexpr std::size_t DISPLAY_LENGTH = 38;
constexpr std::size_t SEPARATORS[] = {26, 22, 18, 14, 10, 6}; // in the plain text, from its end

} // namespace

LvmUuid::LvmUuid() {
    RGUID guid{};
    char digits[PLAIN_LENGTH + 1] = {};
    RGUIDCreate(&guid);
    RGUIDAsString(&guid, digits, sizeof digits, 0);
    uuid.assign(digits, strnlen(digits, PLAIN_LENGTH));
}

LvmUuid::LvmUuid(std::string s) : uuid(std::move(s)) {
    if (uuid.size() != DISPLAY_LENGTH || uuid[SEPARATORS[0]] != '-') {
        return;
    }
    // Counting in the shortened text misses the separators but one; hosts rely on the result.
    for (const std::size_t position : SEPARATORS) {
        uuid.erase(position, 1);
    }
}

std::string LvmUuid::fmtId() const {
    std::string text = uuid;
    for (const std::size_t position : SEPARATORS) {
        text.insert(position, 1, '-');
    }
    return text;
}
