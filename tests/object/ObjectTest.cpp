// Wrapping provider objects over a fake lower provider that lacks operations, fails and iterates.
#include "Error.h"
#include "RvpObject.h"
#include "kmhost.h"
#include "support/LogCapture.h"

#include <cstring>
#include <deque>
#include <dlfcn.h>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

const bool LOGGING = (km_debug_level = 1) != 0;

using Lines = std::vector<std::string>;

constexpr const char* LACKING = " <DEBUG> Returning: KMP_ENOTSUP";

// A lower record with room for the pointers to its sub-records.
struct Record {
    RvpLowerRecord head;
    RvpLowerRecord* subRecords[3];
};
static_assert(offsetof(Record, subRecords) == 648);

// An object of the lower provider, with its name and record.
class LowerObject {
  public:
    explicit LowerObject(const char* name, std::uint32_t type = KMP_FTYPE_REGULAR) {
        obj.id = km_objid(name, static_cast<int>(std::strlen(name) + 1), KM_OBJID_PROVIDER);
        obj.record = &record;
        record.head.type = type;
        record.head.index = 0x1'0000'0005;
    }
    ~LowerObject() { km_free_objid(obj.id); }
    LowerObject(const LowerObject&) = delete;
    LowerObject& operator=(const LowerObject&) = delete;

    kmp_obj obj = {};
    Record record = {};
};

// The lower provider: what it is to answer, and the calls that it got.
class FakeProvider : public RvpInterface {
  public:
    FakeProvider() { context = this; }

    int closeObject(kmp_obj* object) override {
        closed.push_back(object);
        return result;
    }
    int startIteration(kmp_obj* object, kmp_file* file, int first, int second,
                       void** handle) override {
        EXPECT_EQ(object, expectedLower);
        EXPECT_EQ(file, &fileStat);
        EXPECT_EQ(first, 11);
        EXPECT_EQ(second, 12);
        *handle = iteration;
        return result;
    }
    int nextObject(void* handle, kmp_obj** object) override {
        EXPECT_EQ(handle, iteration);
        *object = opened;
        return result;
    }
    int closeIteration(void* handle) override {
        EXPECT_EQ(handle, iteration);
        ++closedIterations;
        return result;
    }

    // Every operation of the table is there.
    void offerAll();

    int result = 0;
    kmp_obj* opened = nullptr;
    kmp_obj* expectedLower = nullptr;
    void* iteration = this;
    kmp_file fileStat = {};
    std::vector<kmp_obj*> closed;
    int closedIterations = 0;
    std::string called; // the last operation, and its arguments in order
};

// The address of an argument that is only handed through.
template <typename Type>
Type* token(std::uintptr_t value) {
    return reinterpret_cast<Type*>(value);
}

void append(std::string& /*text*/) {}
template <typename First, typename... Rest>
void append(std::string& text, First first, Rest... rest) {
    if constexpr (std::is_pointer_v<First>) {
        text += " " + std::to_string(reinterpret_cast<std::uintptr_t>(first));
    } else {
        text += " " + std::to_string(first);
    }
    append(text, rest...);
}

template <typename... Arguments>
int note(void* context, const char* operation, kmp_obj* object, Arguments... arguments) {
    auto& provider = *static_cast<FakeProvider*>(context);
    EXPECT_EQ(object, provider.expectedLower) << operation;
    provider.called = operation;
    append(provider.called, arguments...);
    return provider.result;
}

