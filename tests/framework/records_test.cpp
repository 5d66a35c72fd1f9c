#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "quorv/host/host.h"
#include "quorv/services.h"

namespace quorv {
namespace {

using F = EntityBase::FLAGS;
using T = EntityBase::TYPE;

TEST(Records, UnitKeepsPlaceholderNameUntilFirstNamedDefinition) {
    static ModuleRecord module;
    static TranslationUnitRecord unit;
    OpenTranslationUnit(unit, module, "??.cpp", 0);
    EXPECT_EQ(unit.id.word, 0x60006F0F8295ull);
    EXPECT_EQ(unit.number0, -1);
    EXPECT_EQ(unit.number1, -2);
    EXPECT_EQ(unit.number2, -1);
    EXPECT_EQ(module.firstUnit, &unit);

    static GlobalRecord global;
    DefineGlobal(global, "hidden.global", nullptr, nullptr, unit);  // no source name
    EXPECT_TRUE(unit.id == "??.cpp");
    EXPECT_EQ(global.flags, 0x281u);

    static ComponentRecord component;
    DefineComponent(component, "net.quorv.test.component", unit, "/src/render/cameras/parallel.cpp", 0);
    EXPECT_TRUE(unit.id == "parallel.cpp");
    EXPECT_EQ(component.flags, 0x201u);
    EXPECT_EQ(component.type, static_cast<UInt32>(T::COMPONENT));
    EXPECT_EQ(unit.first, &global);
    EXPECT_EQ(global.next, &component);
    EXPECT_EQ(unit.last, &component);
}

TEST(Records, OpenedUnitNameIsLastPathPart) {
    static ModuleRecord module;
    static TranslationUnitRecord unit;
    OpenTranslationUnit(unit, module, "a/b\\c/register.cpp", F::REGISTRATION_UNIT);
    EXPECT_TRUE(unit.id == "register.cpp");
    EXPECT_EQ(unit.flags & F::REGISTRATION_UNIT, F::REGISTRATION_UNIT);
}

TEST(Records, DependenciesArePushedFront) {
    static ModuleRecord module;
    static TranslationUnitRecord unit;
    static DependencyRecord a, b;
    OpenTranslationUnit(unit, module, "deps.cpp", 0);
    AddDependency(a, &SystemInterface::record, unit, "quorv/system.h", DEPENDENCYKIND::STRONG);
    AddDependencyById(b, ".reflection", unit, nullptr);
    EXPECT_EQ(unit.dependencies, &b);
    EXPECT_EQ(b.nextDependency, &a);
    EXPECT_TRUE(a.id == "net.quorv.interface.system");
    EXPECT_STREQ(a.header, "quorv/system.h");
    EXPECT_TRUE(b.id == ".reflection");
    EXPECT_EQ(b.flags & F::HIDDEN, F::HIDDEN);
}

using RecordsDeathTest = ::testing::Test;

TEST_F(RecordsDeathTest, DefinitionsTrapOnMisuse) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    static ModuleRecord module;
    static TranslationUnitRecord unit;
    OpenTranslationUnit(unit, module, "traps.cpp", 0);
    // A second definition of one record.
    EXPECT_DEATH(
        {
            static ComponentRecord r;
            DefineComponent(r, "net.quorv.test.twice", unit, nullptr, 0);
            DefineComponent(r, "net.quorv.test.twice", unit, nullptr, 0);
        },
        "");
    // An unnamed definition in a unit.
    EXPECT_DEATH(
        {
            static ComponentRecord r;
            DefineComponent(r, LiteralId(), unit, nullptr, 0);
        },
        "");
    // A state only the host sets.
    EXPECT_DEATH(
        {
            static ComponentRecord r;
            DefineComponent(r, "net.quorv.test.state", unit, nullptr, F::INITIALIZED);
        },
        "");
}

TEST(Records, HiddenOrProxyMayBeUnnamedAndClassProxyMayCarryStates) {
    static ModuleRecord module;
    static TranslationUnitRecord unit;
    OpenTranslationUnit(unit, module, "allowed.cpp", 0);
    static ComponentRecord hidden, proxy, classProxy;
    DefineComponent(hidden, LiteralId(), unit, nullptr, F::HIDDEN);
    DefineComponent(proxy, LiteralId(), unit, nullptr, F::PROXY);
    DefineComponent(classProxy, "net.quorv.test.classproxy", unit, nullptr,
                    F::CLASS_PROXY | F::INITIALIZED);
    EXPECT_EQ(hidden.flags, F::HIDDEN | 0x201u);
    EXPECT_EQ(classProxy.flags & F::INITIALIZED, F::INITIALIZED);
}

TEST(Records, ModuleChainAndVersionWords) {
    EXPECT_EQ(g_quorv.version0, 2023904);
    EXPECT_EQ(g_quorv.version1, 2024000);
    ASSERT_NE(g_quorv.nullValue, nullptr);
    EXPECT_EQ(reinterpret_cast<UInt>(g_quorv.nullValue) % 32, 0u);
    bool found = false;
    for (ModuleRecord* m = g_quorv.modules; m; m = m->nextModule) found |= (m == &g_moduleRecord);
    EXPECT_TRUE(found);
    EXPECT_NE(g_quorv.GetInitializer(), nullptr);  // written by the host at start
}

TEST(Records, ConfigurationTableDropsRowsBeyond256) {
    ConfigurationTable& t = GetConfigurationTable();
    static Bool vars[CONFIG_TABLE_CAPACITY + 1];
    static std::string names[CONFIG_TABLE_CAPACITY + 1];
    Int start = t.count;
    ASSERT_LT(start, CONFIG_TABLE_CAPACITY);
    Int i = 0;
    while (t.count < CONFIG_TABLE_CAPACITY) {
        names[i] = "g_fill" + std::to_string(i);
        AddConfigurationVariable(names[i].c_str(), &vars[i], "", CONFIGTYPE::BOOL, "");
        ++i;
    }
    EXPECT_EQ(t.count, 256);
    const ConfigurationRow& last = t.rows[255];
    AddConfigurationVariable("g_dropped", &vars[i], "", CONFIGTYPE::BOOL, "");
    EXPECT_EQ(t.count, 256);
    EXPECT_STREQ(t.rows[255].name, last.name);
    EXPECT_EQ(t.rows[255].constant, 3);
    for (Int r = 0; r < t.count; ++r) EXPECT_STRNE(t.rows[r].name, "g_dropped");
}

TEST(Slots, NameRunHoldsNameAtSignatureHash) {
    const SlotDescription& d = SystemInterface::Describe();
    ASSERT_EQ(d.count, SystemInterface::COUNT);
    const char* first = SystemInterface::record.methodNames;
    std::string expected = "Alloc@";
    char hex[17];
    std::snprintf(hex, sizeof(hex), "%016llx",
                  static_cast<unsigned long long>(LiteralIdHash(d.signatures[0])));
    EXPECT_EQ(std::string(first), expected + hex);
    const char* second = first + std::strlen(first) + 1;
    EXPECT_EQ(std::string(second).substr(0, 5), "Free@");
}

TEST(Slots, ReturnKindBytes) {
    using K = UNRESOLVED_RETURN_TYPE;
    auto kind = [](Int i) { return static_cast<K>(SystemInterface::Describe().returnKinds[i]); };
    EXPECT_EQ(kind(SystemInterface::IDX_Alloc), K::POINTER_TO_ZERO);
    EXPECT_EQ(kind(SystemInterface::IDX_Free), K::VOID_ZERO);
    EXPECT_EQ(kind(SystemInterface::IDX_PrivateHasherCombine), K::INTEGRAL_ZERO);
    auto urlKind = [](Int i) { return static_cast<K>(UrlInterface::Describe().returnKinds[i]); };
    EXPECT_EQ(urlKind(UrlInterface::IDX_SetUrl), K::RESULT_VOID);
    EXPECT_EQ(urlKind(UrlInterface::IDX_GetScheme), K::INTEGRAL2X_ZERO);
    auto classKind = [](Int i) { return static_cast<K>(ClassInterface::Describe().returnKinds[i]); };
    EXPECT_EQ(classKind(ClassInterface::IDX_Create), K::RESULT_INTEGRAL_ZERO);
}

TEST(Slots, StubsAnswerZeroOrUnresolved) {
    using SetUrlStub = slots_detail::ZeroStub<decltype(UrlInterface::Slots::SetUrl)>;
    Result<void> r = SetUrlStub::Call(nullptr, "x", 1);
    ASSERT_TRUE(r.IsError());
    EXPECT_TRUE(r.GetErrorPointer()->id == "net.quorv.error.unresolved");
    EXPECT_EQ(r.GetErrorPointer()->kind, ERRORKIND::UNRESOLVED);
    using CreateStub = slots_detail::ZeroStub<decltype(ClassInterface::Slots::Create)>;
    Result<void*> c = CreateStub::Call(nullptr, QUORV_SOURCE_LOCATION);
    EXPECT_TRUE(c.IsError());
    EXPECT_EQ(c.GetValue(), nullptr);
    using LengthStub = slots_detail::ZeroStub<decltype(StringInterface::Slots::GetLength)>;
    EXPECT_EQ(LengthStub::Call(nullptr), 0);
    using SchemeStub = slots_detail::ZeroStub<decltype(UrlInterface::Slots::GetScheme)>;
    EXPECT_TRUE(SchemeStub::Call(nullptr).IsEmpty());
}

TEST(Resolve, WithoutInitializerLogsAndGivesDefault) {
    InitializerFunc saved = g_quorv.initializer;
    g_quorv.initializer = nullptr;
    host::Host::Get().ClearCriticalLog();
    DeclarationRecord declaration;
    declaration.type = static_cast<UInt32>(T::DECLARATION);
    int fallback = 0;
    void* v = GetOrResolve(declaration, &fallback);
    g_quorv.initializer = saved;
    EXPECT_EQ(v, &fallback);
    auto log = host::Host::Get().GetCriticalLog();
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.back(), "Assertion failed: g_quorv.GetInitializer()");
}

