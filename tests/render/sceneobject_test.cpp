// Scene object classes of the built module: composed of the host's dictionary and description
// objects, with a stamp that only a successful SetData moves.
#include "render/sceneobjects/sceneobject.h"

#include <atomic>
#include <thread>

#include "common/test_support.h"

namespace quorv {
namespace {

const DictionaryKey<Int> SIZE("net.quorv.test.sceneobject.size");

struct SceneObject {
    ObjectRef object;
    DataDictionaryObjectInterface::Ref dict;
    SceneObjectInterface::Ref stamp;
};

SceneObject Make(const char* id) {
    EXPECT_NE(test::LoadModuleOnce(QUORV_MODULE_PATH), nullptr);
    SceneObject s;
    Result<ObjectRef> o = CreateObjectById(LiteralId(SCENEOBJECT_CLASS_REGISTRY_ID), LiteralId(id));
    EXPECT_TRUE(o.IsOk()) << ErrorToString(o.GetErrorPointer());
    if (o.IsError()) return s;
    s.object = o.GetValue();
    s.dict = DataDictionaryObjectInterface::Ref::Cast(s.object).GetValue();
    s.stamp = SceneObjectInterface::Ref::Cast(s.object).GetValue();
    return s;
}

TEST(SceneObjects, AllSevenByIdOfferTheThreeInterfaces) {
    for (const char* id :
         {sceneobjectclass::BASE, sceneobjectclass::CAMERA, sceneobjectclass::COMPOSITINGTAG,
          sceneobjectclass::LIGHT, sceneobjectclass::LIGHTBLOCKER, sceneobjectclass::OBJECTLIGHT,
          sceneobjectclass::PHYSICALSKY}) {
        SceneObject s = Make(id);
        ASSERT_TRUE(s.dict && s.stamp) << id;
        EXPECT_TRUE(GetClassIdOf(s.object.Get()) == id);
        EXPECT_EQ(s.stamp.GetTimeStamp(), 0) << id;
        ASSERT_TRUE(SetObjectValue(s.dict, SIZE, Int(3)).IsOk());
        EXPECT_EQ(s.stamp.GetTimeStamp(), 1) << id;
        Result<DataDescriptionObjectInterface::Ref> d =
            DataDescriptionObjectInterface::Ref::Cast(s.object);
        ASSERT_TRUE(d.IsOk()) << id;
        Result<DataDictionary> description = d.GetValue().GetObjectDescription();
        ASSERT_TRUE(description.IsError());
        EXPECT_EQ(std::string(description.GetErrorPointer()->message),
                  "No description of class " + std::string(id) + " is available");
    }
}

TEST(SceneObjects, OnlyASuccessfulSetDataMovesTheStamp) {
    SceneObject s = Make(sceneobjectclass::LIGHT);
    ASSERT_TRUE(s.stamp);
    ASSERT_TRUE(SetObjectValue(s.dict, SIZE, Int(1)).IsOk());
    ASSERT_TRUE(SetObjectValue(s.dict, SIZE, Int(2)).IsOk());  // the same key again counts too
    EXPECT_EQ(s.stamp.GetTimeStamp(), 2);
    EXPECT_EQ(GetObjectValue(s.dict, SIZE, Int(0)), 2);           // GetData passes through
    EXPECT_TRUE(s.dict.SetData(SIZE.GetId(), Data()).IsError());  // refused by the dictionary
    EXPECT_EQ(s.stamp.GetTimeStamp(), 2);
    // A value of another type than the key's: refused, and the stamp and the value stay.
    Result<void> wrongType = s.dict.SetData(SIZE.GetId(), Data::Of(Float64(2.5)));
    ASSERT_TRUE(wrongType.IsError());
    EXPECT_EQ(wrongType.GetErrorPointer()->kind, ERRORKIND::ILLEGALARGUMENT);
    EXPECT_EQ(s.stamp.GetTimeStamp(), 2);
    EXPECT_EQ(GetObjectValue(s.dict, SIZE, Int(0)), 2);
    EXPECT_TRUE(s.dict.EraseData(SIZE.GetId()));
    EXPECT_EQ(s.stamp.GetTimeStamp(), 2);
    ASSERT_TRUE(SetObjectValue(s.dict, SIZE, Int(5)).IsOk());
    s.dict.Reset();
    EXPECT_TRUE(s.dict.IsEmpty());
    EXPECT_EQ(s.stamp.GetTimeStamp(), 3);
    // Out of memory while storing: an error, and the stamp stays.
    const Data nine = Data::Of(Int(9));
    host::Host::Get().FailAllocationAfter(1);
    Result<void> r = s.dict.SetData(LiteralId("net.quorv.test.sceneobject.other"), nine);
    host::Host::Get().FailAllocationAfter(0);
    ASSERT_TRUE(r.IsError());
    EXPECT_EQ(r.GetErrorPointer()->kind, ERRORKIND::OUTOFMEMORY);
    EXPECT_EQ(s.stamp.GetTimeStamp(), 3);
    EXPECT_TRUE(s.dict.IsEmpty());
}

TEST(SceneObjects, SetDataFromManyThreadsCountsEveryWrite) {
    SceneObject s = Make(sceneobjectclass::CAMERA);
    ASSERT_TRUE(s.stamp);
    std::vector<std::thread> threads;
    std::atomic<int> ok{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 250; ++i) {
                if (SetObjectValue(s.dict, SIZE, Int(t * 1000 + i)).IsOk()) ++ok;
                (void)s.stamp.GetTimeStamp();
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(ok.load(), 1000);
    EXPECT_EQ(s.stamp.GetTimeStamp(), 1000);
}

}  // namespace
}  // namespace quorv
