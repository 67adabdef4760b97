#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <thread>
#include <vector>

#include "plugin/exported_objects.h"
#include "qv/serv_plugin.h"
#include "qv/status.h"

namespace {

// A plug-in object that counts its live instances.
template <int Tag>
class CountedPlugin : public IServPlugin {
public:
    static inline std::atomic<int> live{0};
    CountedPlugin() { ++live; }
    virtual ~CountedPlugin() { --live; }
    void* QueryInterface(const GUID& requested) override {
        if (qv::GuidEquals(requested, IQvBaseInterface::iid) || qv::GuidEquals(requested, IServPlugin::iid))
            return static_cast<IServPlugin*>(this);
        return nullptr;
    }
    int32_t Init(IServMain*) override { return 0; }
    int32_t Uninit() override { return 0; }
    int32_t Start() override { return 0; }
    int32_t Stop() override { return 0; }
};

using SingletonPlugin = CountedPlugin<1>;
using PerRequestPlugin = CountedPlugin<2>;
using OtherPlugin = CountedPlugin<3>;

qv::ExportedSingletonDeclaration<SingletonPlugin> singletonDeclaration(L"Test.Exports.Singleton");
qv::ExportedObjectDeclaration<PerRequestPlugin> perRequestDeclaration(L"Test.Exports.PerRequest");
qv::ExportedObjectDeclaration<OtherPlugin> duplicateDeclaration(L"Test.Exports.Singleton");

// The registry is what the module's two exports forward to.
int32_t CreateObject(const wchar_t* name, const GUID* iid, void** object) {
    return qv::ExportedObjectRegistry::Instance().CreateObject(name, iid, object);
}
void DestroyObject(const wchar_t* name, void* object) {
    qv::ExportedObjectRegistry::Instance().DestroyObject(name, object);
}

// Takes another object of the module while it is made and gives it back
// while it is destroyed, both on the thread of the outer request.
class NestingPlugin final : public CountedPlugin<4> {
public:
    // A failed request leaves inner() null, which the test checks.
    NestingPlugin() { static_cast<void>(CreateObject(L"Test.Exports.PerRequest", &IServPlugin::iid, &inner_)); }
    ~NestingPlugin() override {
        if (inner_) DestroyObject(L"Test.Exports.PerRequest", inner_);
    }
    void* inner() const { return inner_; }

private:
    void* inner_ = nullptr;
};

qv::ExportedObjectDeclaration<NestingPlugin> nestingDeclaration(L"Test.Exports.Nesting");

constexpr GUID kUnknownIid = qv::MakeGuid(0x12345678, 0x1234, 0x1234, 0x1234, 0x123456789ABC);

}  // namespace

TEST(ExportedObjects, SingletonIsSharedAndCountedUntilTheLastGiveBack) {
    void* first = nullptr;
    void* second = nullptr;
    ASSERT_EQ(CreateObject(L"Test.Exports.Singleton", &IServPlugin::iid, &first), 0);
    ASSERT_EQ(CreateObject(L"Test.Exports.Singleton", &IServPlugin::iid, &second), 0);
    EXPECT_EQ(first, second);
    EXPECT_EQ(singletonDeclaration.count(), 2);
    EXPECT_TRUE(singletonDeclaration.HasInstances());

    DestroyObject(L"Test.Exports.Singleton", first);
    EXPECT_EQ(SingletonPlugin::live, 1);
    DestroyObject(L"Test.Exports.Singleton", second);
    EXPECT_EQ(SingletonPlugin::live, 0);
    EXPECT_FALSE(singletonDeclaration.HasInstances());
}

// Names are exact and case-sensitive; an unknown name, a null argument or an
// interface the object lacks is refused with a null object, and leaves no
// object behind nor a count changed.
TEST(ExportedObjects, RefusedRequestsLeaveNothingBehind) {
    void* held = nullptr;
    ASSERT_EQ(CreateObject(L"Test.Exports.Singleton", &IQvBaseInterface::iid, &held), 0);
    const std::pair<const wchar_t*, const GUID*> refused[] = {
        {L"test.exports.singleton", &IServPlugin::iid},
        {L"Test.Exports.Singleto", &IServPlugin::iid},
        {nullptr, &IServPlugin::iid},
        {L"Test.Exports.Singleton", nullptr},
        {L"Test.Exports.Singleton", &kUnknownIid},
        // Without an earlier holder the object made for the failed request is deleted at once.
        {L"Test.Exports.PerRequest", &kUnknownIid}};
    for (auto [name, iid] : refused) {
        void* object = reinterpret_cast<void*>(1);
        EXPECT_EQ(CreateObject(name, iid, &object), qv::status::kNotFound) << (name ? name : L"(null)");
        EXPECT_EQ(object, nullptr);
    }
    EXPECT_NE(CreateObject(L"Test.Exports.Singleton", &IServPlugin::iid, nullptr), 0);
    EXPECT_EQ(singletonDeclaration.count(), 1);
    EXPECT_EQ(SingletonPlugin::live, 1);
    EXPECT_EQ(PerRequestPlugin::live, 0);
    DestroyObject(L"Test.Exports.Singleton", held);
    EXPECT_EQ(SingletonPlugin::live, 0);
    DestroyObject(L"Test.Exports.Nobody", nullptr);
    DestroyObject(nullptr, nullptr);
}

