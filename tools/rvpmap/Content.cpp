#include "Content.h"

#include "Output.h"
#include "Signals.h"
#include "Text.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <system_error>

namespace {

// Pieces end at multiples of it in the target, whose pages the kernel then keeps in larger units.
constexpr std::size_t PIECE_BYTES = 1024 * 1024;

// The kernel copies fastest to and from memory that is aligned like its own pages.
struct alignas(4096) Page {
    char bytes[4096];
};

// What both targets have in common: walks the data runs of a file, cut to its size.
class Copier {
  public:
    Copier(File& file, Progress& progress)
        : m_file(file), m_progress(progress), m_size(file.attributes().size) {}
    virtual ~Copier() = default;
    Copier(const Copier&) = delete;
    Copier& operator=(const Copier&) = delete;

    void copy() {
        ExtentCursor cursor(m_file);
        while (const Run* run = cursor.next()) {
            if (run->logical >= m_size) {
                break;
            }
            if (run->isEncoded()) {
                throw ToolError(ExitStatus::FAILED,
                                "its bytes are stored encrypted or compressed; nothing is "
                                "extracted");
            }
            if (run->isData()) {
                copyRun(*run);
            }
        }
        finish(m_size);
    }

  protected:
    virtual void put(uint64_t logical, uint64_t physical, std::size_t length) = 0;
    virtual void finish(uint64_t size) = 0;

    const Volume& volume() const { return m_file.volume(); }

    const char* read(uint64_t physical, std::size_t length) {
        if (!m_buffer) {
            m_buffer = std::make_unique_for_overwrite<Page[]>(PIECE_BYTES / sizeof(Page));
        }
        char* bytes = m_buffer[0].bytes;
        volume().readData(physical, length, bytes);
        return bytes;
    }

  private:
    void copyRun(const Run& run) {
        const uint64_t length = std::min(run.length, m_size - run.logical);
        for (uint64_t done = 0; done < length;) {
            checkSignals();
            const auto piece = static_cast<std::size_t>(
                std::min(length - done, PIECE_BYTES - (run.logical + done) % PIECE_BYTES));
            try {
                put(run.logical + done, run.physical + done, piece);
            } catch (const SourceError& error) {
                throw ToolError(ExitStatus::FAILED, fmt::format("its data cannot be read: {}",
                                                                printable(error.what())));
            }
            m_progress.advance(piece);
            done += piece;
        }
    }

    File& m_file;
    Progress& m_progress;
    uint64_t m_size;
    std::unique_ptr<Page[]> m_buffer;
};

class FileCopier : public Copier {
  public:
    FileCopier(File& file, int target, Progress& progress)
        : Copier(file, progress), m_target(target) {}

  private:
    void put(uint64_t logical, uint64_t physical, std::size_t length) override {
        const std::size_t sent = send(logical, physical, length);
        write(logical + sent, physical + sent, length - sent);
    }

    // The bytes that the kernel copied. Where it cannot, between file systems or from a device, it
    // is not asked again.
    std::size_t send(uint64_t logical, uint64_t physical, std::size_t length) {
        std::size_t sent = 0;
        while (m_kernelCopies && sent < length) {
            const std::size_t count =
                volume().sendData(physical + sent, length - sent, m_target, logical + sent);
            m_kernelCopies = count != 0;
            sent += count;
        }
        return sent;
    }

    void write(uint64_t logical, uint64_t physical, std::size_t length) {
        if (length == 0) {
            return;
        }
        const char* bytes = read(physical, length);
        for (std::size_t done = 0; done < length;) {
            const ssize_t count =
                ::pwrite(m_target, bytes + done, length - done, static_cast<off_t>(logical + done));
            if (count >= 0) {
                done += static_cast<std::size_t>(count);
            } else if (errno != EINTR) {
                throw std::system_error(errno, std::generic_category());
            }
        }
    }
    void finish(uint64_t size) override {
        if (::ftruncate(m_target, static_cast<off_t>(size)) != 0) {
            throw std::system_error(errno, std::generic_category());
        }
    }

    int m_target;
    bool m_kernelCopies = true;
};

class StreamCopier : public Copier {
  public:
    StreamCopier(File& file, int target, const std::string& name, Progress& progress)
        : Copier(file, progress), m_target(target), m_name(name) {}

  private:
    void put(uint64_t logical, uint64_t physical, std::size_t length) override {
        fillTo(logical);
        writeAll(m_target, read(physical, length), length, m_name);
        m_written += length;
    }
    void finish(uint64_t size) override { fillTo(size); }

    void fillTo(uint64_t offset) {
        if (m_written < offset && !m_zeros) {
            m_zeros = std::make_unique<char[]>(PIECE_BYTES);
        }
        while (m_written < offset) {
            checkSignals();
            const auto piece =
                static_cast<std::size_t>(std::min<uint64_t>(offset - m_written, PIECE_BYTES));
            writeAll(m_target, m_zeros.get(), piece, m_name);
            m_written += piece;
        }
    }

    int m_target;
    const std::string& m_name;
    uint64_t m_written = 0;
    std::unique_ptr<char[]> m_zeros;
};

} // namespace

void copyToFile(File& file, int target, Progress& progress) {
    FileCopier(file, target, progress).copy();
}

void copyToStream(File& file, int target, const std::string& name, Progress& progress) {
    StreamCopier(file, target, name, progress).copy();
}
