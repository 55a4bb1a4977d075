// One volume as the provider serves it: an instance, the claim and the opened file system.
//
// A volume owns its provider instance and refers to the layer with its bytes. Files opened from it
// refer to it and must be gone before it.
#ifndef RVPMAP_VOLUME_H
#define RVPMAP_VOLUME_H

#include "ExitStatus.h"
#include "Layer.h"
#include "Provider.h"
#include "SourceError.h"

#include <array>
#include <memory>
#include <string>

class File;

// A read that failed, as users are told of it: escaped, because names on disks may hold anything.
ToolError readError(const SourceError& error);

class Volume {
  public:
    // `name` is what the user calls the volume. Throws ToolError.
    Volume(const Provider& provider, const Layer& source, const std::string& name);
    ~Volume();
    Volume(const Volume&) = delete;
    Volume& operator=(const Volume&) = delete;

    // Whether the provider recognises a file system. Throws ToolError when it could not look.
    bool claim();
    // Opens what is claimed, or claims it first; throws ToolError, NOT_FOUND when it is not
    // claimed.
    void open();

    const std::string& name() const { return m_name; }
    const Layer& source() const { return m_source; }
    // Reads what files hold: through all layers, or past them by the runs on the disks. Throws
    // SourceError.
    void readData(uint64_t offset, std::size_t length, char* buffer) const;
    // The same into a file, by the kernel: returns how many bytes, 0 where that cannot be.
    std::size_t sendData(uint64_t offset, std::size_t length, int target, uint64_t to) const;
    void readDataFromDisks() { m_dataFromDisks = true; }
    const kmp_fs& statistics() const { return m_statistics; }
    uint64_t rootIndex() const { return m_rootIndex; }
    // File slots in use: about as many files as a walk will meet.
    uint64_t filesInUse() const {
        const kmp_fs& fs = m_statistics;
        return fs.fileCount > fs.freeFiles ? fs.fileCount - fs.freeFiles : 0;
    }
    // Bytes that the file system says it spans.
    uint64_t fileSystemBytes() const { return m_statistics.blockCount * m_statistics.blockSize; }
    std::string label();
    std::array<uint8_t, 16> uuid();

    // Opens a file by its index and reads its attributes. Throws ToolError.
    File openFile(uint64_t index);

    const Provider& provider() const { return m_provider; }
    // Calls an entry point for this volume's instance.
    template <typename Function, typename... Arguments>
    int call(Function function, Arguments... arguments) {
        m_raised.clear();
        m_readFailure.clear();
        return function(m_instance, arguments...);
    }
    // Why the last call failed: the provider's words and, if there was one, the failed read.
    std::string reason(int code);
    // Throws ToolError with `action` and the reason when `code` is not 0.
    void check(int code, const char* action);

  private:
    // The host's error handler, first member first, as the provider sees it.
    struct Handler {
        kmp_ehandler base;
        Volume* volume;
    };
    static void onError(kmp_ehandler* self, const char* english, const char* localized,
                        int severity);
    static bool onRead(void* context, unsigned long offset, unsigned long length, char* buffer);
    void initInstance();

    const Provider& m_provider;
    const Layer& m_source;
    bool m_dataFromDisks = false;
    std::string m_name;
    Handler m_handler;
    RvpInstance* m_instance = nullptr;
    bool m_claimed = false;
    kmp_obj* m_fileSystem = nullptr;
    kmp_fs m_statistics = {};
    uint64_t m_rootIndex = 0;
    std::string m_raised;
    std::string m_readFailure;
    bool m_readFailedPastEnd = false;
};

#endif