TEST(ExportedObjects, PerRequestDeclarationMakesAFreshObjectEachTime) {
    void* a = nullptr;
    void* b = nullptr;
    ASSERT_EQ(CreateObject(L"Test.Exports.PerRequest", &IServPlugin::iid, &a), 0);
    ASSERT_EQ(CreateObject(L"Test.Exports.PerRequest", &IServPlugin::iid, &b), 0);
    EXPECT_NE(a, b);
    EXPECT_EQ(PerRequestPlugin::live, 2);
    EXPECT_FALSE(perRequestDeclaration.HasInstances());

    // An object of another class is ignored by the per-request declaration.
    OtherPlugin stranger;
    DestroyObject(L"Test.Exports.PerRequest", static_cast<IQvBaseInterface*>(&stranger));
    EXPECT_EQ(OtherPlugin::live, 1);

    DestroyObject(L"Test.Exports.PerRequest", a);
    DestroyObject(L"Test.Exports.PerRequest", b);
    EXPECT_EQ(PerRequestPlugin::live, 0);
}

TEST(ExportedObjects, SecondRegistrationOfANameIsRefusedAndTheFirstStays) {
    EXPECT_EQ(singletonDeclaration.registration(), 0);
    EXPECT_EQ(duplicateDeclaration.registration(), qv::status::kAlreadyExists);
    EXPECT_EQ(qv::ExportedObjectRegistry::Instance().Register(L"Test.Exports.PerRequest", &singletonDeclaration),
              qv::status::kAlreadyExists);

    void* object = nullptr;
    ASSERT_EQ(CreateObject(L"Test.Exports.Singleton", &IServPlugin::iid, &object), 0);
    EXPECT_EQ(SingletonPlugin::live, 1);
    EXPECT_EQ(OtherPlugin::live, 0);
    DestroyObject(L"Test.Exports.Singleton", object);
}

TEST(ExportedObjects, LoggingIsAvailableWhileAnExportedObjectLives) {
    ASSERT_FALSE(logging::CLogDLL::Exists());
    void* object = nullptr;
    ASSERT_EQ(CreateObject(L"Test.Exports.PerRequest", &IServPlugin::iid, &object), 0);
    EXPECT_TRUE(logging::CLogDLL::Exists());
    DestroyObject(L"Test.Exports.PerRequest", object);
    EXPECT_FALSE(logging::CLogDLL::Exists());
}

TEST(ExportedObjects, ConcurrentSingletonRequestsShareOneInstance) {
    constexpr int kThreads = 4, kRounds = 200;
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                void* object = nullptr;
                if (CreateObject(L"Test.Exports.Singleton", &IServPlugin::iid, &object) != 0) ++failures;
                if (SingletonPlugin::live != 1) ++failures;
                DestroyObject(L"Test.Exports.Singleton", object);
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(SingletonPlugin::live, 0);
}

TEST(ExportedObjects, AnObjectMayTakeAndGiveBackAnotherWhileMadeAndDestroyed) {
    auto nested = std::async(std::launch::async, [] {
        void* object = nullptr;
        if (CreateObject(L"Test.Exports.Nesting", &IServPlugin::iid, &object) != 0) return false;
        auto* outer = static_cast<NestingPlugin*>(static_cast<IServPlugin*>(object));
        const bool innerMade = outer->inner() != nullptr && PerRequestPlugin::live == 1;
        DestroyObject(L"Test.Exports.Nesting", object);
        return innerMade;
    });
    if (nested.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
        // The request hangs on the registry's lock; its thread cannot be
        // joined, so the program ends here instead of waiting forever.
        std::fprintf(stderr, "Nested CreateObject/DestroyObject did not return within 10 s (deadlock)\n");
        std::fflush(stderr);
        std::_Exit(EXIT_FAILURE);
    }
    EXPECT_TRUE(nested.get());
    EXPECT_EQ(PerRequestPlugin::live, 0);
    EXPECT_EQ(CountedPlugin<4>::live, 0);
}
