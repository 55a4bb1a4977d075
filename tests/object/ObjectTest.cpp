// Wrapping provider objects over a fake lower provider that lacks operations, fails and iterates.
#include "Error.h"
#include "RvpObject.h"
#include "kmhost.h"
#include "support/Layout.h"
#include "support/LogCapture.h"

#include <cstring>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

constexpr const char* LACKING = " <DEBUG> Returning: KMP_ENOTSUP";
constexpr const char* WORDS[] = {"zero-", "one-", "two-", "three-", "four-", "five-", "six-"};

// An object of the lower provider, with its name and its record of up to three sub-records.
struct LowerObject {
    explicit LowerObject(const char* name) {
        obj.id = km_objid(name, static_cast<int>(std::strlen(name) + 1), KM_OBJID_PROVIDER);
        obj.record = &record;
        record.head.type = KMP_FTYPE_REGULAR;
        record.head.index = 0x1'0000'0005;
    }
    ~LowerObject() { km_free_objid(obj.id); }
    LowerObject(const LowerObject&) = delete;
    LowerObject& operator=(const LowerObject&) = delete;

    kmp_obj obj = {};
    struct {
        RvpLowerRecord head;
        RvpLowerRecord* subRecords[3];
    } record = {};
};

// The lower provider: what it is to answer, and the calls that it got.
class FakeProvider : public RvpInterface {
  public:
    FakeProvider() { context = this; }

    int closeObject(kmp_obj* object) override { return noted({"closeObject", textOf(object)}); }
    int startIteration(kmp_obj* object, kmp_file* stat, int first, int second,
                       void** handle) override {
        *handle = iteration;
        return noted(
            {"startIteration", textOf(object), textOf(stat), textOf(first), textOf(second)});
    }
    int nextObject(void* handle, kmp_obj** object) override {
        return noted({"nextObject", textOf(handle), textOf(object)});
    }
    int closeIteration(void* handle) override { return noted({"closeIteration", textOf(handle)}); }

    // An entry at the place in the table where lower providers have it.
    template <int Place, typename... Arguments>
    void offer(int (*RvpFunctions::* /*type*/)(void*, Arguments...)) {
        int (*const entry)(void*, Arguments...) = [](void* self, Arguments... arguments) {
            auto& provider = *static_cast<FakeProvider*>(self);
            return provider.noted({std::to_string(Place), provider.textOf(arguments)...});
        };
        std::memcpy(reinterpret_cast<char*>(&functions) + std::size_t{8} * Place, &entry, 8);
    }
    void offerAll() {
        offer<0>(&RvpFunctions::checkConfigId);
        offer<4>(&RvpFunctions::getConfigId);
        offer<5>(&RvpFunctions::getNames);
        offer<6>(&RvpFunctions::getObjProp);
        offer<7>(&RvpFunctions::getObjStats);
        offer<8>(&RvpFunctions::getStreams);
        offer<10>(&RvpFunctions::objCtl);
        offer<11>(&RvpFunctions::openId);
        offer<12>(&RvpFunctions::openFileIndex);
        offer<13>(&RvpFunctions::openStream);
        offer<14>(&RvpFunctions::readDir);
        offer<15>(&RvpFunctions::statFile);
        offer<16>(&RvpFunctions::statFs);
    }

    int result = 0;
    LowerObject volume{"volume"};
    LowerObject file{"file"};
    kmp_obj* opened = &file.obj;
    void* iteration = reinterpret_cast<void*>(99);
    Lines calls; // with their arguments in order

