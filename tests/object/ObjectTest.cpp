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
#include <vector>

namespace {

using Lines = std::vector<std::string>;
using Words = std::vector<std::uintptr_t>; // the arguments of a call

// Any pointer, told by its number.
struct Pointer {
    template <typename Type>
    operator Type*() const {
        return reinterpret_cast<Type*>(number);
    }
    std::uintptr_t number;
};
const Pointer ONE{21}, TWO{22}, THREE{23};
kmp_obj* const UNTOUCHED = Pointer{0x77};
constexpr std::uintptr_t OPENED = 0; // in place of a caller's pointer to the opened object

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

// The lower provider: what it is to answer, and the arguments of the last call.
struct FakeProvider : RvpInterface {
    FakeProvider() { context = this; }

    int closeObject(kmp_obj* object) override { return entry(this, object); }
    int startIteration(kmp_obj* object, kmp_file* stat, int first, int second,
                       void** handle) override {
        *handle = iteration;
        return entry(this, object, stat, first, second);
    }
    int nextObject(void* handle, kmp_obj** object) override { return entry(this, handle, object); }
    int closeIteration(void* handle) override { return entry(this, handle); }
    // Every entry of the table.
    template <typename... Arguments>
    static int entry(void* self, Arguments... arguments) {
        auto& provider = *static_cast<FakeProvider*>(self);
        provider.words = {provider.wordOf(arguments)...};
        return provider.result;
    }
    static std::uintptr_t wordOf(std::uintptr_t number) { return number; }
    static std::uintptr_t wordOf(Pointer pointer) { return pointer.number; }
    static std::uintptr_t wordOf(const void* address) {
        return reinterpret_cast<std::uintptr_t>(address);
    }
    std::uintptr_t wordOf(kmp_obj** object) {
        *object = opened;
        return OPENED;
    }

    int result = 0;
    LowerObject volume{"volume"};
    LowerObject file{"file"};
    kmp_obj* opened = &file.obj;
    void* iteration = Pointer{99};
    Words words;
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

    void expectVerifyFailure(const std::string& name, const Call& call) {
        EXPECT_THROW(call(), OrmaError);
        expectLines({name + ":RvpObject <ERROR> Exception: VERIFY_PTR"});
    }

    // The lower provider's codes are handed on, and logged but for 0 and those of unused files.
    void expectCodes(const std::string& name, const Call& call) {
        const bool isOfFiles = name == "openFileIndex" || name == "iterate";
        for (const int code : {4, 1, 2058, 2072, 0}) {
            provider.result = code;
            EXPECT_EQ(call(), code) << name;
            const bool isLogged = code != 0 && (code < 2000 || !isOfFiles);
            expectLines(isLogged ? Lines{resultLine(name, code)} : Lines());
        }
    }

    static std::string resultLine(const std::string& name, int code) {
        return name + ":RvpObject " +
               (code == 4 ? "<DEBUG> Returning: KMP_ENOTSUP"
                          : "<WARN> Returning: " + std::to_string(code));
    }

    // Entries have fixed places in the table.
    template <typename... Types, typename... Arguments>
    void expectForwarded(const std::string& name, std::size_t place,
                         int (RvpObject::*operation)(Types...), Arguments... arguments) {
        const auto call = [&] { return (object.*operation)(arguments...); };
        EXPECT_EQ(call(), KMP_ENOTSUP);
        expectLines({resultLine(name, KMP_ENOTSUP)});
        int (*const entry)(void*, kmp_obj*, Types...) = FakeProvider::entry;
        std::memcpy(reinterpret_cast<char*>(&provider.functions) + 8 * place, &entry, 8);
        expectCodes(name, call);
        EXPECT_EQ(provider.words, (Words{volume, provider.wordOf(arguments)...})) << name;
    }

    // Takes over the wrapping object that was answered.
    static std::unique_ptr<FakeObject> expectWrapped(void* answer, OrmaObjectType type,
                                                     const char* name, kmp_obj* lower) {
        auto* wrapped = static_cast<FakeObject*>(static_cast<RvpObject*>(answer));
        EXPECT_EQ(wrapped->objectType, type);
        EXPECT_STREQ(wrapped->getObjName(), name);
        EXPECT_EQ(wrapped->lower, lower);
        return std::unique_ptr<FakeObject>(wrapped);
    }

