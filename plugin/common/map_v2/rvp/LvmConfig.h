// LVM2 volume-group metadata: a tree of its text format, the parser that builds the tree, and the
// generator of metadata for new volume groups.
//
// The text format is LVM2's own (vgcfgbackup files, the metadata areas of physical volumes):
//
//     vg0 {                              a section
//       seqno = 2                        a key with one value
//       status = [ "READ", "WRITE" ]     a key with an array of values
//     }
//
// Keys are not interpreted: any text of that shape is kept. Reading a volume group:
//
//     LvmConfig config;
//     config.parse(text);
//     if (config.getErrorCode() == 0) {
//         const LvmConfig& found = config;
//         unsigned long sectors = found.vg()["extent_size"].numValue();
//     }
//
// Nothing is locked: one object, its tree included, is used by one thread at a time. Every
// operation that takes or grows text may throw std::bad_alloc; the other exceptions are named where
// they leave.
#ifndef RVP_LVMCONFIG_H
#define RVP_LVMCONFIG_H

#include <cstdint>
#include <iosfwd>
#include <list>
#include <string>

class LvmConfig {
  public:
    // A section, a key or a value, with everything below it.
    //
    // A node owns its children by value, in the order they came. References to nodes stay valid
    // while siblings are added or removed. Names are compared byte for byte; they need not be
    // unique, and each search takes the first match. Neither names nor values are checked: what
    // holds blanks, quotes or backslashes is stored and dumped as it is, and may not parse again.
    // No operation recurses, so that a tree of any depth is copied, dumped and freed safely.
    class Node {
      public:
        enum DataType : std::uint32_t {
            SET = 0,    // a section; the root is one without a name
            STRING = 1, // a value; its name is the text with the quotes around it
            NUMBER = 2, // a value; its name is the digits
            ARRAY = 3,  // a key; its children are the elements
            SCALAR = 4  // a key; its first child is the value
        };

        // A section without name and children.
        Node();
        Node(std::string name, DataType type);
        // Copies the whole subtree. A node may be assigned a part of itself or of a tree it is in.
        Node(const Node& other);
        Node(Node&& other) noexcept;
        Node& operator=(const Node& other);
        Node& operator=(Node&& other) noexcept;
        ~Node();

        // True when this is a SET with a child of that name.
        bool has(std::string name) const;
        // Erases the first child of that name; false when there is none or this is not a SET.
        bool remove(std::string name);
        // Appends a child, whatever the type of this node, and returns it.
        Node& add(std::string name, DataType type);
        // The same; the name is `n` in decimal.
        Node& add(unsigned long n, DataType type);

        // The child of that name; a missing one is appended as an empty SET.
        // Throws std::out_of_range when this is not a SET.
        Node& operator[](std::string name);
        // The child of that name. Throws std::out_of_range when there is none or this is no SET.
        const Node& operator[](std::string name) const;
        // Child number `i` from 0. Throws OrmaError(1) when `i` equals the number of children,
        // std::out_of_range when it is greater.
        Node& operator[](unsigned long i);
        const Node& operator[](unsigned long i) const;

        // Replaces the children by one value: `s` in quotes, or `n`. The node becomes a SCALAR; an
        // ARRAY stays one.
        Node& operator=(std::string s);
        Node& operator=(unsigned long n);
        // Appends a value to a SCALAR or ARRAY, which is an ARRAY from then on; other nodes are
        // left alone. For whole arrays: node = "a", "b", "c". An appended number is of type STRING,
        // without quotes: it dumps bare, but its strValue() lacks the outer characters.
        Node& operator,(std::string s);
        Node& operator,(unsigned long n);

        // The value as text: a string without its quotes; an array as "[ a, b ]", its elements as
        // they are stored; a section as it is dumped.
        std::string strValue() const;
        // strValue() up to where the decimal number ends; 0 when it does not begin with one, the
        // nearest limit when it is out of range.
        unsigned long numValue() const;
        int intValue() const;