  private:
    int noted(const Lines& words) {
        std::string& call = calls.emplace_back();
        for (const std::string& word : words) {
            call += (call.empty() ? "" : " ") + word;
        }
        return result;
    }
    template <typename Type>
    std::string textOf(Type argument) {
        if constexpr (std::is_same_v<Type, kmp_obj*>) {
            return argument == &volume.obj ? "volume" : argument == &file.obj ? "file" : "?";
        } else if constexpr (std::is_same_v<Type, kmp_obj**>) {
            *argument = opened;
            return "out";
        } else if constexpr (std::is_same_v<Type, const char*>) {
            return argument;
        } else if constexpr (std::is_pointer_v<Type>) {
            return std::to_string(reinterpret_cast<std::uintptr_t>(argument));
        } else {
            return std::to_string(argument);
        }
    }
};

// A provider object whose factory can fail, and whose translation of some records fails.
class FakeObject : public RvpObject {
  public:
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
        return failures.contains(record) ? failures[record] : 0;
    }

    bool factoryFails = false;
    std::vector<RvpLowerRecord*> translated;
    std::map<RvpLowerRecord*, int> failures;
};

class ObjectTest : public testing::Test {
  protected:
    // Calls an operation with arguments that tell their place.
    template <typename... Types>
    int call(int (RvpObject::*operation)(Types...)) {
        places = 0;
        const auto arguments = std::tuple<Types...>{argument<Types>()...};
        return std::apply(
            [&](auto... each) { return (static_cast<RvpObject&>(object).*operation)(each...); },
            arguments);
    }
    template <typename Type>
    Type argument() {
        const int place = places++;
        if constexpr (std::is_same_v<Type, const char*>) {
            return WORDS[place];
        } else if constexpr (std::is_same_v<Type, kmp_obj**>) {
            return &out;
        } else if constexpr (std::is_pointer_v<Type>) {
            return reinterpret_cast<Type>(std::uintptr_t{20} + static_cast<unsigned>(place));
        } else {
            return static_cast<Type>(20 + place);
        }
    }

    // Takes over the wrapping object that was answered.
    static std::unique_ptr<FakeObject> expectWrapped(void* answer, OrmaObjectType type,
                                                     const char* name, kmp_obj* lower) {
        auto* wrapped = static_cast<FakeObject*>(static_cast<RvpObject*>(answer));
        EXPECT_EQ(wrapped->objectType, type);
        EXPECT_STREQ(wrapped->getObjName(), name);
        EXPECT_EQ(wrapped->lower, lower);
        EXPECT_EQ(wrapped->getObj()->record, lower->record);
        return std::unique_ptr<FakeObject>(wrapped);
    }

    // What was logged since the last look: one line of `function`, or none.
    void expectLine(const std::string& function, const std::string& line) {
        EXPECT_EQ(log.lines(), line.empty() ? Lines{} : Lines{function + ":RvpObject" + line});
        log.clear();
    }

    template <typename Call>
    void expectVerifyFailure(const Call& failing, const char* function) {
        EXPECT_THROW(failing(), OrmaError);
        expectLine(function, " <ERROR> Exception: VERIFY_PTR");
    }

    template <typename Operation>
    void expectForwarded(const char* name, const char* lowerCall, Operation operation) {
        for (const auto& [code, line] :
             {std::pair{0, ""}, {4, LACKING}, {2058, " <WARN> Returning: 2058"}}) {
            provider.result = code;
            EXPECT_EQ(call(operation), code);
            EXPECT_EQ(provider.calls.back(), lowerCall);
            expectLine(name, line);
        }
        if (std::string(name) != "close") {
            provider.functions = {};
            EXPECT_EQ(call(operation), KMP_ENOTSUP);
            expectLine(name, LACKING);
            provider.offerAll();
        }
    }

