// One session of a host, step by step, over a volume in memory: from rvp_map_init to rvp_map_fini,
// and every kind of file. Reads and allocations may fail; a step that then gives one of the answers
// promised for it is repeated without faults. So all sessions over a volume have one transcript.
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

class Session {
  public:
    // The volume outlives the session.
    explicit Session(const std::string& volume) : m_volume(volume) {}

    // A whole one, over the files that the directories name.
    void run();
    void walkAndFinish();

    void start();
    void claim();
    void openVolume();
    // The answer is what a directory names.
    std::vector<uint64_t> visit(uint64_t index);
    void closeVolume();
    void finish();

    Fault readFault;                     // of the volume's reads
    std::vector<std::string> transcript; // name, code and content's hash of each step
    // The blocks of a library object that a failed claim may have left behind.
    long mayKeep = 0;

  private:
    // What short memory, or a failed read, may come to.
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
    RvpInstance* m_instance = nullptr;
    kmp_obj* m_fileSystem = nullptr;
};

#endif
