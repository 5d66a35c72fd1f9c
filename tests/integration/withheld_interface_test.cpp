// The built library against a host that lacks an interface. Runs in its own binary: the real
// module is never loaded here, so a copy of it may register the camera classes.
#include <gtest/gtest.h>

#include <filesystem>

#include "quorv/host/host.h"
#include "render/cameras/camera.h"

namespace quorv {
namespace {

constexpr const char* CAMERAS = "net.quorv.render.registry.cameraclasses";

// Loads the library from a copy, so each load is a separate instance with its own slot tables.
Result<host::LoadedModule*> LoadCopy(const std::string& name, const std::vector<std::string>& withheld) {
    auto dir = std::filesystem::temp_directory_path() / ("quorv_test_" + std::to_string(getpid()));
    std::filesystem::create_directories(dir);
    auto copy = dir / name;
    std::filesystem::copy_file(QUORV_MODULE_PATH, copy,
                               std::filesystem::copy_options::overwrite_existing);
    return host::Host::Get().LoadModule(copy.string(), withheld);
}

TEST(WithheldInterface, MissingResultInterfaceFailsTheStartWithUnresolved) {
    Result<host::LoadedModule*> r = LoadCopy("noapplication.so", {"net.quorv.interface.application"});
    ASSERT_TRUE(r.IsError());
    std::string message = r.GetErrorPointer()->message;
    EXPECT_NE(message.find("net.quorv.error.unresolved"), std::string::npos) << message;
    EXPECT_NE(message.find("noapplication.so"), std::string::npos) << message;
    // The failed start was undone: its classes are gone again.
    for (const auto& reg : host::Host::Get().ListRegistries()) {
        if (reg.id == CAMERAS) {
            EXPECT_TRUE(reg.entries.empty());
        }
    }
}

TEST(WithheldInterface, MissingDictionariesLoadAndAnswerZeroForms) {
    Result<host::LoadedModule*> r = LoadCopy("nodictionary.so", {"net.quorv.interface.datadictionary"});
    ASSERT_TRUE(r.IsOk()) << ErrorToString(r.GetErrorPointer());
    Result<ObjectRef> o = CreateObjectById(LiteralId(CAMERAS),
                                           LiteralId("net.quorv.render.cameraclass.perspective"));
    ASSERT_TRUE(o.IsOk()) << ErrorToString(o.GetErrorPointer());
    CameraRef cam = CameraRef::Cast(o.GetValue()).GetValue();

    // This side of the boundary has dictionaries; the module's reads answer "absent", so a
    // resolution of 640x480 never arrives and the defaults stand: a zero screen mapping.
    DataDictionary d = DataDictionary::Create().GetValue();
    ASSERT_TRUE(d.SetData(LiteralId("net.quorv.render.camera.cameraparameters.screenresolution"),
                          Data::Of(Vector2d64{640, 480}))
                    .IsOk());
    ASSERT_TRUE(cam.Init(d, 0).IsOk());
    EXPECT_EQ(cam.WorldToScreen({1.0, 2.0, 4.0}), (Vector64{0.0, 0.0, 4.0}));

    // With no dictionary at all and no shared empty one, every read is zero, fieldofview too:
    // all pixels share the forward direction.
    ASSERT_TRUE(cam.Init(DataDictionary(), 0).IsOk());
    Ray a, b;
    cam.CreateScreenRay({0, 0}, a);
    cam.CreateScreenRay({500, 300}, b);
    EXPECT_EQ(a.direction, (Vector64{0, 0, 1}));
    EXPECT_EQ(b.direction, a.direction);
    EXPECT_EQ(cam.GetCameraToWorldMatrix(), Matrix64());
}

}  // namespace
}  // namespace quorv