        // Writes the node as metadata text, sections two blanks deeper than what they are in, and
        // returns `out`. Ends early once `out` has failed.
        std::ostream& dump(std::ostream& out, int indent) const;

        std::string name;
        DataType type;
        std::list<Node> children;
    };

    enum TokenType : std::uint32_t {
        TOKEN_NONE = 0,      // the end of the text, or a character that starts no token
        TOKEN_STRING = 1,    // quotes included, escapes resolved
        TOKEN_NUMBER = 2,    // decimal digits
        TOKEN_DELIMITER = 3, // one of {}[]=,
        TOKEN_IDENTIFIER = 4 // letters, digits, _ - . +, neither number nor led by - . +
    };

    // Parsed sections may be nested this deep; deeper ones are a syntax error.
    static constexpr unsigned MAX_DEPTH = 1000;

    static const char* const classText; // "LvmConfig"

    LvmConfig();

    // Replaces the tree by that of `s`; check getErrorCode() afterwards. The tree read before an
    // error is kept. A text without any token leaves the former tree. One comment is skipped
    // between two tokens: a second one in a row ends the text, as does any character that starts no
    // token, without an error when all sections are closed. A negative number or an unquoted word
    // is an error where a value is expected. Takes time linear in the length of `s`.
    void parse(std::string s);
    // Of the last parse(): 0, or 1 after a syntax error or an unterminated string.
    std::uint8_t getErrorCode() const;

    // The volume group: the first section of the tree.
    // Throws std::out_of_range when there is none.
    const Node& vg() const;
    // The same; a missing one is created under the name "VolGroup0".
    Node& vg();

    // Writes the tree to standard output.
    void dump() const;

    // Replaces the tree by the metadata of a new, empty volume group: a new UUID, sequence number
    // 1, extents of 8192 sectors of 512 bytes (4 MiB), at most 256 physical and logical volumes.
    void initNew(std::string vgName);
    // Appends physical volume pvN, N being the number of those present, to vg(). `id` is a UUID in
    // display form, `device` a path or empty, `size` in bytes, from 196608 (less is not checked and
    // wraps around); the data area begins 384 sectors into it. Throws std::out_of_range, with the
    // volume added but for "pe_start" and "pe_count", when the group's "extent_size" is 0, missing
    // or no number, and when a name on the way is not that of a section.
    void addPv(std::string id, std::string device, unsigned long size);
    // The physical volume of vg() whose "id" is exactly `uuid`; else a new one with that "id" only.
    // Never null; owned by the tree. Throws std::out_of_range for a physical volume that is not a
    // section; one without "id" gains an empty section of that name.
    Node* pvByUuId(std::string uuid);

    // The steps of parse(). Each works on the current token and leaves the one after what it read;
    // a syntax error sets `errorCode`, after which there are no more tokens.

    // Fetches a token; false when there is none.
    bool nextToken();
    // Entries up to a "}", which stays the current token, or the end.
    void parseList(Node& node);
    // What follows "{", "[" and "=".
    void parseSet(Node& node);
    void parseArray(Node& node);
    void parseScalar(Node& node);

    std::string text;       // what is parsed
    std::uint64_t pos;      // of the next byte to look at; all ones once the text has ended
    std::string token;      // the current token
    TokenType tokenType;    // its class
    std::uint8_t errorCode; // 0 or 1
    Node root;              // the tree; never of a type but SET unless the caller makes it so
};

// An LVM2 UUID.
class LvmUuid {
  public:
    // A new random UUID from the host's GUIDs: 32 hexadecimal digits.
    LvmUuid();
    // Takes `s` as it is, but for a display form: of 38 characters with "-" at 26, those at 26, 22,
    // 18, 14, 10 and 6 are erased, which takes five data characters and leaves four separators.
    // Callers that hold display forms strip the "-" themselves.
    LvmUuid(std::string s);

    // The display form: 38 characters, a "-" after 6, then after every 4 of the middle 20.
    // Throws std::out_of_range when `uuid` is shorter than 26 characters.
    std::string fmtId() const;

    std::string uuid; // 32 characters without separators
};

#endif
