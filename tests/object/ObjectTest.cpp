// Wrapping provider objects over a fake lower provider that lacks operations, fails and iterates.
#include "Error.h"
#include "RvpObject.h"
#include "kmhost.h"
#include "support/Layout.h"
#include "support/LogCapture.h"

#include <algorithm>
#include <cstring>
#include <dlfcn.h>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

using Lines = std::vector<std::string>;
// The arguments of all calls: the parameters of an operation differ in type.
constexpr int NUMBER = 20;
constexpr unsigned long INDEX = 19;
alignas(8) char ADDRESS[] = "prefix-";
kmp_obj* const UNTOUCHED = reinterpret_cast<kmp_obj*>(ADDRESS);

// An object of the lower provider, with its name and its record of up to three sub-records.
struct LowerObject {
    explicit LowerObject(const char* name) {
        id.name = const_cast<char*>(name);
        obj.id = &id;
        obj.record = &record;
    }
    struct km_objid id = {};
    kmp_obj obj = {};
    struct {
        RvpLowerRecord head;
        RvpLowerRecord* subRecords[3];
    } record = {};
};

// The lower provider: what it is to answer, and the object that it was given last.
struct FakeProvider : RvpInterface {
    FakeProvider() { context = this; }

    int closeObject(kmp_obj* object) override { return entry(this, object); }
    int startIteration(kmp_obj* object, kmp_file* stat, int first, int second,
                       void** handle) override {
        *handle = iteration;
        return entry(this, object, stat, first, second - first);
    }
    int nextObject(void* handle, kmp_obj** object) override { return entry(this, handle, object); }
    int closeIteration(void* handle) override { return entry(this, handle); }
    // Every entry of the table.
    template <typename... Arguments>
    static int entry(void* self, Arguments... arguments) {
        (static_cast<FakeProvider*>(self)->take(arguments), ...);
        return static_cast<FakeProvider*>(self)->result;
    }
    static void take(int number) { EXPECT_EQ(number, NUMBER); }
    static void take(unsigned long index) { EXPECT_EQ(index, INDEX); }
    static void take(const void* address) { EXPECT_EQ(address, ADDRESS); }
    void take(kmp_obj* object) { given = object; }
    void take(kmp_obj** object) { *object = opened; }

    int result = 0;
    LowerObject volume{"volume"};
    LowerObject file{"file"};
    kmp_obj* opened = &file.obj;
    void* iteration = ADDRESS;
    kmp_obj* given = nullptr;
};

// A provider object whose factory can fail, and whose translation of one record fails.
struct FakeObject : RvpObject {
    using RvpObject::interface;
    using RvpObject::iterator;
    using RvpObject::lower;
    using RvpObject::obj;
    using RvpObject::objectType;
    using RvpObject::RvpObject;
    using RvpObject::signature;

    RvpObject* create(OrmaObjectType type, const char* name, kmp_obj* lowerObject) override {
        return factoryFails ? nullptr : new FakeObject(interface, type, name, lowerObject);
    }
    int translateExtents(RvpLowerRecord* record) override {
        translated.push_back(record);
        return record == failing ? failure : 0;
    }

    bool factoryFails = false;
    std::vector<RvpLowerRecord*> translated;
    RvpLowerRecord* failing = nullptr;
    int failure = 2048;
};

class ObjectTest : public testing::Test {
  protected:
    using Call = std::function<int()>;

    // What was logged since the last look.
    void expectLines(const Lines& lines) {
        EXPECT_EQ(log.lines(), lines);
        log.clear();
    }

    static std::string resultLine(const std::string& name, int code) {
        return name + ":RvpObject <WARN> Returning: " + std::to_string(code);
    }

    // The lower provider's codes are handed on, and logged but for 0 and those of unused files.
    void expectCodes(const std::string& name, const Call& call) {
        const bool isOfFiles = name == "openFileIndex" || name == "iterate";
        for (const int code : {1, 2058, 2072, 0}) {
            provider.result = code;
            EXPECT_EQ(call(), code) << name;
            const bool isLogged = code != 0 && (code < 2000 || !isOfFiles);
            expectLines(isLogged ? Lines{resultLine(name, code)} : Lines());
        }
    }

    template <typename Type>
    Type argument() {
        if constexpr (std::is_same_v<Type, kmp_obj**>) {
            return &out;
        } else if constexpr (std::is_pointer_v<Type>) {
            return reinterpret_cast<Type>(ADDRESS);
        } else {
            return std::is_same_v<Type, int> ? NUMBER : INDEX;
        }
    }

    // Entries have fixed places in the table.
    template <typename... Types>
    void expectForwarded(const std::string& name, std::size_t place,
                         int (RvpObject::*operation)(Types...)) {
        const auto call = [&] { return (object.*operation)(argument<Types>()...); };
        EXPECT_EQ(call(), KMP_ENOTSUP);
        expectLines({name + ":RvpObject <DEBUG> Returning: KMP_ENOTSUP"});
        int (*const entry)(void*, kmp_obj*, Types...) = FakeProvider::entry;
        std::memcpy(reinterpret_cast<char*>(&provider.functions) + 8 * place, &entry, 8);
        expectCodes(name, call);
        EXPECT_EQ(std::exchange(provider.given, nullptr), &provider.volume.obj) << name;
    }

