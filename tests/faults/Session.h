// One session of a host, step by step, over a volume in memory: from rvp_map_init to rvp_map_fini,
// and every kind of file. Reads and allocations may fail; each step knows which answers a fault may
// have, and is repeated without faults after any other answer than the usual one.
#ifndef TESTS_FAULTS_SESSION_H
#define TESTS_FAULTS_SESSION_H

#include "FaultyHeap.h"
#include "kmp/rvp_map.h"

#include <cstdint>
#include <string>
#include <vector>

// A file system made by e2fsprogs, as bytes. "ext4" and "ext2" have between them all that the
// reference library reads.
std::string makeVolume(const std::string& type);

struct Step {
    static constexpr int NO_MEMORY = -1; // in place of a code: the standard exception

    std::string name;
    int code = 0;
    std::string content = "";

    bool operator==(const Step&) const = default;
};
using Transcript = std::vector<Step>;

class Session {
  public:
    // `usual` is what a session without faults answers at first. The arguments outlive the session.
    explicit Session(const std::string& volume, const Transcript& usual = {});

    // All of the steps below, over the files that the directories name.
    void run();

    void start();
    void claim();
    void openVolume();
    // The answer is what a directory names.
    std::vector<uint64_t> visit(uint64_t index);
    void closeVolume();
    void finish();

    Fault readFault; // of the volume's reads
    Transcript transcript;
    // Answers that no fault explains, and steps that failed once more.
    std::vector<std::string> problems;
    // The blocks of a library object that a failed claim may have left behind.
    long mayKeep = 0;

  private:
    // What short memory and a failed read may come to.
    using Codes = std::vector<int>;

    static bool read(void* self, unsigned long offset, unsigned long length, char* buffer);
    template <typename Call>
    void step(const std::string& name, const Codes& ofMemory, const Codes& ofRead, Call call);
    template <typename Function, typename... Arguments>
    void perform(const std::string& name, Function function, Arguments... arguments);
    template <typename Record, typename Function, typename... Arguments>
    Record query(const std::string& name, const Codes& ofMemory, const Codes& ofRead,
                 Function function, Arguments... arguments);

    const std::string& m_volume;
    const Transcript m_usual;
    RvpInstance* m_instance = nullptr;
    kmp_obj* m_fileSystem = nullptr;
};

#endif
