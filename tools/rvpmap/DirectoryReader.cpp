#include "DirectoryReader.h"

#include "fso/IFileSystemObjectV1.h"

#include <cstring>

DirectoryReader::DirectoryReader(File directory)
    : m_volume(directory.volume()), m_index(directory.index()), m_file(std::move(directory)) {}

const DirectoryEntry* DirectoryReader::next() {
    if (m_ended || (m_at == m_filled && !fill())) {
        return nullptr;
    }
    take();
    return &m_entry;
}

void DirectoryReader::rest() {
    m_file.reset();
    m_buffer.reset();
    m_filled = 0;
    m_at = 0;
}

bool DirectoryReader::fill() {
    if (!m_file) {
        m_file = m_volume.openFile(m_index);
    }
    if (!m_buffer) {
        m_buffer = std::make_unique_for_overwrite<uint64_t[]>(BUFFER_BYTES / sizeof(uint64_t));
    }
    kmp_io_req request = {};
    request.buffer = reinterpret_cast<uint64_t>(m_buffer.get());
    request.bufferSize = BUFFER_BYTES;
    request.position = m_position;
    unsigned long count = 0;
    const int code = m_volume.call(m_volume.provider().readdir, m_file->object(), &request, &count);
    if (code != 0) {
        fail("the directory cannot be read further: " + m_volume.reason(code));
    }
    m_at = 0;
    m_filled = request.resultCount;
    if (m_filled > BUFFER_BYTES) {
        fail("the directory cannot be read: the library overran its buffer");
    }
    m_ended = m_filled == 0;
    return !m_ended;
}

void DirectoryReader::take() {
    const char* record = reinterpret_cast<const char*>(m_buffer.get()) + m_at;
    const std::size_t room = m_filled - m_at;
    fso_dir_entry entry;
    if (room < sizeof entry) {
        fail("the directory cannot be read further: an entry is cut short");
    }
    std::memcpy(&entry, record, sizeof entry);
    if (entry.recordLength > room || entry.recordLength < sizeof entry ||
        entry.nameLength > entry.recordLength - sizeof entry || entry.next == m_position) {
        fail("the directory cannot be read further: an entry contradicts itself");
    }
    m_entry = {{record + FSO_DIR_ENTRY_NAME_OFFSET, entry.nameLength}, entry.index, entry.type};
    m_position = entry.next;
    m_at += entry.recordLength;
}

void DirectoryReader::fail(const std::string& text) {
    m_ended = true;
    throw ToolError(ExitStatus::FAILED, text);
}
