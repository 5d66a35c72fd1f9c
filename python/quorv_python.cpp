// The Python module `quorv`: the host and the render module for notebooks and scripts. Every
// call that takes an array runs one C++ loop (the host's batch entry points) with the
// interpreter lock released; errors of the module become `quorv.Error` carrying its message.
#include <dlfcn.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <type_traits>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "quorv/host/batch.h"
#include "quorv/host/host.h"
#include "render/legacy_renderers/microfacetdistributioncaches.h"
#include "tools/quorv/jsonio.h"
#include "tools/quorv/values.h"

namespace py = pybind11;

namespace quorv::python {

namespace {

using cli::Json;

// The exception type of the module, made once at import. Python objects kept in statics are
// handles that are never released: their destructors would run after the interpreter ended.
py::handle& ErrorType() {
    static py::handle type;
    return type;
}

[[noreturn]] void Throw(const std::string& message) {
    PyErr_SetString(ErrorType().ptr(), message.c_str());
    throw py::error_already_set();
}

[[noreturn]] void Throw(const ErrorObject* e) {
    Throw(e && e->message ? std::string(e->message) : ErrorToString(e));
}

template <typename T>
T Check(Result<T> r) {
    if (r.IsError()) Throw(r.GetErrorPointer());
    return std::move(r.GetValue());
}

void Check(const Result<void>& r) {
    if (r.IsError()) Throw(r.GetErrorPointer());
}

// The module lies in ../lib beside the folder of this extension, as for the command line.
std::string DefaultModulePath() {
    const char* env = std::getenv("QUORV_MODULE");
    if (env && *env) return env;
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&DefaultModulePath), &info) && info.dli_fname) {
        const std::filesystem::path self = std::filesystem::absolute(info.dli_fname);
        return (self.parent_path().parent_path() / "lib" / "libquorv_render.so").string();
    }
    return "libquorv_render.so";
}

// A Python value as JSON, through the json module: the command line's builders then read it,
// so a parameter means the same from Python as from `quorv ... --param`.
Json ToJson(const py::handle& value) {
    static py::handle dumps = py::object(py::module_::import("json").attr("dumps")).release();
    const std::string text = py::str(dumps(value));
    Json j;
    std::string error;
    if (!cli::ParseJson(text, &j, &error)) throw py::value_error("parameter value: " + error);
    return j;
}

py::object FromJson(const Json& j) {
    static py::handle loads = py::object(py::module_::import("json").attr("loads")).release();
    return loads(cli::Line(j));
}

std::vector<std::pair<std::string, Json>> ToParams(const py::dict& params) {
    std::vector<std::pair<std::string, Json>> out;
    for (auto [key, value] : params) out.emplace_back(py::str(key), ToJson(value));
    return out;
}

// ---- arrays ------------------------------------------------------------------------------------

using Float64Array = py::array_t<double, py::array::c_style | py::array::forcecast>;

std::string ShapeText(const py::array& a) {
    std::string s = "(";
    for (py::ssize_t i = 0; i < a.ndim(); ++i) s += (i ? ", " : "") + std::to_string(a.shape(i));
    return s + (a.ndim() == 1 ? ",)" : ")");
}

// Any array of numbers as contiguous doubles; a non-numeric array is a TypeError.
Float64Array AsFloat64(const py::handle& object, const char* name) {
    py::array a = py::array::ensure(object);
    if (!a) throw py::type_error(std::string(name) + " must be an array of numbers");
    const char kind = a.dtype().kind();
    if (kind != 'f' && kind != 'i' && kind != 'u') {
        throw py::type_error(std::string(name) + " must hold numbers, not dtype " +
                             std::string(py::str(a.dtype())));
    }
    return Float64Array::ensure(a);
}

// An (N, width) array, or with `single` also a (width,) one meaning N = 1 (stride 0).
struct Rows {
    Float64Array data;
    Int count = 0;
    bool single = false;
};