    // What was opened is wrapped; failures leave null, unless they are the wrapping's.
    void expectOpens(const std::string& name, const Call& call, const Words& words,
                     OrmaObjectType type, const char* newName) {
        const auto open = [&] {
            out = UNTOUCHED;
            const int code = call();
            EXPECT_EQ(out == nullptr, code != 0);
            return code;
        };
        expectCodes(name, open);
        EXPECT_EQ(provider.words, words);
        expectWrapped(out->provider, type, newName, &provider.file.obj);
        object.factoryFails = true;
        expectVerifyFailure(name, open);
        provider.opened = nullptr;
        expectVerifyFailure(name, open);
        EXPECT_EQ(out, UNTOUCHED);
        object.factoryFails = false;
        provider.opened = &provider.file.obj;
    }

    LogCapture log;
    FakeProvider provider;
    FakeObject object{provider, ORMA_OBJECT_BY_ID, "object", &provider.volume.obj};
    const std::uintptr_t volume = provider.wordOf(&provider.volume.obj);
    kmp_obj* out = UNTOUCHED;
};

TEST_F(ObjectTest, ForwardsWithTheArgumentsInOrder) {
    expectForwarded("checkConfigId", 0, &RvpObject::checkConfigId, ONE);
    expectForwarded("getConfigId", 4, &RvpObject::getConfigId, ONE, TWO, THREE);
    expectForwarded("getNames", 5, &RvpObject::getNames, 20, ONE, TWO);
    expectForwarded("getObjProp", 6, &RvpObject::getObjProp, ONE);
    expectForwarded("getObjStats", 7, &RvpObject::getObjStats, ONE);
    expectForwarded("getStreams", 8, &RvpObject::getStreams, ONE, TWO);
    expectForwarded("objCtl", 10, &RvpObject::objCtl, 20, ONE);
    expectForwarded("readDir", 14, &RvpObject::readDir, ONE, TWO);
    expectForwarded("statFile", 15, &RvpObject::statFile, ONE);
    expectForwarded("statFs", 16, &RvpObject::statFs, ONE);
    expectCodes("close", [&] { return object.close(); });
    EXPECT_EQ(provider.words, Words{volume});
}

TEST_F(ObjectTest, OpeningWrapsTheLowerObject) {
    EXPECT_EQ(object.openStream(ONE, &out, 20, ONE, TWO), KMP_ENOTSUP);
    log.clear();
    provider.functions.openId = FakeProvider::entry;
    provider.functions.openFileIndex = FakeProvider::entry;
    provider.functions.openStream = FakeProvider::entry;
    expectOpens(
        "openId", [&] { return object.openId(ONE, TWO, &out, 20, THREE, nullptr, "prefix-"); },
        {21, 22, OPENED, 20, 23, 0}, ORMA_OBJECT_BY_ID, "prefix-file");
    expectOpens(
        "openFileIndex", [&] { return object.openFileIndex(19, &out, 20, ONE, TWO); },
        {volume, 19, OPENED, 20, 21, 22}, ORMA_OBJECT_FILE, "file");
    expectOpens(
        "openStream", [&] { return object.openStream(THREE, &out, 20, ONE, TWO); },
        {volume, 23, OPENED, 20, 21, 22}, ORMA_OBJECT_STREAM, "file");
}

TEST_F(ObjectTest, StartsAndClosesAnIteration) {
    void* handle = nullptr;
    const auto start = [&] {
        const int code = object.iterateInit(ONE, 11, 12, &handle);
        EXPECT_EQ(handle == nullptr, code != 0);
        return code;
    };
    expectCodes("iterateInit", start);
    EXPECT_EQ(provider.words, (Words{volume, 21, 11, 12}));
    const auto iterator =
        expectWrapped(handle, ORMA_OBJECT_ITERATOR, "volume", &provider.volume.obj);
    expectCodes("closeIterator", [&] { return iterator->closeIterator(); });
    EXPECT_EQ(provider.words, Words{99});
    EXPECT_EQ(iterator->closeIterator(), 1);
    expectLines({resultLine("closeIterator", 1)});

    object.factoryFails = true;
    expectVerifyFailure("iterateInit", start);
    object.factoryFails = false;
    object.lower = nullptr;
    expectVerifyFailure("iterateInit", start);
    provider.iteration = nullptr;
    expectVerifyFailure("iterateInit", start);
}

TEST_F(ObjectTest, IteratesOverFilesWithTheirRecordsTranslated) {
    RvpLowerRecord subRecords[3] = {};
    auto& [record, pointers] = provider.file.record;
    const std::vector records = {&record, &subRecords[0], &subRecords[1], &subRecords[2]};
    std::copy(records.begin() + 1, records.end(), pointers);
    record.subRecordCount = 3;
    record.index = 0x1'0000'0005;
    object.iterator = provider.iteration;
    const auto iterate = [&] { return object.iterate(&out); };
    expectCodes("iterate", iterate);
    EXPECT_EQ(provider.words, (Words{99, OPENED}));
    EXPECT_EQ(object.translated, records);
    expectWrapped(out->provider, ORMA_OBJECT_FILE, "file", &provider.file.obj);

    const std::string failed =
        "iterate:RvpObject <ERROR> Failed to translate extents for index <4294967301>";
    for (const std::size_t failing : {3, 2, 1, 0}) {
        object.translated.clear();
        object.failing = records[failing];
        EXPECT_EQ(iterate(), 2048);
        EXPECT_EQ(object.translated.size(), failing + 1);
        EXPECT_EQ(provider.words, Words{provider.wordOf(&provider.file.obj)}) << "it is closed";
        EXPECT_EQ(std::exchange(out, UNTOUCHED), nullptr);
        expectLines({failed, resultLine("iterate", 2048)});
    }
    object.failure = KMP_ENOTALLOCATED;
    EXPECT_EQ(iterate(), KMP_ENOTALLOCATED);
    expectLines({failed});

    record.type = RvpLowerRecord::DIRECTORY; // its own record is left out
    object.factoryFails = true;
    expectVerifyFailure("iterate", iterate);
    provider.file.obj.record = nullptr;
    expectVerifyFailure("iterate", iterate);
    provider.opened = nullptr;
    expectVerifyFailure("iterate", iterate);
    EXPECT_EQ(provider.words, (Words{99, OPENED})) << "nothing is closed";
}

TEST_F(ObjectTest, GivesItsIdBackUnlessItIsKept) {
    const std::size_t before = kmhost_objid_count();
    struct km_objid* id = nullptr;
    for (const std::uint8_t flags : {0, 1}) {
        FakeObject passing(provider, ORMA_OBJECT_FILE, "name", nullptr);
        id = passing.getObjId();
        id->flags = flags;
    }
    EXPECT_EQ(kmhost_objid_count(), before + 1);
    km_free_objid(id);
    EXPECT_THROW(FakeObject(provider, ORMA_OBJECT_FILE, nullptr, nullptr), OrmaError);
}

TEST_F(ObjectTest, FieldsAndSlotsHaveTheirPlaces) {
    using Offsets = std::vector<std::ptrdiff_t>;
    const RvpObject* base = &object;
    EXPECT_EQ(std::memcmp(&object.signature, "OSIG", 4), 0);
    EXPECT_EQ(offsetsIn(base, object.signature, object.objectType, object.obj, object.lower,
                        object.iterator),
              (Offsets{8, 12, 24, 160, 168})); // the interface fills the gap
    const RvpInterface* table = &provider;
    const RvpFunctions& entries = provider.functions;
    EXPECT_EQ(offsetsIn(table, provider.library, provider.context, entries, entries.openId,
                        entries.openFileIndex, entries.openStream),
              (Offsets{8, 16, 40, 128, 136, 144}));
    EXPECT_TRUE(lieInOrder(
        &RvpObject::create, &RvpObject::checkConfigId, &RvpObject::close, &RvpObject::getConfigId,
        &RvpObject::getNames, &RvpObject::getObjProp, &RvpObject::getObjStats, &RvpObject::objCtl,
        &RvpObject::openId, &RvpObject::openFileIndex, &RvpObject::openStream, &RvpObject::readDir,
        &RvpObject::statFile, &RvpObject::statFs, &RvpObject::getStreams, &RvpObject::getObjId,
        &RvpObject::getObjName, &RvpObject::getObj, &RvpObject::iterateInit, &RvpObject::iterate,
        &RvpObject::closeIterator, &RvpObject::translateExtents));
    EXPECT_TRUE(lieInOrder(&RvpInterface::closeObject, &RvpInterface::startIteration,
                           &RvpInterface::nextObject, &RvpInterface::closeIteration));

    kmp_obj expected = {};
    expected.record = provider.volume.obj.record;
    expected.id = object.getObjId();
    expected.name = expected.displayName = expected.id->name;
    expected.provider = &object;
    EXPECT_EQ(std::memcmp(object.getObj(), &expected, sizeof expected), 0);
    EXPECT_EQ(expected.id->kind, KM_OBJID_PROVIDER);
    EXPECT_EQ(expected.id->length, 7);
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