    template <typename Operation>
    void expectOpens(const char* name, const char* lowerCall, OrmaObjectType type,
                     const char* newName, Operation operation) {
        const auto open = [&] { return call(operation); };
        EXPECT_EQ(open(), KMP_ENOTSUP);
        EXPECT_EQ(out, nullptr);
        expectLine(name, LACKING);

        provider.offerAll();
        EXPECT_EQ(open(), 0);
        EXPECT_EQ(provider.calls.back(), lowerCall);
        expectLine(name, "");
        expectWrapped(out->provider, type, newName, &provider.file.obj);

        for (const int code : {4, 5, 2058, 2072}) {
            provider.result = code;
            out = untouched;
            EXPECT_EQ(open(), code);
            EXPECT_EQ(out, nullptr);
            const bool isUnusedFile = code > 2000 && type == ORMA_OBJECT_FILE;
            const std::string line = " <WARN> Returning: " + std::to_string(code);
            expectLine(name, isUnusedFile ? "" : code == 4 ? LACKING : line);
        }

        provider.result = 0;
        out = untouched;
        object.factoryFails = true;
        expectVerifyFailure(open, name);
        object.factoryFails = false;
        provider.opened = nullptr;
        expectVerifyFailure(open, name);
        EXPECT_EQ(out, untouched);
        provider.opened = &provider.file.obj;
        provider.functions = {};
    }

    LogCapture log;
    FakeProvider provider;
    FakeObject object{provider, ORMA_OBJECT_BY_ID, "object", &provider.volume.obj};
    kmp_obj* const untouched = reinterpret_cast<kmp_obj*>(0x77);
    kmp_obj* out = untouched;
    int places = 0; // of arguments given
};

TEST_F(ObjectTest, ForwardsWithTheArgumentsInOrder) {
    provider.offerAll();
    expectForwarded("checkConfigId", "0 volume 20", &RvpObject::checkConfigId);
    expectForwarded("getConfigId", "4 volume 20 21 22", &RvpObject::getConfigId);
    expectForwarded("getNames", "5 volume 20 21 22", &RvpObject::getNames);
    expectForwarded("getObjProp", "6 volume 20", &RvpObject::getObjProp);
    expectForwarded("getObjStats", "7 volume 20", &RvpObject::getObjStats);
    expectForwarded("getStreams", "8 volume 20 21", &RvpObject::getStreams);
    expectForwarded("objCtl", "10 volume 20 21", &RvpObject::objCtl);
    expectForwarded("readDir", "14 volume 20 21", &RvpObject::readDir);
    expectForwarded("statFile", "15 volume 20", &RvpObject::statFile);
    expectForwarded("statFs", "16 volume 20", &RvpObject::statFs);
    expectForwarded("close", "closeObject volume", &RvpObject::close);
}

TEST_F(ObjectTest, OpeningWrapsTheLowerObject) {
    expectOpens("openId", "11 20 one- out 23 24 25", ORMA_OBJECT_BY_ID, "six-file",
                &RvpObject::openId);
    expectOpens("openFileIndex", "12 volume 20 out 22 23 24", ORMA_OBJECT_FILE, "file",
                &RvpObject::openFileIndex);
    expectOpens("openStream", "13 volume zero- out 22 23 24", ORMA_OBJECT_STREAM, "file",
                &RvpObject::openStream);
}

TEST_F(ObjectTest, StartingAndClosingAnIteration) {
    void* handle = nullptr;
    const auto start = [&] {
        return object.iterateInit(reinterpret_cast<kmp_file*>(21), 11, 12, &handle);
    };
    EXPECT_EQ(start(), 0);
    EXPECT_EQ(provider.calls.back(), "startIteration volume 21 11 12");
    expectLine("iterateInit", "");
    const auto iterator =
        expectWrapped(handle, ORMA_OBJECT_ITERATOR, "volume", &provider.volume.obj);
    EXPECT_EQ(iterator->iterator, provider.iteration);

    for (const auto& [code, line] : {std::pair{4, LACKING}, {2072, " <WARN> Returning: 2072"}}) {
        provider.result = code;
        handle = untouched;
        EXPECT_EQ(start(), code);
        EXPECT_EQ(handle, nullptr);
        expectLine("iterateInit", line);
    }
    for (const auto& [code, result, line] :
         {std::tuple{5, 5, " <WARN> Returning: 5"}, {0, 0, ""}, {0, 1, " <WARN> Returning: 1"}}) {
        provider.result = code;
        EXPECT_EQ(iterator->closeIterator(), result);
        EXPECT_EQ(provider.calls.back(), "closeIteration 99");
        expectLine("closeIterator", line);
    }

    object.factoryFails = true;
    expectVerifyFailure(start, "iterateInit");
    object.factoryFails = false;
    object.lower = nullptr;
    expectVerifyFailure(start, "iterateInit");
    object.lower = &provider.volume.obj;
    provider.iteration = nullptr;
    expectVerifyFailure(start, "iterateInit");
}