Rows AsRows(const py::handle& object, const char* name, py::ssize_t width, bool single) {
    Rows r{AsFloat64(object, name)};
    if (single && r.data.ndim() == 1 && r.data.shape(0) == width) {
        r.count = 1;
        r.single = true;
        return r;
    }
    if (r.data.ndim() != 2 || r.data.shape(1) != width) {
        const std::string w = std::to_string(width);
        throw py::value_error(std::string(name) + " must have shape " +
                              (single ? "(" + w + ",) or " : std::string()) + "(N, " + w +
                              "), not " + ShapeText(r.data));
    }
    r.count = static_cast<Int>(r.data.shape(0));
    return r;
}

// Vectors and colours are three Float64 in a row, like a row of a C-ordered (N, 3) array of
// doubles: the batches read and write the arrays' own buffers, with no copy on either side.
static_assert(sizeof(Vector64) == 3 * sizeof(double) && std::is_standard_layout_v<Vector64>);
static_assert(sizeof(Color64) == 3 * sizeof(double) && std::is_standard_layout_v<Color64>);

const Vector64* AsVectors(const Rows& r) { return reinterpret_cast<const Vector64*>(r.data.data()); }

py::array_t<double> NewRows(Int count) {
    return py::array_t<double>({static_cast<py::ssize_t>(count), py::ssize_t{3}});
}

Vector64* AsVectors(py::array_t<double>& a) { return reinterpret_cast<Vector64*>(a.mutable_data()); }
Color64* AsColors(py::array_t<double>& a) { return reinterpret_cast<Color64*>(a.mutable_data()); }

// ---- objects -----------------------------------------------------------------------------------

struct Camera {
    CameraRef ref;
    std::string id;

    py::dict Rays(const py::handle& screenXY) const {
        const Rows rows = AsRows(screenXY, "screen_xy", 2, false);
        std::vector<Vector2d64> screen(static_cast<size_t>(rows.count));
        const double* p = rows.data.data();
        for (size_t i = 0; i < screen.size(); ++i) screen[i] = {p[2 * i], p[2 * i + 1]};
        std::vector<Ray> rays(screen.size());
        {
            py::gil_scoped_release release;
            host::CameraRayBatch(ref, screen.data(), rays.data(), rows.count);
        }
        py::dict out;
        auto column = [&](const char* name, Vector64 Ray::*member) {
            py::array_t<double> a = NewRows(rows.count);
            Vector64* v = AsVectors(a);
            for (size_t i = 0; i < rays.size(); ++i) v[i] = rays[i].*member;
            out[name] = a;
        };
        column("origin", &Ray::origin);
        column("direction", &Ray::direction);
        column("originDx", &Ray::originDx);
        column("originDy", &Ray::originDy);
        column("directionDx", &Ray::directionDx);
        column("directionDy", &Ray::directionDy);
        return out;
    }
};

struct BSDF {
    BSDFLegacyRef ref;
    std::string id;
    std::shared_ptr<SamplerCache> cache;  // kept alive as long as the class that was given it

    py::tuple Eval(const py::handle& woIn, const py::handle& wiIn) const {
        const Rows wo = AsRows(woIn, "wo", 3, true);
        const Rows wi = AsRows(wiIn, "wi", 3, false);
        if (!wo.single && wo.count != wi.count) {
            throw py::value_error("wo and wi must have the same length, not " + ShapeText(wo.data) +
                                  " and " + ShapeText(wi.data));
        }
        py::array_t<double> values = NewRows(wi.count);
        py::array_t<double> pdfs(static_cast<py::ssize_t>(wi.count));
        Color64* v = AsColors(values);
        double* p = pdfs.mutable_data();
        {
            py::gil_scoped_release release;
            host::BSDFEvaluateBatch(ref, AsVectors(wo), wo.single ? 0 : 1, AsVectors(wi), nullptr, v,
                                    p, wi.count);
        }
        return py::make_tuple(values, pdfs);
    }

