#include "Volume.h"

#include "DiskRuns.h"
#include "File.h"
#include "Text.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>

namespace {

constexpr unsigned SECTOR_SIZE = 512;

int stayAlive(void* /*context*/) {
    return 0;
}

} // namespace

ToolError readError(const SourceError& error) {
    return {ExitStatus::FAILED, printable(error.what())};
}

Volume::Volume(const Provider& provider, const Layer& source, const std::string& name)
    : m_provider(provider), m_source(source), m_name(name), m_handler{{onError}, this} {
    initInstance();
    try {
        check(call(m_provider.setVolumeReadCallback, onRead, this), "cannot be prepared");
        check(call(m_provider.setLogicalSectorSize, SECTOR_SIZE), "cannot be prepared");
        check(call(m_provider.setKeepAliveCallback, stayAlive), "cannot be prepared");
    } catch (...) {
        m_provider.fini(m_instance);
        throw;
    }
}

void Volume::initInstance() {
    int apiVersion = 0;
    const int code = m_provider.init(&m_instance, &m_handler.base, &apiVersion);
    if (code != 0) {
        throw ToolError(ExitStatus::FAILED,
                        fmt::format("the provider cannot be started (code {})", code));
    }
}

Volume::~Volume() {
    if (m_fileSystem != nullptr) {
        m_provider.close(m_instance, m_fileSystem);
    }
    m_provider.fini(m_instance);
}

// A source that is merely too short holds no file system; one that cannot be read may.
bool Volume::claim() {
    m_claimed = call(m_provider.claimVolume, m_name.c_str()) != KM_CLAIM_NONE;
    if (m_claimed) {
        return true;
    }
    if (!m_raised.empty() || (!m_readFailure.empty() && !m_readFailedPastEnd)) {
        throw ToolError(ExitStatus::FAILED, "cannot be claimed: " + reason(KMP_EINTERNAL));
    }
    return false;
}

void Volume::open() {
    if (!m_claimed && !claim()) {
        throw ToolError(ExitStatus::NOT_FOUND,
                        "is not claimed: no file system was recognised" +
                            (m_readFailure.empty() ? "" : " (" + m_readFailure + ")"));
    }
    struct km_objid* id =
        km_objid(m_name.c_str(), static_cast<int>(m_name.size() + 1), KM_OBJID_FSO);
    int openFlags = 0;
    const int code = call(m_provider.openId, id, m_name.c_str(), &m_fileSystem,
                          static_cast<int>(KMP_OPEN_READ), &openFlags, nullptr);
    km_free_objid(id);
    check(code, "cannot be opened");
    check(call(m_provider.statFs, m_fileSystem, &m_statistics), "cannot be opened");
    check(call(m_provider.objctl, m_fileSystem, static_cast<int>(KMP_OCROOTINDEX), &m_rootIndex),
          "cannot be opened");
}

void Volume::readData(uint64_t offset, std::size_t length, char* buffer) const {
    if (m_dataFromDisks) {
        readFromDisks(m_source, offset, length, buffer);
    } else {
        m_source.read(offset, length, buffer);
    }
}

std::size_t Volume::sendData(uint64_t offset, std::size_t length, int target, uint64_t to) const {
    return m_dataFromDisks ? 0 : m_source.send(offset, length, target, to);
}

std::string Volume::label() {
    char* text = nullptr;
    check(call(m_provider.objctl, m_fileSystem, static_cast<int>(KMP_OCVOLUMENAME), &text),
          "has no readable name");
    return text != nullptr ? text : "";
}

std::array<uint8_t, 16> Volume::uuid() {
    std::array<uint8_t, 16> bytes = {};
    const uint8_t* kept = nullptr;
    check(call(m_provider.objctl, m_fileSystem, static_cast<int>(KMP_OCVOLUMEUUID), &kept),
          "has no readable UUID");
    if (kept != nullptr) {
        std::copy_n(kept, bytes.size(), bytes.begin());
    }
    return bytes;
}

File Volume::openFile(uint64_t index) {
    kmp_obj* object = nullptr;
    int openFlags = 0;
    check(call(m_provider.openFileIndex, m_fileSystem, index, &object,
               static_cast<int>(KMP_OPEN_READ), &openFlags, nullptr),
          "cannot be opened");
    return File(*this, index, object);
}

std::string Volume::reason(int code) {
    std::string text = m_raised;
    char* catalogued = nullptr;
    if (text.empty() && m_provider.errmsg(m_instance, code, &catalogued) == 0 &&
        catalogued != nullptr) {
        text = catalogued;
    }
    if (text.empty()) {
        text = fmt::format("code {}", code);
    }
    return m_readFailure.empty() ? text : fmt::format("{} ({})", text, m_readFailure);
}

void Volume::check(int code, const char* action) {
    if (code != 0) {
        throw ToolError(ExitStatus::FAILED, fmt::format("{}: {}", action, reason(code)));
    }
}

void Volume::onError(kmp_ehandler* self, const char* english, const char* /*localized*/,
                     int /*severity*/) {
    reinterpret_cast<Handler*>(self)->volume->m_raised = english != nullptr ? english : "";
}

// Called from C++ code that expects no exception.
bool Volume::onRead(void* context, unsigned long offset, unsigned long length, char* buffer) {
    Volume& volume = *static_cast<Volume*>(context);
    try {
        volume.m_source.read(offset, length, buffer);
        return true;
    } catch (const SourceError& error) {
        volume.m_readFailure = printable(error.what());
        volume.m_readFailedPastEnd = error.pastEnd();
        return false;
    }
}
