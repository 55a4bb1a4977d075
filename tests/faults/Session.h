// One session of a host, step by step, over a volume in memory: from rvp_map_init to rvp_map_fini,
// every entry point, and every kind of file. Faults are put in from outside; each step knows which
// answers a fault may have, and repeats itself after any other answer than the usual one.
#ifndef TESTS_FAULTS_SESSION_H
#define TESTS_FAULTS_SESSION_H

#include "kmp/rvp_map.h"

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

// An ext file system made by e2fsprogs, as bytes. `options` are mke2fs's.
std::string makeVolume(const std::string& options);
// Volumes that between them have all that the reference library reads.
inline const std::vector<std::string> VOLUME_OPTIONS = {"-t ext4 -b 1024 -I 256 -O inline_data",
                                                        "-t ext2 -b 1024 -I 128"};

// What goes wrong, and where it is told of. Nothing here.
class Faults {
  public:
    enum class Kind { NONE, MEMORY, READ };

    explicit Faults(Kind kind = Kind::NONE) : m_kind(kind) {}
    virtual ~Faults() = default;
    Kind kind() const { return m_kind; }
    // A call into the library begins or ends.
    virtual void inside(bool) {}
    virtual bool readFails() { return false; }
    // How often a fault has struck.
    virtual long strikes() const { return 0; }
    // Nothing fails any more.
    virtual void heal() {}

  private:
    Kind m_kind;
};

// The memory of the process runs short at one allocation inside the library, or from one on.
class MemoryFaults : public Faults {
  public:
    MemoryFaults(long number, bool onwards);
    ~MemoryFaults() override { heal(); }
    void inside(bool begins) override;
    long strikes() const override;
    void heal() override;
};

// Reads of the volume fail likewise.
class ReadFaults : public Faults {
  public:
    ReadFaults(long number, bool onwards)
        : Faults(Kind::READ), m_number(number), m_onwards(onwards) {}
    bool readFails() override;
    long strikes() const override { return m_strikes; }
    void heal() override { m_number = 0; }

  private:
    long m_number;
    bool m_onwards;
    long m_counted = 0;
    long m_strikes = 0;
};

struct Step {
    std::string name;
    std::string code; // or the exception's kind
    std::string content;

    bool operator==(const Step&) const = default;
};
using Transcript = std::vector<Step>;

class Session {
  public:
    // `expected` is the transcript of a session without faults. All arguments outlive the session.
    Session(const std::string& volume, Faults& faults, const Transcript* expected = nullptr);
    // Ends what was begun.
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // All of the steps below; every file that the directories name, at most `files` of them.
    void run(unsigned files = 12);

    void start();
    void claim(const std::string& name = "VOLUME");
    void openVolume();
    void describeVolume();
    void visit(uint64_t index);
    void askForTexts();
    void closeVolume();
    void finish();

    // What the directory that was visited last names.
    const std::vector<uint64_t>& found() const { return m_found; }

    // Whether files that are no directories are listed as well; each such error keeps two buffers.
    bool listsAnything = true;
    Transcript transcript;
    // Answers that no fault explains, and steps that failed once more.
    std::vector<std::string> problems;
    // By how many blocks the process may have grown, a bit for each number: those that are never
    // given back on purpose, see tests/lsan.supp.
    uint64_t allowedGrowth = 1;

  private:
    struct Handler : kmp_ehandler {
        Session* session;
    };

    // Codes, or "no memory" for the standard exception, that a fault may come to.
    struct Promise {
        std::vector<std::string> memory;
        std::vector<std::string> read;
    };

    template <typename Call>
    void step(const std::string& name, const Promise& promise, Call call);
    template <typename Call>
    Step attempt(const std::string& name, Call call);
    template <typename Function, typename... Arguments>
    auto ask(Function function, Arguments... arguments);

    static bool read(void* self, unsigned long offset, unsigned long length, char* buffer);
    static void hear(kmp_ehandler* self, const char* english, const char* localized, int severity);
    void keepForever(int blocks) { allowedGrowth <<= blocks; }
    void mayKeep(int blocks) { allowedGrowth |= allowedGrowth << blocks; }
    int listDirectory(kmp_obj* file, std::string& content);
    int listExtents(kmp_obj* file, std::string& content);
    int readMetadata(kmp_obj* file, std::string& content);

    const std::string& m_volume;
    Faults& m_faults;
    const Transcript* m_expected;
    Handler m_handler;
    std::string m_name;
    RvpInstance* m_instance = nullptr;
    kmp_obj* m_fileSystem = nullptr;
    long m_strikesBefore = 0;      // the step
    std::vector<uint64_t> m_found; // in the directory that was listed last
};

#endif