    py::tuple Sample(const py::handle& woIn, const py::handle& samplesIn) const {
        const Rows wo = AsRows(woIn, "wo", 3, true);
        py::array s = py::array::ensure(samplesIn);
        if (!s || (s.dtype().kind() != 'i' && s.dtype().kind() != 'u')) {
            throw py::type_error("samples must be an array of integer indices into the table of " +
                                 std::to_string(host::BSDF_SAMPLE_TABLE_SIZE) + " sample records");
        }
        if (s.ndim() != 1) throw py::value_error("samples must have shape (N,), not " + ShapeText(s));
        const auto indices = py::array_t<long long, py::array::c_style | py::array::forcecast>::ensure(s);
        const Int n = static_cast<Int>(indices.shape(0));
        if (!wo.single && wo.count != n) {
            throw py::value_error("wo and samples must have the same length, not " + ShapeText(wo.data) +
                                  " and " + ShapeText(s));
        }
        const std::vector<BSDFCachedSample>& table = host::BSDFSampleTable();
        std::vector<BSDFCachedSample> records(static_cast<size_t>(n));
        for (Int k = 0; k < n; ++k) {
            const long long index = indices.data()[k];
            if (index < 0 || index >= host::BSDF_SAMPLE_TABLE_SIZE) {
                throw py::value_error("sample index " + std::to_string(index) + " is outside 0.." +
                                      std::to_string(host::BSDF_SAMPLE_TABLE_SIZE - 1));
            }
            records[static_cast<size_t>(k)] = table[static_cast<size_t>(index)];
        }
        py::array_t<double> wi = NewRows(n), values = NewRows(n);
        py::array_t<double> pdfs(static_cast<py::ssize_t>(n));
        Vector64* w = AsVectors(wi);
        Color64* v = AsColors(values);
        double* p = pdfs.mutable_data();
        {
            py::gil_scoped_release release;
            std::fill(w, w + n, Vector64{0.0, 0.0, 0.0});
            host::BSDFSampleBatch(ref, AsVectors(wo), wo.single ? 0 : 1, records.data(), w, v, p, n);
        }
        return py::make_tuple(values, pdfs, wi);
    }
};

struct Ies {
    IesRef ref;
    std::string path;

    static Ies Read(const std::string& path);

    py::dict Properties() const {
        py::dict out;
        for (const auto& [key, value] : cli::DescribeIes(ref)) out[py::str(key)] = FromJson(value);
        return out;
    }

    py::array_t<double> Intensity(const py::handle& directions) const {
        const Rows rows = AsRows(directions, "directions", 3, false);
        py::array_t<double> out(static_cast<py::ssize_t>(rows.count));
        double* o = out.mutable_data();
        {
            py::gil_scoped_release release;
            host::IesIntensityBatch(ref.Get(), AsVectors(rows), o, rows.count);
        }
        return out;
    }

    py::array_t<float> Preview(Int size) const {
        if (size < 1 || size > 8192) throw py::value_error("size must be between 1 and 8192");
        py::array_t<float> out({static_cast<py::ssize_t>(size), static_cast<py::ssize_t>(size)});
        GreyImage32 image{size, size, size, out.mutable_data()};
        Result<void> r = OK;
        {
            py::gil_scoped_release release;
            r = IesInterface::GeneratePreviewImageRows(
                ref.Get(), image.width, image.height, ArraySetLine(&image), nullptr);
        }
        Check(r);
        return out;
    }

    py::bytes Text() const {
        return py::bytes(cli::ToBit8(Check(IesInterface::ConvertToText(ref.Get())).ToUtf8()));
    }
};

struct Texture {
    TextureRef ref;
    std::string path;

    static Texture Load(const std::string& path, UInt32 flags, Float64 time);

    py::dict Info() const {
        return FromJson(cli::TextureInfoJson(*ref.Get())).cast<py::dict>();
    }

