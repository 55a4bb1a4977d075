// A provider instance over the scripted library, with the host's log and error handler listened to.
#ifndef TESTS_PROVIDERFIXTURE_H
#define TESTS_PROVIDERFIXTURE_H

#include "ScriptedFso.h"
#include "kmp/rvp_map.h"
#include "support/ErrorListener.h"
#include "support/LogCapture.h"

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using Heard = ErrorListener::Heard;

inline struct km_objid idOf(const char* name) {
    const auto length = static_cast<int>(std::strlen(name) + 1);
    return {const_cast<char*>(name), length, 0, {}, KM_OBJID_FSO, 0};
}

class ProviderTest : public testing::Test {
  protected:
    ProviderTest() {
        km_root = "/root";
        script.fs.blockSize = 4096;
        script.fs.fileCount = 100;
        script.file.mode = S_IFREG | 0644;
        begin();
    }
    ~ProviderTest() override { end(); }

    void begin() {
        int version = 0;
        EXPECT_EQ(rvp_map_init(&instance, &listener, &version), 0);
        EXPECT_EQ(version, 2);
        rvp_map_set_logical_sector_size(instance, 512);
        log.clear();
    }

    // Closes what is open and ends the instance.
    void end() {
        while (!m_open.empty()) {
            close(m_open.back());
        }
        rvp_map_fini(std::exchange(instance, nullptr));
    }

    void claim(const char* name) {
        EXPECT_EQ(rvp_map_claim_volume(instance, name), KM_CLAIM_SECONDARY);
    }

    kmp_obj* openVolume(int access = KMP_OPEN_READ) {
        const struct km_objid id = idOf("vol1");
        kmp_obj* object = nullptr;
        EXPECT_EQ(rvp_map_open_id(instance, &id, nullptr, &object, access, &flags, nullptr), 0);
        EXPECT_EQ(flags, KMP_OPEN_SPECIAL);
        return m_open.emplace_back(object);
    }

    kmp_obj* openFile(kmp_obj* volume) {
        kmp_obj* object = nullptr;
        EXPECT_EQ(rvp_map_open_file_index(instance, volume, 12, &object, 1, &flags, nullptr), 0);
        return m_open.emplace_back(object);
    }

    int close(kmp_obj* object) {
        std::erase(m_open, object);
        return rvp_map_close(instance, object);
    }

    FsoScript& script = g_script;
    ErrorListener listener;
    LogCapture log;
    RvpInstance* instance = nullptr;
    int flags = 0; // of the last that was opened

  private:
    std::vector<kmp_obj*> m_open;
};

// The same with a volume opened.
class VolumeTest : public ProviderTest {
  protected:
    VolumeTest() {
        claim("VOL1");
        volume = openVolume();
        log.clear();
    }

    kmp_obj* volume;
};

#endif