    void expectVerifyFailure(const std::string& name, const Call& call) {
        EXPECT_THROW(call(), OrmaError);
        expectLines({name + ":RvpObject <ERROR> Exception: VERIFY_PTR"});
    }

    // The object that the call leaves in `out` wraps `lower`.
    std::unique_ptr<FakeObject> expectWraps(const std::string& name, const Call& call,
                                            kmp_obj& lower, OrmaObjectType type,
                                            const char* newName) {
        expectCodes(name, call);
        auto* wrapped = static_cast<FakeObject*>(static_cast<RvpObject*>(out->provider));
        EXPECT_EQ(wrapped->objectType, type);
        EXPECT_STREQ(wrapped->getObjName(), newName);
        EXPECT_EQ(wrapped->lower, &lower);
        object.factoryFails = true;
        expectVerifyFailure(name, call);
        object.factoryFails = false;
        provider.opened = nullptr;
        provider.iteration = nullptr;
        expectVerifyFailure(name, call);
        provider.opened = &provider.file.obj;
        provider.iteration = ADDRESS;
        return std::unique_ptr<FakeObject>(wrapped);
    }

    // Failures leave null, unless they are the wrapping's.
    template <typename... Types>
    void expectOpens(const std::string& name, int (RvpObject::*operation)(Types...),
                     OrmaObjectType type, const char* newName) {
        const auto open = [&] {
            out = UNTOUCHED;
            const int code = (object.*operation)(argument<Types>()...);
            EXPECT_EQ(out == nullptr, code != 0);
            return code;
        };
        expectWraps(name, open, provider.file.obj, type, newName);
        EXPECT_EQ(out, UNTOUCHED);
    }

    LogCapture log;
    FakeProvider provider;
    FakeObject object{provider, ORMA_OBJECT_BY_ID, "object", &provider.volume.obj};
    kmp_obj* out = UNTOUCHED;
};

TEST_F(ObjectTest, ForwardsToTheLowerProvider) {
    expectForwarded("checkConfigId", 0, &RvpObject::checkConfigId);
    expectForwarded("getConfigId", 4, &RvpObject::getConfigId);
    expectForwarded("getNames", 5, &RvpObject::getNames);
    expectForwarded("getObjProp", 6, &RvpObject::getObjProp);
    expectForwarded("getObjStats", 7, &RvpObject::getObjStats);
    expectForwarded("getStreams", 8, &RvpObject::getStreams);
    expectForwarded("objCtl", 10, &RvpObject::objCtl);
    expectForwarded("readDir", 14, &RvpObject::readDir);
    expectForwarded("statFile", 15, &RvpObject::statFile);
    expectForwarded("statFs", 16, &RvpObject::statFs);
    expectCodes("close", [&] { return object.close(); });
    EXPECT_EQ(provider.given, &provider.volume.obj);
}

TEST_F(ObjectTest, OpeningWrapsTheLowerObject) {
    EXPECT_EQ(object.openFileIndex(INDEX, &out, NUMBER, nullptr, nullptr), KMP_ENOTSUP);
    log.clear();
    provider.functions.openId = FakeProvider::entry;
    provider.functions.openFileIndex = FakeProvider::entry;
    provider.functions.openStream = FakeProvider::entry;
    expectOpens("openId", &RvpObject::openId, ORMA_OBJECT_BY_ID, "prefix-file");
    expectOpens("openFileIndex", &RvpObject::openFileIndex, ORMA_OBJECT_FILE, "file");
    EXPECT_EQ(std::exchange(provider.given, nullptr), &provider.volume.obj);
    expectOpens("openStream", &RvpObject::openStream, ORMA_OBJECT_STREAM, "file");
    EXPECT_EQ(provider.given, &provider.volume.obj);
}

TEST_F(ObjectTest, StartsAndClosesAnIteration) {
    const auto start = [&] {
        void* handle = nullptr;
        const int code = object.iterateInit(argument<kmp_file*>(), NUMBER, 2 * NUMBER, &handle);
        EXPECT_EQ(handle == nullptr, code != 0);
        out = code == 0 ? static_cast<RvpObject*>(handle)->getObj() : nullptr;
        return code;
    };
    const auto iterator =
        expectWraps("iterateInit", start, provider.volume.obj, ORMA_OBJECT_ITERATOR, "volume");
    EXPECT_EQ(provider.given, &provider.volume.obj);
    expectCodes("closeIterator", [&] { return iterator->closeIterator(); });
    EXPECT_EQ(iterator->closeIterator(), 1);
    expectLines({resultLine("closeIterator", 1)});
    object.lower = nullptr;
    expectVerifyFailure("iterateInit", start);
}