    py::array_t<double> Sample(const py::handle& uvIn, const py::handle& footprintIn, const std::string& mode,
                               const std::optional<std::string>& modeU, const std::optional<std::string>& modeV,
                               const std::string& interpolation, const std::string& colorSpace,
                               const std::string& alpha, bool tile) const {
        const Rows uv = AsRows(uvIn, "uv", 2, false);
        host::TextureSampleSettings settings;
        settings.modeU = static_cast<TEXTUREMODE>(Pick("mode", modeU ? *modeU : mode, MODES));
        settings.modeV = static_cast<TEXTUREMODE>(Pick("mode", modeV ? *modeV : mode, MODES));
        settings.interpolation =
            static_cast<TEXTUREINTERPOLATION>(Pick("interpolation", interpolation, INTERPOLATIONS));
        settings.colorSpace = static_cast<DESTINATIONCOLORSPACE>(Pick("color_space", colorSpace, COLORSPACES));
        settings.alpha = static_cast<ALPHAPROCESSING>(Pick("alpha", alpha, ALPHAS));
        settings.tile = tile;
        std::vector<Vector2d64> positions(static_cast<size_t>(uv.count)), footprints;
        for (size_t i = 0; i < positions.size(); ++i) positions[i] = {uv.data.data()[2 * i], uv.data.data()[2 * i + 1]};
        if (!footprintIn.is_none()) {
            const Rows f = AsRows(footprintIn, "footprint", 2, true);
            if (!f.single && f.count != uv.count) {
                throw py::value_error("uv and footprint must have the same length, not " + ShapeText(uv.data) +
                                      " and " + ShapeText(f.data));
            }
            footprints.resize(positions.size());
            for (size_t i = 0; i < footprints.size(); ++i) {
                const size_t k = f.single ? 0 : i;
                footprints[i] = {f.data.data()[2 * k], f.data.data()[2 * k + 1]};
            }
        }
        Result<ThreadedTextureRef> sampler = ThreadedTextureRef::Create(ref);
        if (sampler.IsError()) Throw(sampler.GetErrorPointer());
        std::vector<ColorA64> colors(positions.size());
        {
            py::gil_scoped_release release;
            host::TextureSampleBatch(sampler.GetValue(), positions.data(),
                                     footprints.empty() ? nullptr : footprints.data(), settings,
                                     colors.data(), uv.count);
        }
        py::array_t<double> out({static_cast<py::ssize_t>(colors.size()), py::ssize_t{4}});
        double* o = out.mutable_data();
        for (size_t i = 0; i < colors.size(); ++i) {
            o[4 * i] = colors[i].r, o[4 * i + 1] = colors[i].g, o[4 * i + 2] = colors[i].b, o[4 * i + 3] = colors[i].a;
        }
        return out;
    }

    struct Name {
        const char* name;
        Int32 value;
    };
    static constexpr Name MODES[] = {{"EXTEND", 0}, {"CLAMP", 1}, {"REPEAT", 2}, {"MIRROR", 3}, {nullptr, 0}};
    static constexpr Name INTERPOLATIONS[] = {{"NONE", 0}, {"LINEAR", 2}, {"MIP", 3}, {"RIP", 4},
                                              {"SUMMEDAREA", 5}, {"BICUBIC", 6}, {nullptr, 0}};
    static constexpr Name COLORSPACES[] = {{"RAW", 0}, {"LINEAR", 1}, {"SRGB", 2}, {nullptr, 0}};
    static constexpr Name ALPHAS[] = {{"NONE", 0},
                                      {"NOALPHA", 1},
                                      {"PROFILE_PREMULTIPLIED_TO_LINEAR_STRAIGHT", 2},
                                      {"LINEAR_PREMULTIPLIED_TO_LINEAR_STRAIGHT", 3},
                                      {"STRAIGHT_FROM_RGB", 4},
                                      {nullptr, 0}};

