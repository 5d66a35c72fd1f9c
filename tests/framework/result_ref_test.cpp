#include <gtest/gtest.h>

#include "quorv/host/host.h"
#include "quorv/services.h"

namespace quorv {
namespace {

struct Counted {
    ObjectHeader header;
    int value;
};

int g_destroyed = 0;
void CountDestroy(void*) { ++g_destroyed; }

TEST(References, CountWordStepsBy16AndFreesBelow32) {
    g_destroyed = 0;
    Counted c{{nullptr, &CountDestroy, 0, 0}, 7};
    void* obj = &c.value;
    AddReference(obj);
    EXPECT_EQ(GetCountWord(obj), 16u);
    EXPECT_FALSE(IsShared(obj));
    AddReference(obj);
    EXPECT_EQ(GetCountWord(obj), 32u);
    EXPECT_TRUE(IsShared(obj));
    RemoveReference(obj);  // earlier value 32: stays
    EXPECT_EQ(g_destroyed, 0);
    RemoveReference(obj);  // earlier value 16: freed
    EXPECT_EQ(g_destroyed, 1);
}

TEST(References, LowBitsDoNotCountAsAHolder) {
    Counted c{{nullptr, &CountDestroy, 0, 16 + 7}, 0};
    EXPECT_FALSE(IsShared(&c.value));  // 23 is one holder with flag bits
    c.header.count = 24;
    EXPECT_TRUE(IsShared(&c.value));
}

TEST(References, RefHandlesCopyMoveAndAdopt) {
    g_destroyed = 0;
    Counted c{{nullptr, &CountDestroy, 0, 0}, 0};
    {
        Ref<int> a(&c.value);
        Ref<int> b = a;
        EXPECT_EQ(GetCountWord(&c.value), 32u);
        Ref<int> m = std::move(b);
        EXPECT_FALSE(b);
        EXPECT_EQ(GetCountWord(&c.value), 32u);
        int* raw = m.Disconnect();
        Ref<int> adopted = Ref<int>::Adopt(raw);
        EXPECT_EQ(GetCountWord(&c.value), 32u);
    }
    EXPECT_EQ(g_destroyed, 1);
}

TEST(Errors, KindsCarryTheirIdsAndMessages) {
    const char* ids[] = {"net.quorv.error.outofmemory",   "net.quorv.error.nullptr",
                         "net.quorv.error.illegalargument", "net.quorv.error.illegalstate",
                         "net.quorv.error.functionnotimplemented", "net.quorv.error.unresolved"};
    for (int k = 0; k < 6; ++k) EXPECT_STREQ(ErrorKindId(static_cast<ERRORKIND>(k)), ids[k]);
    Error e = MakeError(ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
                        FormatMessage("Bad @ in @", {"value", "file.ies"}));
    EXPECT_STREQ(e->message, "Bad value in file.ies");
    EXPECT_TRUE(e->id == "net.quorv.error.illegalargument");
    EXPECT_GT(e->location.line, 0);
    EXPECT_EQ(SystemInterface::GetCurrentError(), e.Get());
    Error io = MakeErrorWithId("net.quorv.error.io", QUORV_SOURCE_LOCATION, "cannot open");
    EXPECT_EQ(io->kind, ERRORKIND::OTHER);
    EXPECT_EQ(ErrorToString(io.Get()).rfind("net.quorv.error.io: cannot open (result_ref_test.cpp:", 0), 0u);
}

TEST(Errors, FormatMessageLeavesSurplusPlaceholders) {
    EXPECT_EQ(FormatMessage("@ and @", {"one"}), "one and @");
    EXPECT_EQ(FormatMessage("none", {"x"}), "none");
}

TEST(Errors, OutOfMemoryNeedsNoMemory) {
    host::Host::Get().FailAllocationAfter(1);
    Error e = MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION, "needs memory");
    host::Host::Get().FailAllocationAfter(0);
    ASSERT_TRUE(e);
    EXPECT_EQ(e->kind, ERRORKIND::OUTOFMEMORY);
    EXPECT_TRUE(e->id == "net.quorv.error.outofmemory");
}

TEST(Results, ValueAndErrorForms) {
    Result<int> ok = 5;
    EXPECT_TRUE(ok.IsOk());
    EXPECT_EQ(ok.GetValue(), 5);
    Result<int> bad = MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION);
    EXPECT_TRUE(bad.IsError());
    EXPECT_EQ(bad.GetValue(), 0);
    Result<int> copy = bad;
    EXPECT_EQ(copy.GetErrorPointer(), bad.GetErrorPointer());
    Result<void> fromVoid = OK;
    EXPECT_TRUE(fromVoid);
    auto forward = [&]() -> Result<void> {
        QUORV_RETURN_IF_ERROR(bad);
        return OK;
    };
    EXPECT_EQ(forward().GetErrorPointer(), bad.GetErrorPointer());
}

}  // namespace
}  // namespace quorv
