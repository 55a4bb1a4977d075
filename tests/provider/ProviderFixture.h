// A provider instance over the scripted library, with the host's log and error handler listened to.
#ifndef TESTS_PROVIDERFIXTURE_H
#define TESTS_PROVIDERFIXTURE_H

#include "ScriptedFso.h"
#include "kmp/rvp_map.h"
#include "support/ErrorListener.h"
#include "support/LogCapture.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;

class ProviderTest : public testing::Test {
  protected:
    explicit ProviderTest(const std::string& root = "scripted") : m_root(TEST_ROOTS + root) {
        km_root = m_root.c_str();
        m_library = dlopen((m_root + "/lib/map/rvp/libfso.so").c_str(), RTLD_NOW);
        EXPECT_NE(m_library, nullptr) << dlerror();
        script = reinterpret_cast<FsoScript* (*)()>(dlsym(m_library, "fsoScript"))();
        script->fs.blockSize = 4096;
        script->fs.blockCount = 1000;
        script->fs.fileCount = 100;
        script->file.mode = S_IFREG | 0644;
        int version = 0;
        EXPECT_EQ(rvp_map_init(&instance, &listener, &version), 0);
        EXPECT_EQ(version, 2);
        rvp_map_set_logical_sector_size(instance, 512);
        rvp_map_set_volume_read_callback(instance, readNothing, this);
        log.clear();
    }

    ~ProviderTest() override {
        if (instance != nullptr) {
            end();
        }
        dlclose(m_library);
    }

    static bool readNothing(void*, unsigned long, unsigned long, char*) { return false; }

    void claim(const char* name = "VOL1") {
        ASSERT_EQ(rvp_map_claim_volume(instance, name), KM_CLAIM_SECONDARY);
    }

    // Closes what is open and ends the instance.
    void end() {
        while (!m_open.empty()) {
            close(m_open.back());
        }
        rvp_map_fini(instance);
        instance = nullptr;
    }

    kmp_obj* openVolume(const char* name = "vol1", int flags = KMP_OPEN_READ) {
        struct km_objid* id = km_objid(name, static_cast<int>(std::string(name).size() + 1), 3);
        kmp_obj* object = nullptr;
        int openFlags = 0;
        EXPECT_EQ(rvp_map_open_id(instance, id, nullptr, &object, flags, &openFlags, nullptr), 0);
        EXPECT_EQ(openFlags, KMP_OPEN_SPECIAL);
        km_free_objid(id);
        return m_open.emplace_back(object);
    }

    kmp_obj* openFile(kmp_obj* volume, unsigned long index = 12, int expectedFlags = 0) {
        kmp_obj* object = nullptr;
        int openFlags = -1;
        EXPECT_EQ(rvp_map_open_file_index(instance, volume, index, &object, KMP_OPEN_READ,
                                          &openFlags, nullptr),
                  0);
        EXPECT_EQ(openFlags, expectedFlags);
        return m_open.emplace_back(object);
    }

    int close(kmp_obj* object) {
        std::erase(m_open, object);
        return rvp_map_close(instance, object);
    }

    FsoScript* script;
    ErrorListener listener;
    LogCapture log;
    RvpInstance* instance = nullptr;

  private:
    std::string m_root;
    void* m_library;
    std::vector<kmp_obj*> m_open;
};

// The same with a volume opened.
class VolumeTest : public ProviderTest {
  protected:
    VolumeTest() {
        claim();
        volume = openVolume();
        log.clear();
    }

    kmp_obj* volume;
};

#endif