    static Int32 Pick(const char* what, const std::string& name, const Name* names) {
        std::string known;
        for (const Name* n = names; n->name; ++n) {
            if (name == n->name) return n->value;
            known += (known.empty() ? "" : ", ") + std::string(n->name);
        }
        throw py::value_error(std::string(what) + " must be one of " + known + ", not '" + name + "'");
    }
};

// ---- host --------------------------------------------------------------------------------------

struct Host {
    std::string modulePath;

    explicit Host(const std::optional<std::string>& path) {
        host::Host& h = host::Host::Start(host::HostOptions{});
        modulePath = path ? *path : DefaultModulePath();
        const std::string absolute = std::filesystem::absolute(modulePath).lexically_normal().string();
        // One process holds one copy of a module: a second Host of the same file shares it.
        for (const auto& m : h.GetModules()) {
            if (m->path == absolute) return;
        }
        Result<host::LoadedModule*> loaded = h.LoadModule(absolute);
        if (loaded.IsError()) Throw(loaded.GetErrorPointer());
    }

    py::dict Classes() const {
        py::dict out;
        for (const auto& r : host::Host::Get().ListRegistries()) out[py::str(r.id)] = r.entries;
        return out;
    }

    py::object Create(const std::string& id, const py::dict& params) const {
        for (const auto& r : host::Host::Get().ListRegistries()) {
            const bool listed = std::find(r.entries.begin(), r.entries.end(), id) != r.entries.end();
            if (!listed) continue;
            ObjectRef object = Check(CreateObjectById(LiteralId(r.id.c_str()), LiteralId(id.c_str())));
            if (r.id == "net.quorv.render.registry.cameraclasses") {
                Camera c{Check(CameraRef::Cast(object)), id};
                DataDictionary dict = Check(cli::BuildCameraParameters(ToParams(params)));
                Check(c.ref.Init(dict, 0));
                return py::cast(std::move(c));
            }
            if (r.id == BSDF_LEGACY_CLASS_REGISTRY_ID) {
                BSDF b{Check(BSDFLegacyRef::Cast(object)), id, nullptr};
                DataDictionary dict = Check(cli::BuildBSDFParameters(ToParams(params), nullptr));
                Check(b.ref.Init(dict, nullptr));
                return py::cast(std::move(b));
            }
            Throw("Class " + id + " of registry " + r.id + " has no Python face yet");
        }
        Throw("No class " + id + " in a registry of the loaded modules");
    }
};

// The module loaded by an earlier Host, or else the one at the default path.
void EnsureModule() {
    for (const auto& m : host::Host::Start(host::HostOptions{}).GetModules()) {
        if (!m->path.empty()) return;
    }
    Host host(std::nullopt);
}

Ies Ies::Read(const std::string& path) {
    EnsureModule();
    Url url = Check(Url::FromText(path));
    Result<IesRef> web = IesRef::Load(url);
    if (web.IsError()) Throw(path + ": " + std::string(web.GetErrorPointer()->message ? web.GetErrorPointer()->message : ErrorToString(web.GetErrorPointer())));
    return Ies{web.GetValue(), path};
}

Texture Texture::Load(const std::string& path, UInt32 flags, Float64 time) {
    EnsureModule();
    Url url = Check(Url::FromText(path));
    Result<TextureImpl*> t =
        TextureManagementInterface::LoadTexture(url.GetObject(), nullptr, 0, flags, nullptr, time, nullptr);
    if (t.IsError()) {
        const ErrorObject* e = t.GetErrorPointer();
        Throw(path + ": " + (e->message ? std::string(e->message) : ErrorToString(e)));
    }
    return Texture{TextureRef::Adopt(t.GetValue()), path};
}

}  // namespace

}  // namespace quorv::python

