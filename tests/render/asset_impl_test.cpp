// The search path list of AssetManagementImpl, read directly (white-box): what Init puts there,
// and what out of memory leaves.
#include "render/frame/asset_impl.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "quorv/host/host.h"

namespace quorv {
namespace {

struct Entry {
    std::string url;
    Int32 type;
    Bool flag;
    bool operator==(const Entry&) const = default;
};

std::vector<Entry> Entries(const AssetManagementImpl* o) {
    std::vector<Entry> out;
    for (const SearchPathEntry& e : o->searchPaths)
        out.push_back({e.url.ToText(), e.assetType, e.flag});
    return out;
}

Url FromText(const char* text) { return Url::FromText(text).GetValue(); }

class AssetEntries : public ::testing::Test {
protected:
    void SetUp() override {
        object = AssetManagementInterface::Alloc(QUORV_SOURCE_LOCATION);
        ASSERT_NE(object, nullptr);
    }
    void TearDown() override { AssetManagementInterface::Free(object); }
    AssetManagementImpl* object = nullptr;
};

const std::vector<Entry> DEFAULTS = {{"relative:///", 0, false}, {"relative:///tex", 1, false}};

TEST_F(AssetEntries, InitAddsTheTwoDefaultsOnceAndLaterOnlyMovesTheBase) {
    EXPECT_TRUE(Entries(object).empty());
    ASSERT_TRUE(AssetManagementInterface::Init(object, FromText("/first")).IsOk());
    EXPECT_EQ(Entries(object), DEFAULTS);
    ASSERT_TRUE(AssetManagementInterface::Init(object, FromText("/second")).IsOk());
    ASSERT_TRUE(AssetManagementInterface::Init(object, Url()).IsOk());
    ASSERT_TRUE(AssetManagementInterface::Init(object, FromText("/third")).IsOk());
    EXPECT_EQ(Entries(object), DEFAULTS);
    EXPECT_EQ(object->baseUrl.ToText(), "/third");
    // Entries added before the first Init come first, and then no defaults are added at all.
    AssetManagementImpl* early = AssetManagementInterface::Alloc(QUORV_SOURCE_LOCATION);
    ASSERT_TRUE(
        AssetManagementInterface::AddSearchPath(early, FromText("/lib"), ASSET_TYPE::SCENE, true)
            .IsOk());
    ASSERT_TRUE(AssetManagementInterface::Init(early, FromText("/base")).IsOk());
    EXPECT_EQ(Entries(early), (std::vector<Entry>{{"/lib", 2, true}}));
    AssetManagementInterface::Free(early);
}

TEST_F(AssetEntries, OutOfMemoryWhileAddingKeepsTheListAsItWas) {
    ASSERT_TRUE(AssetManagementInterface::Init(object, FromText("/base")).IsOk());
    // Fill the list up to its capacity, so that the next entry needs memory.
    std::vector<Entry> expected = DEFAULTS;
    while (object->searchPaths.size() < object->searchPaths.capacity()) {
        ASSERT_TRUE(AssetManagementInterface::AddSearchPath(object, FromText("/more"),
                                                            ASSET_TYPE::ANY, false)
                        .IsOk());
        expected.push_back({"/more", 0, false});
    }
    const Url lost = FromText("/lost");
    host::Host::Get().FailAllocationAfter(1);
    Result<void> r =
        AssetManagementInterface::AddSearchPath(object, lost, ASSET_TYPE::TEXTURE, true);
    host::Host::Get().FailAllocationAfter(0);
    ASSERT_TRUE(r.IsError());
    EXPECT_EQ(r.GetErrorPointer()->kind, ERRORKIND::OUTOFMEMORY);
    EXPECT_EQ(Entries(object), expected);
    // With memory back, the same call appends.
    ASSERT_TRUE(
        AssetManagementInterface::AddSearchPath(object, lost, ASSET_TYPE::TEXTURE, true).IsOk());
    expected.push_back({"/lost", 1, true});
    EXPECT_EQ(Entries(object), expected);
}

}  // namespace
}  // namespace quorv