void FakeProvider::offerAll() {
    functions.checkConfigId = [](void* self, kmp_obj* object, int* answer) {
        return note(self, "checkConfigId", object, answer);
    };
    functions.getConfigId = [](void* self, kmp_obj* object, const kmp_configid* in,
                               kmp_configid* out, int* answer) {
        return note(self, "getConfigId", object, in, out, answer);
    };
    functions.getNames = [](void* self, kmp_obj* object, int which, kmp_name** names, int* count) {
        return note(self, "getNames", object, which, names, count);
    };
    functions.getObjProp = [](void* self, kmp_obj* object, kmp_obj_prop** properties) {
        return note(self, "getObjProp", object, properties);
    };
    functions.getObjStats = [](void* self, kmp_obj* object, kmp_stats* stats) {
        return note(self, "getObjStats", object, stats);
    };
    functions.getStreams = [](void* self, kmp_obj* object, kmp_name** streams, int* count) {
        return note(self, "getStreams", object, streams, count);
    };
    functions.objCtl = [](void* self, kmp_obj* object, int command, void* argument) {
        return note(self, "objCtl", object, command, argument);
    };
    functions.readDir = [](void* self, kmp_obj* object, kmp_io_req* request,
                           unsigned long* position) {
        return note(self, "readDir", object, request, position);
    };
    functions.statFile = [](void* self, kmp_obj* object, kmp_file* stat) {
        return note(self, "statFile", object, stat);
    };
    functions.statFs = [](void* self, kmp_obj* object, kmp_fs* stat) {
        return note(self, "statFs", object, stat);
    };
    functions.openId = [](void* self, const struct km_objid* id, const char* name, kmp_obj** object,
                          int flags, int* openFlags, const void* extra) {
        auto& provider = *static_cast<FakeProvider*>(self);
        *object = provider.opened;
        return note(self, "openId", provider.expectedLower, id, name, flags, openFlags, extra);
    };
    functions.openFileIndex = [](void* self, kmp_obj* object, unsigned long index, kmp_obj** file,
                                 int flags, int* openFlags, const void* extra) {
        *file = static_cast<FakeProvider*>(self)->opened;
        return note(self, "openFileIndex", object, index, flags, openFlags, extra);
    };
    functions.openStream = [](void* self, kmp_obj* object, const char* stream, kmp_obj** file,
                              int flags, int* openFlags, const void* extra) {
        *file = static_cast<FakeProvider*>(self)->opened;
        return note(self, "openStream", object, stream, flags, openFlags, extra);
    };
}

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
    ObjectTest() { provider.expectedLower = &volume.obj; }

    // The wrapping object behind a record that was answered; the test owns it.
    std::unique_ptr<FakeObject> owned(const kmp_obj* record) {
        return std::unique_ptr<FakeObject>(static_cast<FakeObject*>(
            record != nullptr ? static_cast<RvpObject*>(record->provider) : nullptr));
    }

    // The last lines say what `function` returned.
    void expectResultLine(const std::string& function, const char* line) {
        EXPECT_EQ(log.lines(), line[0] == '\0' ? Lines{} : Lines{function + ":RvpObject" + line});
        log.clear();
    }

    template <typename Call>
    void expectVerifyFailure(const Call& call, const char* function) {
        try {
            call();
            ADD_FAILURE() << "did not fail";
        } catch (const OrmaError& error) {
            EXPECT_EQ(error.m_code, KMP_EINVAL);
            EXPECT_STREQ(error.m_file, "plugin/common/map_v2/rvp/RvpObject");
            EXPECT_STREQ(error.m_function, function);
        }
        expectResultLine(function, " <ERROR> Exception: VERIFY_PTR");
    }

    LogCapture log;
    LowerObject volume{"volume"};
    LowerObject file{"file"};
    FakeProvider provider;
    FakeObject object{provider, ORMA_OBJECT_BY_ID, "object", &volume.obj};
    kmp_obj* const untouched = token<kmp_obj>(0x77);
};

struct Forwarded {
    const char* name;
    std::string arguments;
    std::function<int(RvpObject&)> call;
};