TEST(Resolve, UnresolvedDataTypeGivesInvalidType) {
    DataTypeRecord record;
    record.type = static_cast<UInt32>(T::DATATYPE);
    record.id = LiteralId("net.quorv.test.nosuchtype");
    void* v = GetOrResolve(record, nullptr);
    EXPECT_EQ(v, DataTypeLibInterface::GetInvalidType());
    EXPECT_NE(v, nullptr);
}

TEST(Resolve, InitializedWithMissingMethodsKeepsTheStub) {
    NonVirtualInterfaceRecord record;
    record.type = static_cast<UInt32>(T::NONVIRTUAL_INTERFACE);
    record.flags = F::INITIALIZED | F::ALLOW_MISSING_METHODS;
    record.resolver = 1;
    EXPECT_FALSE(ResolveInterface(record, false));
    record.flags = 0;
    record.resolver = 0;
    static int inits = 0;
    record.init = [] {
        ++inits;
        return Result<void>(OK);
    };
    EXPECT_TRUE(ResolveInterface(record, false));
    EXPECT_EQ(inits, 1);
    record.init = nullptr;
    host::Host::Get().ClearCriticalLog();
    record.id = LiteralId("net.quorv.interface.missing");
    EXPECT_FALSE(ResolveInterface(record, true));
    auto log = host::Host::Get().GetCriticalLog();
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.back(), "net.quorv.interface.missing");
}

int g_builds = 0;

TEST(TypeCache, BuildsOnceAndReportsAFailedBuild) {
    static ModuleRecord module;
    static TypeCacheEntry good, bad;
    g_builds = 0;
    AddTypeCache(good, [] {
        ++g_builds;
        return Result<const DataType*>(DataTypeLibInterface::GetRuntimeDataType("float64"));
    }, module);
    AddTypeCache(bad, [] {
        return Result<const DataType*>(MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION, "no layout"));
    }, module);
    EXPECT_EQ(module.typeCaches, &bad);
    EXPECT_EQ(bad.next, &good);
    const DataType* t = good.Get();
    EXPECT_EQ(good.Get(), t);
    EXPECT_EQ(g_builds, 1);
    ASSERT_NE(t, nullptr);
    EXPECT_TRUE(t->id == "float64");

    host::Host::Get().ClearCriticalLog();
    EXPECT_EQ(bad.Get(), DataTypeLibInterface::GetInvalidType());
    auto log = host::Host::Get().GetCriticalLog();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].rfind("Error while initializing data type: net.quorv.error.illegalstate: no layout", 0), 0u)
        << log[0];
}

}  // namespace
}  // namespace quorv