class IterationTest : public ObjectTest {
  protected:
    IterationTest() {
        object.iterator = provider.iteration;
        record->subRecordCount = 3;
        for (int i = 0; i < 3; ++i) {
            provider.file.record.subRecords[i] = &subRecords[i];
        }
    }

    RvpLowerRecord subRecords[3] = {};
    RvpLowerRecord* const record = &provider.file.record.head;
    const std::vector<RvpLowerRecord*> records{record, &subRecords[0], &subRecords[1],
                                               &subRecords[2]};
};

TEST_F(IterationTest, TranslatesTheRecordAndItsSubRecords) {
    EXPECT_EQ(object.iterate(&out), 0);
    EXPECT_EQ(provider.calls, Lines{"nextObject 99 out"});
    EXPECT_EQ(object.translated, records);
    expectLine("iterate", "");
    expectWrapped(out->provider, ORMA_OBJECT_FILE, "file", &provider.file.obj);

    // A directory's own record is left out.
    object.translated.clear();
    record->type = RvpLowerRecord::DIRECTORY;
    record->subRecordCount = 1;
    EXPECT_EQ(object.iterate(&out), 0);
    EXPECT_EQ(object.translated, std::vector{&subRecords[0]});
    expectWrapped(out->provider, ORMA_OBJECT_FILE, "file", &provider.file.obj);
}

TEST_F(IterationTest, StopsAtTheFirstFailedTranslation) {
    const std::string failed =
        "iterate:RvpObject <ERROR> Failed to translate extents for index <4294967301>";
    for (std::size_t failing = 0; failing < 4; ++failing) {
        object.translated.clear();
        out = untouched;
        object.failures = {{records[failing], 2048}};
        EXPECT_EQ(object.iterate(&out), 2048);
        EXPECT_EQ(object.translated.size(), failing + 1);
        EXPECT_EQ(provider.calls.back(), "closeObject file");
        EXPECT_EQ(out, nullptr);
        EXPECT_EQ(log.lines(), (Lines{failed, "iterate:RvpObject <WARN> Returning: 2048"}));
        log.clear();
    }
    object.failures = {{record, KMP_ENOTALLOCATED}};
    EXPECT_EQ(object.iterate(&out), KMP_ENOTALLOCATED);
    EXPECT_EQ(log.lines(), Lines{failed});
}

TEST_F(IterationTest, FailuresOfTheLowerProvider) {
    for (const auto& [code, line] : std::map<int, const char*>{
             {4, LACKING}, {1, " <WARN> Returning: 1"}, {2058, ""}, {2072, ""}}) {
        provider.result = code;
        EXPECT_EQ(object.iterate(&out), code);
        expectLine("iterate", line);
    }
    provider.result = 0;
    object.factoryFails = true;
    const auto iterate = [this] { object.iterate(&out); };
    expectVerifyFailure(iterate, "iterate");
    provider.file.obj.record = nullptr;
    expectVerifyFailure(iterate, "iterate");
    provider.opened = nullptr;
    expectVerifyFailure(iterate, "iterate");
    EXPECT_EQ(out, untouched);
    EXPECT_EQ(provider.calls.back(), "nextObject 99 out"); // nothing is closed
}