TEST_F(ObjectTest, ForwardsWithTheArgumentsInOrder) {
    const Forwarded operations[] = {
        {"checkConfigId", " 21", [](RvpObject& o) { return o.checkConfigId(token<int>(21)); }},
        {"getConfigId", " 21 22 23",
         [](RvpObject& o) {
             return o.getConfigId(token<kmp_configid>(21), token<kmp_configid>(22), token<int>(23));
         }},
        {"getNames", " -1 22 23",
         [](RvpObject& o) { return o.getNames(-1, token<kmp_name*>(22), token<int>(23)); }},
        {"getObjProp", " 21", [](RvpObject& o) { return o.getObjProp(token<kmp_obj_prop*>(21)); }},
        {"getObjStats", " 21", [](RvpObject& o) { return o.getObjStats(token<kmp_stats>(21)); }},
        {"getStreams", " 21 22",
         [](RvpObject& o) { return o.getStreams(token<kmp_name*>(21), token<int>(22)); }},
        {"objCtl", " 1000 22", [](RvpObject& o) { return o.objCtl(1000, token<void>(22)); }},
        {"readDir", " 21 22",
         [](RvpObject& o) { return o.readDir(token<kmp_io_req>(21), token<unsigned long>(22)); }},
        {"statFile", " 21", [](RvpObject& o) { return o.statFile(token<kmp_file>(21)); }},
        {"statFs", " 21", [](RvpObject& o) { return o.statFs(token<kmp_fs>(21)); }},
    };
    for (const Forwarded& operation : operations) {
        EXPECT_EQ(operation.call(object), KMP_ENOTSUP);
        expectResultLine(operation.name, LACKING);
    }
    provider.offerAll();
    for (const Forwarded& operation : operations) {
        for (const auto& [code, line] :
             std::map<int, const char*>{{0, ""},
                                        {4, LACKING},
                                        {2058, " <WARN> Returning: 2058"},
                                        {-1, " <WARN> Returning: -1"}}) {
            provider.result = code;
            EXPECT_EQ(operation.call(object), code);
            EXPECT_EQ(provider.called, operation.name + operation.arguments);
            expectResultLine(operation.name, line);
        }
    }
}

TEST_F(ObjectTest, CloseClosesTheLowerObject) {
    EXPECT_EQ(object.close(), 0);
    EXPECT_EQ(provider.closed, std::vector{&volume.obj});
    expectResultLine("close", "");
    provider.result = 13;
    EXPECT_EQ(object.close(), 13);
    expectResultLine("close", " <WARN> Returning: 13");
}

struct Opening {
    const char* name;
    std::string arguments;
    OrmaObjectType type;
    const char* newName;
    bool quietAboutUnusedFiles;
    std::function<int(RvpObject&, kmp_obj**)> call;
};

TEST_F(ObjectTest, OpeningWrapsTheLowerObject) {
    const Opening openings[] = {
        {"openId", " 21 22 23 24 25", ORMA_OBJECT_BY_ID, "pre-file", false,
         [](RvpObject& o, kmp_obj** out) {
             return o.openId(token<struct km_objid>(21), token<char>(22), out, 23, token<int>(24),
                             token<void>(25), "pre-");
         }},
        {"openFileIndex", " 21 23 24 25", ORMA_OBJECT_FILE, "file", true,
         [](RvpObject& o, kmp_obj** out) {
             return o.openFileIndex(21, out, 23, token<int>(24), token<void>(25));
         }},
        {"openStream", " 21 23 24 25", ORMA_OBJECT_STREAM, "file", false,
         [](RvpObject& o, kmp_obj** out) {
             return o.openStream(token<char>(21), out, 23, token<int>(24), token<void>(25));
         }},
    };
    for (const Opening& opening : openings) {
        SCOPED_TRACE(opening.name);
        kmp_obj* out = untouched;
        provider.functions = {};
        EXPECT_EQ(opening.call(object, &out), KMP_ENOTSUP);
        EXPECT_EQ(out, nullptr);
        expectResultLine(opening.name, LACKING);

        provider.offerAll();
        provider.opened = &file.obj;
        EXPECT_EQ(opening.call(object, &out), 0);
        EXPECT_EQ(provider.called, opening.name + opening.arguments);
        expectResultLine(opening.name, "");
        const auto wrapped = owned(out);
        ASSERT_NE(wrapped, nullptr);
        EXPECT_EQ(wrapped->objectType, opening.type);
        EXPECT_EQ(wrapped->lower, &file.obj);
        EXPECT_STREQ(wrapped->getObjName(), opening.newName);

        for (const int code : {4, 5, 2058, 2072}) {
            provider.result = code;
            out = untouched;
            EXPECT_EQ(opening.call(object, &out), code);
            EXPECT_EQ(out, nullptr);
            const bool quiet = code > 2000 && opening.quietAboutUnusedFiles;
            const std::string line = " <WARN> Returning: " + std::to_string(code);
            expectResultLine(opening.name, quiet ? "" : code == 4 ? LACKING : line.c_str());
        }

        provider.result = 0;
        out = untouched;
        object.factoryFails = true;
        expectVerifyFailure([&] { opening.call(object, &out); }, opening.name);
        object.factoryFails = false;
        provider.opened = nullptr;
        expectVerifyFailure([&] { opening.call(object, &out); }, opening.name);
        EXPECT_EQ(out, untouched);
        EXPECT_TRUE(provider.closed.empty());
    }
}