TEST_F(ObjectTest, IteratesOverFilesWithTheirRecordsTranslated) {
    RvpLowerRecord subRecords[3] = {};
    auto& [record, pointers] = provider.file.record;
    const std::vector records = {&record, &subRecords[0], &subRecords[1], &subRecords[2]};
    std::copy(records.begin() + 1, records.end(), pointers);
    record.subRecordCount = 3;
    record.index = 0x1'0000'0005;
    object.iterator = ADDRESS;
    const auto iterate = [&] { return object.iterate(&out); };
    expectWraps("iterate", iterate, provider.file.obj, ORMA_OBJECT_FILE, "file");
    EXPECT_EQ(provider.given, nullptr) << "nothing was closed";

    const std::string failed =
        "iterate:RvpObject <ERROR> Failed to translate extents for index <4294967301>";
    for (const std::size_t failing : {3, 2, 1, 0}) {
        object.translated.clear();
        object.failing = records[failing];
        EXPECT_EQ(iterate(), 2048);
        EXPECT_EQ(object.translated.size(), failing + 1);
        EXPECT_EQ(std::exchange(provider.given, nullptr), &provider.file.obj) << "it is closed";
        EXPECT_EQ(std::exchange(out, UNTOUCHED), nullptr);
        expectLines({failed, resultLine("iterate", 2048)});
    }
    object.failure = KMP_ENOTALLOCATED;
    EXPECT_EQ(iterate(), KMP_ENOTALLOCATED);
    expectLines({failed});

    object.translated.clear();
    record.type = RvpLowerRecord::DIRECTORY; // its own record is left out
    object.factoryFails = true;
    expectVerifyFailure("iterate", iterate);
    EXPECT_EQ(object.translated.size(), 3U);
    provider.file.obj.record = nullptr;
    expectVerifyFailure("iterate", iterate);
}

TEST_F(ObjectTest, GivesItsIdBackUnlessItIsKept) {
    const std::size_t before = kmhost_objid_count();
    struct km_objid* id = nullptr;
    for (const bool keep : {false, true}) {
        FakeObject passing(provider, ORMA_OBJECT_FILE, "name", nullptr);
        id = passing.getObjId();
        id->flags = keep;
    }
    EXPECT_EQ(kmhost_objid_count(), before + 1);
    km_free_objid(id);
    EXPECT_THROW(FakeObject(provider, ORMA_OBJECT_FILE, nullptr, nullptr), OrmaError);
}

TEST_F(ObjectTest, FieldsAndSlotsHaveTheirPlaces) {
    EXPECT_EQ(std::memcmp(&object.signature, "OSIG", 4), 0);
    EXPECT_TRUE(lieInOrder(
        &RvpObject::create, &RvpObject::checkConfigId, &RvpObject::close, &RvpObject::getConfigId,
        &RvpObject::getNames, &RvpObject::getObjProp, &RvpObject::getObjStats, &RvpObject::objCtl,
        &RvpObject::openId, &RvpObject::openFileIndex, &RvpObject::openStream, &RvpObject::readDir,
        &RvpObject::statFile, &RvpObject::statFs, &RvpObject::getStreams, &RvpObject::getObjId,
        &RvpObject::getObjName, &RvpObject::getObj, &RvpObject::iterateInit, &RvpObject::iterate,
        &RvpObject::closeIterator, &RvpObject::translateExtents));
    EXPECT_TRUE(lieInOrder(&RvpInterface::closeObject, &RvpInterface::startIteration,
                           &RvpInterface::nextObject, &RvpInterface::closeIteration));

    EXPECT_EQ(object.obj.record, provider.volume.obj.record);
    EXPECT_EQ(object.obj.provider, static_cast<RvpObject*>(&object));
    EXPECT_STREQ(object.obj.name, "object");
    EXPECT_EQ(object.obj.displayName, object.obj.name);
    EXPECT_EQ(object.getObjId()->kind, KM_OBJID_PROVIDER);
    EXPECT_EQ(object.getObjId()->length, 7);
}

TEST(Interface, ClosesItsLibraryAndEmptiesItsTable) {
    alignas(FakeProvider) static unsigned char room[sizeof(FakeProvider)];
    auto* provider = new (room) FakeProvider;
    provider->functions.statFs = FakeProvider::entry;
    provider->library = new RvpLibrary{dlopen("libz.so.1", RTLD_LAZY)};
    const auto* table = reinterpret_cast<const volatile unsigned char*>(&provider->functions);
    std::destroy_at(provider);
    EXPECT_EQ(dlopen("libz.so.1", RTLD_LAZY | RTLD_NOLOAD), nullptr);
    EXPECT_EQ(std::count(table, table + sizeof(RvpFunctions), 0), long{sizeof(RvpFunctions)});
    FakeProvider withoutHandle;
    withoutHandle.library = new RvpLibrary{nullptr};
}

} // namespace