TEST(ObjectIds, AreGivenBackUnlessTheyAreKept) {
    FakeProvider provider;
    const std::size_t before = kmhost_objid_count();
    struct km_objid* kept = nullptr;
    for (const bool keep : {false, true}) {
        {
            FakeObject object(provider, ORMA_OBJECT_FILE, "name", nullptr);
            EXPECT_EQ(kmhost_objid_count(), before + 1);
            kept = object.getObjId();
            kept->flags |= keep ? 0x1 : 0;
        }
        EXPECT_EQ(kmhost_objid_count(), before + (keep ? 1 : 0));
    }
    km_free_objid(kept);
    EXPECT_THROW(FakeObject(provider, ORMA_OBJECT_FILE, nullptr, nullptr), OrmaError);
}

TEST(ObjectLayout, Fields) {
    FakeProvider provider;
    FakeObject object(provider, ORMA_OBJECT_STREAM, "name", &provider.volume.obj);
    const RvpObject* base = &object;
    EXPECT_EQ(std::memcmp(&object.signature, "OSIG", 4), 0);
    EXPECT_EQ(&object.interface, &provider);
    EXPECT_EQ(offsetsIn(base, object.signature, object.objectType, object.obj, object.lower,
                        object.iterator),
              (std::vector<std::ptrdiff_t>{8, 12, 24, 160, 168})); // the interface fills the gap
    const RvpInterface* table = &provider;
    EXPECT_EQ(offsetsIn(table, provider.library, provider.context, provider.functions),
              (std::vector<std::ptrdiff_t>{8, 16, 40}));

    kmp_obj expected = {};
    expected.record = provider.volume.obj.record;
    expected.id = object.getObjId();
    expected.name = expected.displayName = expected.id->name;
    expected.provider = &object;
    EXPECT_EQ(std::memcmp(object.getObj(), &expected, sizeof expected), 0);
    EXPECT_EQ(expected.id->kind, KM_OBJID_PROVIDER);
    EXPECT_EQ(expected.id->length, 5);
}

TEST(ObjectLayout, Slots) {
    EXPECT_TRUE(lieInOrder(
        &RvpObject::create, &RvpObject::checkConfigId, &RvpObject::close, &RvpObject::getConfigId,
        &RvpObject::getNames, &RvpObject::getObjProp, &RvpObject::getObjStats, &RvpObject::objCtl,
        &RvpObject::openId, &RvpObject::openFileIndex, &RvpObject::openStream, &RvpObject::readDir,
        &RvpObject::statFile, &RvpObject::statFs, &RvpObject::getStreams, &RvpObject::getObjId,
        &RvpObject::getObjName, &RvpObject::getObj, &RvpObject::iterateInit, &RvpObject::iterate,
        &RvpObject::closeIterator, &RvpObject::translateExtents));
    EXPECT_TRUE(lieInOrder(&RvpInterface::closeObject, &RvpInterface::startIteration,
                           &RvpInterface::nextObject, &RvpInterface::closeIteration));
}

// The holder and its handle are the interface's; the table is empty behind it.
TEST(Interface, ClosesItsLibrary) {
    alignas(FakeProvider) static unsigned char room[sizeof(FakeProvider)];
    auto* provider = new (room) FakeProvider;
    provider->offerAll();
    provider->library = new RvpLibrary{dlopen("libz.so.1", RTLD_LAZY)};
    const bool opened = provider->library->handle != nullptr;
    const auto* table = reinterpret_cast<const volatile unsigned char*>(&provider->functions);
    std::destroy_at(provider);
    if (opened) {
        EXPECT_EQ(dlopen("libz.so.1", RTLD_LAZY | RTLD_NOLOAD), nullptr);
    }
    for (std::size_t i = 0; i < sizeof(RvpFunctions); ++i) {
        EXPECT_EQ(table[i], 0) << i;
    }
    FakeProvider withoutHandle;
    withoutHandle.library = new RvpLibrary{nullptr};
}

} // namespace