TEST_F(ObjectTest, IterateInitMakesAnIteratorObject) {
    const auto start = [this](void** handle) {
        return object.iterateInit(&provider.fileStat, 11, 12, handle);
    };
    void* handle = nullptr;
    EXPECT_EQ(start(&handle), 0);
    const std::unique_ptr<FakeObject> iterator(
        static_cast<FakeObject*>(static_cast<RvpObject*>(handle)));
    EXPECT_EQ(iterator->objectType, ORMA_OBJECT_ITERATOR);
    EXPECT_EQ(iterator->iterator, provider.iteration);
    EXPECT_EQ(iterator->lower, &volume.obj);
    EXPECT_STREQ(iterator->getObjName(), "volume");
    expectResultLine("iterateInit", "");

    for (const auto& [code, line] : {std::pair{4, LACKING}, {2072, " <WARN> Returning: 2072"}}) {
        provider.result = code;
        handle = untouched;
        EXPECT_EQ(start(&handle), code);
        EXPECT_EQ(handle, nullptr);
        expectResultLine("iterateInit", line);
    }
    provider.result = 0;
    object.factoryFails = true;
    expectVerifyFailure([&] { start(&handle); }, "iterateInit");
    provider.iteration = nullptr;
    expectVerifyFailure([&] { start(&handle); }, "iterateInit");

    provider.iteration = &provider;
    provider.expectedLower = nullptr;
    FakeObject alone(provider, ORMA_OBJECT_BY_ID, "alone", nullptr);
    expectVerifyFailure([&] { alone.iterateInit(&provider.fileStat, 11, 12, &handle); },
                        "iterateInit");
}

TEST_F(ObjectTest, ClosingAnIteration) {
    EXPECT_EQ(object.closeIterator(), 1);
    expectResultLine("closeIterator", " <WARN> Returning: 1");
    object.iterator = provider.iteration;
    provider.result = 5;
    EXPECT_EQ(object.closeIterator(), 5);
    expectResultLine("closeIterator", " <WARN> Returning: 5");
    provider.result = 0;
    EXPECT_EQ(object.closeIterator(), 0);
    expectResultLine("closeIterator", "");
    EXPECT_EQ(object.closeIterator(), 1);
    EXPECT_EQ(provider.closedIterations, 2);
}

class IterationTest : public ObjectTest {
  protected:
    IterationTest() {
        object.iterator = provider.iteration;
        provider.opened = &file.obj;
        file.record.head.subRecordCount = 3;
        for (int i = 0; i < 3; ++i) {
            file.record.subRecords[i] = &subRecords[i];
        }
    }

    RvpLowerRecord* const record = &file.record.head;
    RvpLowerRecord subRecords[3] = {};
    kmp_obj* out = untouched;
};

TEST_F(IterationTest, TranslatesTheRecordAndItsSubRecords) {
    EXPECT_EQ(object.iterate(&out), 0);
    EXPECT_EQ(object.translated,
              (std::vector{record, &subRecords[0], &subRecords[1], &subRecords[2]}));
    expectResultLine("iterate", "");
    const auto wrapped = owned(out);
    EXPECT_EQ(wrapped->objectType, ORMA_OBJECT_FILE);
    EXPECT_EQ(wrapped->lower, &file.obj);
    EXPECT_EQ(wrapped->getObj()->record, record);
    EXPECT_STREQ(wrapped->getObjName(), "file");

    // A directory's own record is left out.
    object.translated.clear();
    record->type = RvpLowerRecord::DIRECTORY;
    record->subRecordCount = 1;
    EXPECT_EQ(object.iterate(&out), 0);
    EXPECT_EQ(object.translated, std::vector{&subRecords[0]});
    owned(out);
}