PYBIND11_MODULE(quorv, m) {
    using namespace quorv::python;
    m.doc() =
        "The quorv host and render module: cameras, legacy BSDFs and photometric webs, with "
        "batch calls on numpy arrays that run in C++ without the interpreter lock.";
    ErrorType() = py::exception<std::runtime_error>(m, "Error").release();

    py::class_<Host>(m, "Host", "Starts the host once per process and loads the render module.")
        .def(py::init<const std::optional<std::string>&>(), py::arg("module_path") = py::none(),
             "Loads the module at module_path (default: QUORV_MODULE, else lib/libquorv_render.so "
             "beside this extension's folder). A module already loaded from that file is shared.")
        .def_readonly("module_path", &Host::modulePath)
        .def("classes", &Host::Classes, "{registry id: [class ids]} of the loaded modules")
        .def("create", &Host::Create, py::arg("id"), py::arg("params") = py::dict(),
             "Creates a camera or legacy BSDF class by id and calls Init with params: full key "
             "ids for cameras, BSDF keys by number or name (e.g. 'BSDF_PARAM_ROUGHNESS').");

    py::class_<Camera>(m, "Camera")
        .def_readonly("id", &Camera::id)
        .def("rays", &Camera::Rays, py::arg("screen_xy"),
             "CreateScreenRay for each row of an (N, 2) array of screen positions; a dict of (N, 3) "
             "arrays: origin, direction and the four differentials.");

    py::class_<BSDF>(m, "BSDF")
        .def_readonly("id", &BSDF::id)
        .def("eval", &BSDF::Eval, py::arg("wo"), py::arg("wi"),
             "ComputeBSDF(wo, wi, wi) for each row: wo (3,) or (N, 3), wi (N, 3) in the local frame "
             "(+z the normal). Returns (values (N, 3), pdfs (N,)).")
        .def("sample", &BSDF::Sample, py::arg("wo"), py::arg("samples"),
             "SampleF for each index of samples (N,) into the table of sample records of seed "
             "100. Returns (values (N, 3), pdfs (N,), wi (N, 3)); a rejected sample has wi 0.");

    py::class_<Texture>(m, "Texture", "A picture loaded as a texture through the module's texture cache.")
        .def_static("load", &Texture::Load, py::arg("path"), py::arg("flags") = 0, py::arg("time") = 0.0,
                    "LoadTexture of a picture file (PNG, JPEG, TIFF, EXR, HDR, ...); flags bit 0 "
                    "converts to floating point; time picks the frame of a sequence.")
        .def_readonly("path", &Texture::path)
        .def_property_readonly("info", &Texture::Info, "What `quorv texture info` prints")
        .def("sample", &Texture::Sample, py::arg("uv"), py::arg("footprint") = py::none(),
             py::arg("mode") = "CLAMP", py::arg("mode_u") = py::none(), py::arg("mode_v") = py::none(),
             py::arg("interpolation") = "LINEAR", py::arg("color_space") = "RAW", py::arg("alpha") = "NONE",
             py::arg("tile") = true,
             "Sample for each row of an (N, 2) array of uv positions; footprint (2,) or (N, 2). "
             "Modes EXTEND, CLAMP, REPEAT, MIRROR; interpolation NONE, LINEAR, MIP, RIP, "
             "SUMMEDAREA, BICUBIC; color_space RAW, LINEAR, SRGB. Returns RGBA (N, 4).");

    py::class_<Ies>(m, "Ies", "A photometric web (IES LM-63 file) read through the module.")
        .def_static("read", &Ies::Read, py::arg("path"),
                    "Reads a web through the loaded module (the module of the default path when no Host "
                    "loaded one yet).")
        .def_readonly("path", &Ies::path)
        .def_property_readonly("properties", &Ies::Properties,
                               "Version, tilt, texts, shape, size, counts, maximum, power ratio, "
                               "checksum: what `quorv ies info` prints")
        .def("intensity", &Ies::Intensity, py::arg("directions"),
             "Relative intensity for each row of an (N, 3) array of directions (z the web's "
             "vertical axis); returns (N,).")
        .def("preview", &Ies::Preview, py::arg("size") = 256,
             "The preview picture of a room lit by the web, float32 (size, size).")
        .def("text", &Ies::Text, "The web written back as IES text (bytes, 8-bit).");
}
