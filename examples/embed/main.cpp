// Embeds the quorv host: loads the render module, creates a camera and a BSDF by id through
// their registries and prints the centre ray of a 640 x 480 camera and one BSDF value.
#include <cstdio>

#include "quorv/host/host.h"
#include "render/cameras/camera.h"
#include "render/legacy_renderers/bsdf_legacy.h"

using namespace quorv;

static int Fail(const char* what, const ErrorObject* e) {
    std::fprintf(stderr, "embed: %s: %s\n", what, ErrorToString(e).c_str());
    return 1;
}

int main(int argc, char** argv) {
    // StartHost also binds this program's own framework copy to the host's services.
    host::Host& host = host::StartHost();
    const char* path = argc > 1 ? argv[1] : QUORV_RENDER_MODULE;
    Result<host::LoadedModule*> module = host.LoadModule(path);
    if (module.IsError()) return Fail("load", module.GetErrorPointer());

    Result<ObjectRef> object = CreateObjectById(LiteralId("net.quorv.render.registry.cameraclasses"),
                                                LiteralId("net.quorv.render.cameraclass.perspective"));
    if (object.IsError()) return Fail("camera", object.GetErrorPointer());
    CameraRef camera = CameraRef::Cast(object.GetValue()).GetValue();
    DataDictionary params = DataDictionary::Create().GetValue();
    Result<void> set = params.SetData(
        LiteralId("net.quorv.render.camera.cameraparameters.screenresolution"), Data::Of(Vector2d64{640, 480}));
    if (set.IsError()) return Fail("parameters", set.GetErrorPointer());
    if (Result<void> r = camera.Init(params, 0); r.IsError()) return Fail("camera init", r.GetErrorPointer());
    Ray ray;
    camera.CreateScreenRay({320.0, 240.0}, ray);
    std::printf("ray origin %.17g %.17g %.17g direction %.17g %.17g %.17g\n", ray.origin.x, ray.origin.y,
                ray.origin.z, ray.direction.x, ray.direction.y, ray.direction.z);

    object = CreateObjectById(LiteralId(BSDF_LEGACY_CLASS_REGISTRY_ID),
                              LiteralId("net.quorv.render.bsdflegacyclass.ggxbrdf"));
    if (object.IsError()) return Fail("bsdf", object.GetErrorPointer());
    BSDFLegacyRef bsdf = BSDFLegacyRef::Cast(object.GetValue()).GetValue();
    DataDictionary bsdfParams = DataDictionary::Create().GetValue();
    set = bsdfParams.SetData(DataDictionaryKey(BSDF_PARAM_ROUGHNESS), Data::Of<Float64>(0.4));
    if (set.IsError()) return Fail("parameters", set.GetErrorPointer());
    if (Result<void> r = bsdf.Init(bsdfParams, nullptr); r.IsError()) return Fail("bsdf init", r.GetErrorPointer());
    Float64 pdf = 0.0;
    const Color64 f = bsdf.ComputeBSDF({0.5, 0.0, 0.8660254037844386}, {-0.5, 0.0, 0.8660254037844386},
                                       {-0.5, 0.0, 0.8660254037844386}, pdf);
    std::printf("ggx value %.17g pdf %.17g\n", f.r, pdf);
    return 0;
}