TEST_F(IterationTest, StopsAtTheFirstFailedTranslation) {
    const std::string failed =
        "iterate:RvpObject <ERROR> Failed to translate extents for index <4294967301>";
    for (std::size_t failing = 0; failing < 3; ++failing) {
        object.translated.clear();
        provider.closed.clear();
        out = untouched;
        object.failures = {{failing == 0 ? record : &subRecords[failing - 1], 2048}};
        EXPECT_EQ(object.iterate(&out), 2048);
        EXPECT_EQ(object.translated.size(), failing + 1);
        EXPECT_EQ(provider.closed, std::vector{&file.obj});
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
        expectResultLine("iterate", line);
    }
    provider.result = 0;
    object.factoryFails = true;
    expectVerifyFailure([&] { object.iterate(&out); }, "iterate");
    file.obj.record = nullptr;
    expectVerifyFailure([&] { object.iterate(&out); }, "iterate");
    provider.opened = nullptr;
    expectVerifyFailure([&] { object.iterate(&out); }, "iterate");
    EXPECT_EQ(out, untouched);
    EXPECT_TRUE(object.translated.size() == 4 && provider.closed.empty());
}

TEST(ObjectIds, AreGivenBackUnlessTheyAreKept) {
    FakeProvider provider;
    const std::size_t before = kmhost_objid_count();
    {
        const FakeObject object(provider, ORMA_OBJECT_FILE, "freed", nullptr);
        EXPECT_EQ(kmhost_objid_count(), before + 1);
    }
    EXPECT_EQ(kmhost_objid_count(), before);
    struct km_objid* id = nullptr;
    {
        FakeObject object(provider, ORMA_OBJECT_FILE, "kept", nullptr);
        id = object.getObjId();
        id->flags |= 0x1;
    }
    EXPECT_EQ(kmhost_objid_count(), before + 1);
    km_free_objid(id);
    EXPECT_THROW(FakeObject(provider, ORMA_OBJECT_FILE, nullptr, nullptr), OrmaError);
}

template <typename Field>
std::ptrdiff_t offsetIn(const void* owner, const Field& field) {
    return reinterpret_cast<const char*>(std::addressof(field)) - static_cast<const char*>(owner);
}

TEST(ObjectLayout, Fields) {
    FakeProvider provider;
    const LowerObject lower("lower");
    FakeObject object(provider, ORMA_OBJECT_STREAM, "name", const_cast<kmp_obj*>(&lower.obj));
    const RvpObject* base = &object;
    EXPECT_EQ(offsetIn(base, object.signature), 8);
    EXPECT_EQ(std::memcmp(&object.signature, "OSIG", 4), 0);
    EXPECT_EQ(offsetIn(base, object.objectType), 12);
    RvpInterface* interface = nullptr;
    std::memcpy(&interface, reinterpret_cast<const char*>(base) + 16, sizeof interface);
    EXPECT_EQ(interface, &provider);
    EXPECT_EQ(offsetIn(base, object.obj), 24);
    EXPECT_EQ(offsetIn(base, object.lower), 160);
    EXPECT_EQ(offsetIn(base, object.iterator), 168);

    const RvpInterface* table = &provider;
    EXPECT_EQ(offsetIn(table, provider.library), 8);
    EXPECT_EQ(offsetIn(table, provider.context), 16);
    EXPECT_EQ(offsetIn(table, provider.reserved), 24);
    EXPECT_EQ(offsetIn(table, provider.functions), 40);

    kmp_obj expected = {};
    expected.record = lower.obj.record;
    expected.id = object.getObjId();
    expected.name = expected.displayName = expected.id->name;
    expected.provider = &object;
    EXPECT_EQ(std::memcmp(object.getObj(), &expected, sizeof expected), 0);
    EXPECT_EQ(expected.id->kind, KM_OBJID_PROVIDER);
    EXPECT_EQ(expected.id->length, 5);
}

// A pointer to a virtual operation holds 1 + 8 times its slot.
template <typename Operation>
std::ptrdiff_t slotOf(Operation operation) {
    std::ptrdiff_t offset;
    std::memcpy(&offset, &operation, sizeof offset);
    return (offset - 1) / 8;
}

// The two destructors come first.
TEST(ObjectLayout, Slots) {
    const std::ptrdiff_t slots[] = {
        slotOf(&RvpObject::create),        slotOf(&RvpObject::checkConfigId),
        slotOf(&RvpObject::close),         slotOf(&RvpObject::getConfigId),
        slotOf(&RvpObject::getNames),      slotOf(&RvpObject::getObjProp),
        slotOf(&RvpObject::getObjStats),   slotOf(&RvpObject::objCtl),
        slotOf(&RvpObject::openId),        slotOf(&RvpObject::openFileIndex),
        slotOf(&RvpObject::openStream),    slotOf(&RvpObject::readDir),
        slotOf(&RvpObject::statFile),      slotOf(&RvpObject::statFs),
        slotOf(&RvpObject::getStreams),    slotOf(&RvpObject::getObjId),
        slotOf(&RvpObject::getObjName),    slotOf(&RvpObject::getObj),
        slotOf(&RvpObject::iterateInit),   slotOf(&RvpObject::iterate),
        slotOf(&RvpObject::closeIterator), slotOf(&FakeObject::translateExtents),
    };
    std::ptrdiff_t expected = 2;
    for (const std::ptrdiff_t slot : slots) {
        EXPECT_EQ(slot, expected);
        ++expected;
    }
    EXPECT_EQ(slotOf(&RvpInterface::closeObject), 2);
    EXPECT_EQ(slotOf(&RvpInterface::startIteration), 3);
    EXPECT_EQ(slotOf(&RvpInterface::nextObject), 4);
    EXPECT_EQ(slotOf(&RvpInterface::closeIteration), 5);
}

TEST(ObjectLayout, FunctionTable) {
    const std::pair<std::size_t, std::size_t> entries[] = {
        {offsetof(RvpFunctions, checkConfigId), 0},  {offsetof(RvpFunctions, getConfigId), 4},
        {offsetof(RvpFunctions, getNames), 5},       {offsetof(RvpFunctions, getObjProp), 6},
        {offsetof(RvpFunctions, getObjStats), 7},    {offsetof(RvpFunctions, getStreams), 8},
        {offsetof(RvpFunctions, objCtl), 10},        {offsetof(RvpFunctions, openId), 11},
        {offsetof(RvpFunctions, openFileIndex), 12}, {offsetof(RvpFunctions, openStream), 13},
        {offsetof(RvpFunctions, readDir), 14},       {offsetof(RvpFunctions, statFile), 15},
        {offsetof(RvpFunctions, statFs), 16},
    };
    for (const auto& [offset, position] : entries) {
        EXPECT_EQ(offset, position * 8);
    }
}

// The holder and its handle are the interface's; the table is empty behind it.
TEST(Interface, ClosesItsLibrary) {
    alignas(FakeProvider) static unsigned char room[sizeof(FakeProvider)];
    auto* provider = new (room) FakeProvider;
    provider->offerAll();
    provider->library = new RvpLibrary{dlopen("libz.so.1", RTLD_LAZY)};
    const bool opened = provider->library->handle != nullptr;
    const RvpFunctions& table = provider->functions;
    std::destroy_at(provider);
    if (opened) {
        EXPECT_EQ(dlopen("libz.so.1", RTLD_LAZY | RTLD_NOLOAD), nullptr);
    }
    std::size_t filled = 0;
    for (std::size_t i = 0; i < sizeof table; ++i) {
        filled += reinterpret_cast<const volatile unsigned char*>(&table)[i] != 0;
    }
    EXPECT_EQ(filled, 0U);

    FakeProvider withoutHandle;
    withoutHandle.library = new RvpLibrary{nullptr};
}

} // namespace
