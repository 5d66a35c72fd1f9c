// Photometric webs: reader paths on our own files and on real ones, writer, checksum, queries,
// serialisation and the preview, through the module's functions linked into the test.
#include <gtest/gtest.h>

#include "common/test_support.h"

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "host/src/host_internal.h"
#include "quorv/dataserialize.h"
#include "render/photometric/ies_impl.h"

namespace quorv {
namespace {

namespace fs = std::filesystem;

constexpr Float64 DEG = 3.141592653589793 / 180.0;

std::string Own(const std::string& name) { return std::string(QUORV_TEST_DATA_DIR) + "/ies/" + name; }
std::string Shared(const std::string& name) {
    return std::string(QUORV_SHARED_TESTDATA_DIR) + "/ies/" + name;
}

Float64 RelativeDifference(Float64 a, Float64 b) {
    const Float64 scale = std::max(std::fabs(a), std::fabs(b));
    return scale == 0 ? 0 : std::fabs(a - b) / scale;
}

std::string MessageOf(const Result<void>& r) {
    ErrorObject* e = r.GetErrorPointer();
    return e && e->message ? e->message : "";
}

struct Web {
    IesImpl* p = ies::Alloc(QUORV_SOURCE_LOCATION);
    ~Web() { ies::Free(p); }
    IesImpl* operator->() const { return p; }
};

Result<void> LoadFile(IesImpl* ies, const std::string& path) {
    Result<Url> url = Url::FromText(path);
    if (url.IsError()) return url.GetError();
    return ies::Init(ies, url.GetValue().GetObject());
}

Result<void> LoadText(IesImpl* ies, const std::string& text) {
    return ies::InitFromText(ies, text.data(), static_cast<Int>(text.size()));
}

template <typename T>
T Prop(const IesImpl* ies, Int32 key, T fallback) {
    return ies->_properties.Get<T>(key, fallback);
}

std::string Str(const IesImpl* ies, Int32 key) { return Prop<std::string>(ies, key, "<absent>"); }

std::vector<Float64> Values(const BaseArray<Float64>& a) {
    return std::vector<Float64>(a.GetFirst(), a.GetFirst() + a.GetCount());
}

// The writer's text in the 8-bit form a file would have.
std::string Latin1(const String& s) {
    std::string utf8 = s.ToUtf8(), out;
    for (size_t i = 0; i < utf8.size(); ++i) {
        auto c = static_cast<unsigned char>(utf8[i]);
        if (c >= 0xC0 && i + 1 < utf8.size()) {
            out.push_back(static_cast<char>(((c & 0x1F) << 6) | (utf8[++i] & 0x3F)));
        } else {
            out.push_back(static_cast<char>(c));
        }
    }
    return out;
}

// A direction that the query reads at exactly these angles. Vertical angle 0 is -z and the
// query scales z by 0.999999; phi runs from +y towards +x.
Vector64 Direction(Float64 thetaDeg, Float64 phiDeg) {
    return {std::sin(thetaDeg * DEG) * std::sin(phiDeg * DEG),
            std::sin(thetaDeg * DEG) * std::cos(phiDeg * DEG), -std::cos(thetaDeg * DEG) / 0.999999};
}

// ---- reader -----------------------------------------------------------------------------------

TEST(IesReader, VersionLines) {
    struct Case {
        const char* file;
        IESVERSION version;
    } cases[] = {{"v1986.ies", IESVERSION::V1986},
                 {"v1991.ies", IESVERSION::V1991},
                 {"v1995.ies", IESVERSION::V1995},
                 {"v2002.ies", IESVERSION::V2002},
                 {"version_late.ies", IESVERSION::V1991}};
    for (const Case& c : cases) {
        Web w;
        ASSERT_TRUE(LoadFile(w.p, Own(c.file)).IsOk()) << c.file;
        EXPECT_EQ(Prop(w.p, IesPropertyVersion, IESVERSION::V2002), c.version) << c.file;
        EXPECT_EQ(Prop(w.p, IesPropertyTilt, IESTILT::UNKNOWN), IESTILT::NONE) << c.file;
        EXPECT_EQ(Values(w->_data), (std::vector<Float64>{100, 50, 0})) << c.file;
    }
    Web w;
    ASSERT_TRUE(LoadFile(w.p, Own("v2002.ies")).IsOk());
    EXPECT_EQ(Str(w.p, IesPropertyManufacturer), "ACME Lighting");
    EXPECT_EQ(Str(w.p, IesPropertyLamp), "<absent>");
}

TEST(IesReader, TiltLines) {
    for (const char* f : {"tilt_blanks.ies", "tilt_include_0.ies", "tilt_include_2.ies"}) {
        Web w;
        ASSERT_TRUE(LoadFile(w.p, Own(f)).IsOk()) << f << ": " << MessageOf(LoadFile(w.p, Own(f)));
        EXPECT_EQ(Values(w->_anglesVertical), (std::vector<Float64>{0, 45, 90})) << f;
        EXPECT_EQ(Values(w->_data), (std::vector<Float64>{100, 50, 0})) << f;
    }
    Web include;
    ASSERT_TRUE(LoadFile(include.p, Own("tilt_include_2.ies")).IsOk());
    EXPECT_EQ(Prop(include.p, IesPropertyTilt, IESTILT::UNKNOWN), IESTILT::INCLUDE);

    struct Bad {
        const char* file;
        const char* message;
    } bad[] = {{"tilt_lower.ies", "IES Header incomplete"},
               {"header_incomplete.ies", "IES Header incomplete"},
               {"tilt_file.ies", "IES file error in line 3"},
               {"tilt_no_equals.ies", "IES file error in line 3"}};
    for (const Bad& b : bad) {
        Web w;
        Result<void> r = LoadFile(w.p, Own(b.file));
        ASSERT_TRUE(r.IsError()) << b.file;
        EXPECT_EQ(MessageOf(r), b.message) << b.file;
        EXPECT_EQ(r.GetErrorPointer()->id.View(), "net.quorv.error.fileformat");
        ASSERT_NE(r.GetErrorPointer()->subject, nullptr) << b.file;
        EXPECT_TRUE(std::string_view(r.GetErrorPointer()->subject).ends_with(b.file))
            << r.GetErrorPointer()->subject;
        EXPECT_EQ(ies::GetChecksum(w.p), 0u) << "no checksum after a failure";
    }
}

TEST(IesReader, NumberLayouts) {
    for (const char* f : {"commas.ies", "wrapped.ies"}) {
        Web w;
        ASSERT_TRUE(LoadFile(w.p, Own(f)).IsOk()) << f;
        EXPECT_EQ(Values(w->_anglesVertical), (std::vector<Float64>{0, 45, 90})) << f;
        EXPECT_EQ(Values(w->_anglesHorizontal), (std::vector<Float64>{0})) << f;
        EXPECT_EQ(Values(w->_data), (std::vector<Float64>{100, 50, 0})) << f;
        EXPECT_EQ(w->_dataMax, 100.0);
        EXPECT_EQ(Prop(w.p, IesPropertyMaxIntensity, -1.0), 100.0);
    }
}

TEST(IesReader, KeywordLines) {
    Web twice;
    ASSERT_TRUE(LoadFile(twice.p, Own("lamp_twice.ies")).IsOk());
    EXPECT_EQ(Str(twice.p, IesPropertyLamp), "100W A19; clear");

    Web cat;
    ASSERT_TRUE(LoadFile(cat.p, Own("lampcat.ies")).IsOk());
    EXPECT_EQ(Str(cat.p, IesPropertyLampCatalog), "X-100");
    EXPECT_EQ(Str(cat.p, IesPropertyLamp), "A19");

    Web tight;
    ASSERT_TRUE(LoadFile(tight.p, Own("lumcat_tight.ies")).IsOk());
    EXPECT_EQ(Str(tight.p, IesPropertyLuminaireCatalog), "RX-7");
    // [MORE] is not a stored keyword, so nothing joins the luminaire line.
    EXPECT_EQ(Str(tight.p, IesPropertyLuminaire), "Downlight, 6 inch");
}

TEST(IesReader, FactorsCountsAndTruncation) {
    Web ballast;
    ASSERT_TRUE(LoadFile(ballast.p, Own("ballast_lamp_zero.ies")).IsOk());
    // multiplier 2 * ballast 0.5 * ballast-lamp 0 taken as 1
    EXPECT_EQ(Values(ballast->_data), (std::vector<Float64>{100, 50, 0}));

    Web zero;
    ASSERT_TRUE(LoadFile(zero.p, Own("counts_zero.ies")).IsOk());
    EXPECT_EQ(zero->_anglesVertical.GetCount(), 0);
    EXPECT_EQ(zero->_data.GetCount(), 0);
    EXPECT_EQ(zero->_dataPower, IES_FULL_SPHERE);
    EXPECT_EQ(ies::ComputeLightIntensity(zero.p, {0, 0, -1}), 0.0);

    Web cut;
    Result<void> r = LoadFile(cut.p, Own("truncated.ies"));
    ASSERT_TRUE(r.IsError());
    EXPECT_EQ(MessageOf(r), "Unexpected end of file in line 9");
    EXPECT_EQ(Values(cut->_data), (std::vector<Float64>{100, 50, 0, 80, 0, 0})) << "no rollback";

    for (const char* f : {"too_many_angles.ies", "negative_count.ies"}) {
        Web w;
        EXPECT_EQ(MessageOf(LoadFile(w.p, Own(f))), "IES: Incorrect number or angles") << f;
    }

    Web missing;
    Result<void> none = LoadFile(missing.p, Own("does_not_exist.ies"));
    EXPECT_EQ(MessageOf(none), "Cannot read " + Own("does_not_exist.ies") + ": No such file or directory");
}

std::string WebWithCount(Int nV) {
    std::ostringstream t;
    t << "TILT=NONE\n1 1 1 " << nV << " 1 1 2 0 0 0 1 1 1\n";
    for (Int i = 0; i < nV; ++i) t << i * 0.1 << ' ';
    t << "\n0\n";
    for (Int i = 0; i < nV; ++i) t << 1 << ' ';
    return t.str();
}

// A second Init on one object searches its maximum from the old one, so a smaller web keeps
// the larger maximum; callers use a fresh object per file.
TEST(IesReader, SecondInitKeepsOldMaximum) {
    Web w;
    ASSERT_TRUE(LoadFile(w.p, Own("sym_full.ies")).IsOk());
    EXPECT_EQ(w->_dataMax, 400.0);
    ASSERT_TRUE(LoadFile(w.p, Own("v2002.ies")).IsOk());
    EXPECT_EQ(w->_dataMax, 400.0);
    EXPECT_EQ(Values(w->_data), (std::vector<Float64>{100, 50, 0}));
    EXPECT_NEAR(ies::ComputeLightIntensity(w.p, Direction(45, 0)), 0.125, 1e-9);
}

TEST(IesReader, AngleCountLimit) {
    Web ok;
    ASSERT_TRUE(LoadText(ok.p, WebWithCount(1024)).IsOk());
    EXPECT_EQ(ok->_anglesVertical.GetCount(), 1024);
    Web over;
    EXPECT_EQ(MessageOf(LoadText(over.p, WebWithCount(1025))), "IES: Incorrect number or angles");
}

TEST(IesReader, ShapeTable) {
    struct Row {
        Float64 w, l, h;
        AREALIGHTSHAPE shape;
        Vector64 size;
    } rows[] = {
        {0, 0, 0, AREALIGHTSHAPE::NONE, {0, 0, 0}},
        {2, 3, 0, AREALIGHTSHAPE::RECTANGLE, {2, 3, 0}},
        {2, 0, 4, AREALIGHTSHAPE::RECTANGLE, {2, 4, 0}},
        {0, 3, 4, AREALIGHTSHAPE::RECTANGLE, {4, 3, 0}},
        {2, 3, 4, AREALIGHTSHAPE::CUBE, {2, 3, 4}},
        {-2, 0, 0, AREALIGHTSHAPE::DISC, {2, 2, 2}},
        {-2, 0, -4, AREALIGHTSHAPE::SPHERE, {2, 2, 2}},
        {-2, 0, 4, AREALIGHTSHAPE::CYLINDER, {2, 2, 4}},
        {0, 3, -4, AREALIGHTSHAPE::PCYLINDER, {3, 4, 4}},
        {2, 0, -4, AREALIGHTSHAPE::PCYLINDER, {2, 4, 4}},
        {-2, 3, 4, AREALIGHTSHAPE::DISC, {2, 3, 0}},
        {2, -3, 4, AREALIGHTSHAPE::DISC, {2, 3, 0}},
        {-2, 3, -4, AREALIGHTSHAPE::SPHERE, {2, 3, 4}},
        {2, -3, -4, AREALIGHTSHAPE::SPHERE, {2, 3, 4}},
        {-2, -3, -4, AREALIGHTSHAPE::NONE, {0, 0, 0}},
        {0, -3, 0, AREALIGHTSHAPE::NONE, {0, 0, 0}},
    };
    for (const Row& r : rows) {
        std::ostringstream t;
        t << "TILT=NONE\n1 1 1 1 1 1 2 " << r.w << ' ' << r.l << ' ' << r.h << " 1 1 1 0 0 5";
        Web w;
        ASSERT_TRUE(LoadText(w.p, t.str()).IsOk()) << t.str();
        EXPECT_EQ(Prop(w.p, IesPropertyShape, AREALIGHTSHAPE::LINE), r.shape) << t.str();
        EXPECT_EQ(Prop(w.p, IesPropertySize, Vector64{-1, -1, -1}), r.size) << t.str();
    }
    Web feet;
    ASSERT_TRUE(LoadFile(feet.p, Own("feet_cylinder.ies")).IsOk());
    EXPECT_EQ(Prop(feet.p, IesPropertyShape, AREALIGHTSHAPE::NONE), AREALIGHTSHAPE::CYLINDER);
    Vector64 size = Prop(feet.p, IesPropertySize, Vector64{});
    EXPECT_EQ(size.x, 0.5 * 0.3048);
    EXPECT_EQ(size.y, 0.5 * 0.3048);
    EXPECT_EQ(size.z, 0.2 * 0.3048);
    EXPECT_DOUBLE_EQ(size.x, 0.1524);
    EXPECT_DOUBLE_EQ(size.z, 0.06096);
}

// ---- real files -------------------------------------------------------------------------------

std::vector<std::string> SharedFiles() {
    std::vector<std::string> files;
    for (const auto& e : fs::directory_iterator(std::string(QUORV_SHARED_TESTDATA_DIR) + "/ies")) {
        std::string ext = e.path().extension().string();
        if (ext == ".ies" || ext == ".IES") files.push_back(e.path().string());
    }
    std::sort(files.begin(), files.end());
    return files;
}

TEST(IesRealFiles, ReadWriteReadAndQuery) {
    QUORV_SKIP_WITHOUT_SHARED_TESTDATA();
    std::vector<std::string> files = SharedFiles();
    ASSERT_GE(files.size(), 14u);
    for (const std::string& f : files) {
        SCOPED_TRACE(f);
        Web first;
        Result<void> r = LoadFile(first.p, f);
        ASSERT_TRUE(r.IsOk()) << MessageOf(r);
        ASSERT_GT(first->_anglesVertical.GetCount(), 0);
        EXPECT_GT(first->_dataMax, 0.0);
        EXPECT_NE(ies::GetChecksum(first.p), 0u);

        Result<String> text = ies::ConvertToText(first.p);
        ASSERT_TRUE(text.IsOk());
        Web second;
        std::string latin1 = Latin1(text.GetValue());
        ASSERT_TRUE(LoadText(second.p, latin1).IsOk()) << MessageOf(LoadText(second.p, latin1));
        auto near = [](const BaseArray<Float64>& a, const BaseArray<Float64>& b) {
            if (a.GetCount() != b.GetCount()) return false;
            for (Int i = 0; i < a.GetCount(); ++i) {
                if (std::abs(a[i] - b[i]) > 0.0005 + 1e-12 * std::abs(a[i])) return false;
            }
            return true;
        };
        EXPECT_TRUE(near(first->_anglesVertical, second->_anglesVertical));
        EXPECT_TRUE(near(first->_anglesHorizontal, second->_anglesHorizontal));
        EXPECT_TRUE(near(first->_data, second->_data));
        // An empty keyword line stores "", which the writer leaves out.
        for (Int32 key : {IesPropertyLamp, IesPropertyManufacturer, IesPropertyLuminaire}) {
            EXPECT_EQ(Prop<std::string>(first.p, key, ""), Prop<std::string>(second.p, key, ""));
        }

        for (Float64 theta = 0; theta <= 180; theta += 7.5) {
            for (Float64 phi = 0; phi < 360; phi += 11.25) {
                Float64 i = ies::ComputeLightIntensity(first.p, Direction(theta, phi));
                ASSERT_TRUE(std::isfinite(i) && i >= 0) << theta << " " << phi << " " << i;
            }
        }
        for (Vector64 d : {Vector64{0, 0, 1}, Vector64{0, 0, -1}, Vector64{1, 0, 0},
                           Vector64{-1, 0, 0}, Vector64{0, -1, 0}, Vector64{0, 0, 0}}) {
            Float64 i = ies::ComputeLightIntensity(first.p, d);
            EXPECT_TRUE(std::isfinite(i) && i >= 0);
        }
        Float64 power = ies::GetLightPowerRatio(first.p);
        EXPECT_TRUE(power > 0 && power <= IES_FULL_SPHERE * 1.5) << power;
    }
}

TEST(IesRealFiles, KnownHeaders) {
    QUORV_SKIP_WITHOUT_SHARED_TESTDATA();
    Web spot;
    ASSERT_TRUE(LoadFile(spot.p, Shared("rp_defined_diffuse_spot.ies")).IsOk());
    EXPECT_EQ(Prop(spot.p, IesPropertyVersion, IESVERSION::V2002), IESVERSION::V1986);
    EXPECT_EQ(Prop(spot.p, IesPropertyShape, AREALIGHTSHAPE::NONE), AREALIGHTSHAPE::DISC);

    Web rad;
    ASSERT_TRUE(LoadFile(rad.p, Shared("rad_examp1.ies")).IsOk());
    // "IESNA95" is no version line of ours.
    EXPECT_EQ(Prop(rad.p, IesPropertyVersion, IESVERSION::V2002), IESVERSION::V1986);
    EXPECT_EQ(Str(rad.p, IesPropertyManufacturer), "Ledalite Architectural Products  604-888-6811");
    EXPECT_EQ(Str(rad.p, IesPropertyLamp), "FO32T8 (EO)");
    EXPECT_EQ(rad->_anglesVertical.GetCount(), 73);
    EXPECT_EQ(rad->_anglesHorizontal.GetCount(), 5);

    Web medium;
    ASSERT_TRUE(LoadFile(medium.p, Shared("rp_medium_scatter.ies")).IsOk());
    EXPECT_EQ(Prop(medium.p, IesPropertyVersion, IESVERSION::V1986), IESVERSION::V2002);
}

// ---- writer -----------------------------------------------------------------------------------

TEST(IesWriter, ExactText) {
    Web w;
    ASSERT_TRUE(LoadFile(w.p, Own("lamp_twice.ies")).IsOk());
    Result<String> t = ies::ConvertToText(w.p);
    ASSERT_TRUE(t.IsOk());
    EXPECT_EQ(t.GetValue().ToUtf8(),
              "IESNA:LM-63-2002\n[LAMP]100W A19; clear\nTILT=NONE\n"
              "1 1 1 3 1 1 2 0 0 0\n1 1 1\n0 45 90 \n0 \n100 50 0 ");

    Web empty;
    EXPECT_EQ(ies::ConvertToText(empty.p).GetValue().ToUtf8(), "1 1 1 0 0 1 2 0 0 0\n1 1 1");

    // Twelve vertical angles: a line of ten and one of two. No vertical angles: one empty line
    // per plane.
    BaseArray<Float64> v, h, d;
    ASSERT_TRUE(v.Resize(12).IsOk());
    for (Int i = 0; i < 12; ++i) v[i] = i * 0.125;
    v[11] = 45.0626;  // at most three decimals: "45.063", never "45.0626"
    ASSERT_TRUE(h.Resize(1).IsOk());
    ASSERT_TRUE(d.Resize(12).IsOk());
    Web twelve;
    ies::SetRawAccess(twelve.p, nullptr, &v, &h, &d, 0, IES_FULL_SPHERE);
    EXPECT_EQ(ies::ConvertToText(twelve.p).GetValue().ToUtf8(),
              "1 1 1 12 1 1 2 0 0 0\n1 1 1\n0 0.125 0.25 0.375 0.5 0.625 0.75 0.875 1 1.125 "
              "\n1.25 45.063 \n0 \n0 0 0 0 0 0 0 0 0 0 \n0 0 ");
    ASSERT_TRUE(h.Resize(2).IsOk());
    h[1] = 90;
    Web noVertical;
    ies::SetRawAccess(noVertical.p, nullptr, nullptr, &h, nullptr, 0, IES_FULL_SPHERE);
    EXPECT_EQ(ies::ConvertToText(noVertical.p).GetValue().ToUtf8(),
              "1 1 1 0 2 1 2 0 0 0\n1 1 1\n0 90 \n\n");
}

// ---- checksum, identity, raw access -----------------------------------------------------------

TEST(IesChecksum, Crc32cAgainstBitwise) {
    EXPECT_EQ(ies::Crc32c(0, "123456789", 9), 0xE3069283u);
    auto bitwise = [](const unsigned char* p, size_t n) {
        UInt32 c = 0xFFFFFFFFu;
        for (size_t i = 0; i < n; ++i) {
            c ^= p[i];
            for (int k = 0; k < 8; ++k) c = (c & 1) ? (c >> 1) ^ 0x82F63B78u : c >> 1;
        }
        return ~c;
    };
    std::mt19937 rng(7);
    std::vector<unsigned char> bytes(300);
    for (auto& b : bytes) b = static_cast<unsigned char>(rng());
    for (size_t n : {0u, 1u, 7u, 8u, 9u, 63u, 64u, 300u}) {
        EXPECT_EQ(ies::Crc32c(0, bytes.data(), static_cast<Int>(n)), bitwise(bytes.data(), n)) << n;
        // In two pieces, as the checksum of a web is fed.
        UInt32 split = ies::Crc32c(ies::Crc32c(0, bytes.data(), static_cast<Int>(n / 3)),
                                   bytes.data() + n / 3, static_cast<Int>(n - n / 3));
        EXPECT_EQ(split, bitwise(bytes.data(), n)) << n;
    }
}

TEST(IesChecksum, ContentAndIdentity) {
    Web empty;
    EXPECT_EQ(ies::GetChecksum(empty.p), 0u);
    EXPECT_EQ(ies::GetLightPowerRatio(empty.p), 12.566370614359172);
    ASSERT_NE(ies::GetDefaultIes(), nullptr);
    EXPECT_EQ(ies::GetChecksum(ies::GetDefaultIes()), 0u);

    Web a, b, other;
    ASSERT_TRUE(LoadFile(a.p, Own("v2002.ies")).IsOk());
    ASSERT_TRUE(LoadFile(b.p, Own("v2002.ies")).IsOk());
    EXPECT_EQ(ies::GetChecksum(a.p), ies::GetChecksum(b.p));
    EXPECT_NE(ies::Compare(a.p, b.p), 0);
    EXPECT_EQ(ies::Compare(a.p, a.p), 0);
    EXPECT_EQ(ies::Compare(a.p, b.p), -ies::Compare(b.p, a.p));
    host::ClearCriticalLogEntries();
    EXPECT_EQ(ies::GetHashCode(a.p), 0u);
    std::vector<std::string> log = host::GetCriticalLogCopy();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0], "Stop: GetHashCode not defined.");
    // Only keywords differ: the same checksum.
    Web lamp, cat;
    ASSERT_TRUE(LoadFile(lamp.p, Own("lamp_twice.ies")).IsOk());
    ASSERT_TRUE(LoadFile(cat.p, Own("lampcat.ies")).IsOk());
    EXPECT_EQ(ies::GetChecksum(lamp.p), ies::GetChecksum(cat.p));
    ASSERT_TRUE(LoadFile(other.p, Own("v1995.ies")).IsOk());
    EXPECT_NE(ies::GetChecksum(a.p), ies::GetChecksum(other.p)) << "the version counts";

    // The byte sequence: version, tilt, max, nV, nH, angles, data.
    std::vector<unsigned char> bytes;
    auto add = [&](const void* p, size_t n) {
        bytes.insert(bytes.end(), static_cast<const unsigned char*>(p),
                     static_cast<const unsigned char*>(p) + n);
    };
    Int32 version = 3, tilt = 1;
    Int nV = 3, nH = 1;
    Float64 max = 100, V[] = {0, 45, 90}, H[] = {0}, D[] = {100, 50, 0};
    add(&version, 4), add(&tilt, 4), add(&max, 8), add(&nV, 8), add(&nH, 8);
    add(V, 24), add(H, 8), add(D, 24);
    EXPECT_EQ(ies::GetChecksum(a.p), ies::Crc32c(0, bytes.data(), static_cast<Int>(bytes.size())));
}

TEST(IesRawAccess, MoveAndSelfArguments) {
    Web source;
    ASSERT_TRUE(LoadFile(source.p, Own("sym_quadrant.ies")).IsOk());
    const UInt32 checksum = ies::GetChecksum(source.p);
    DataDictionary* props;
    BaseArray<Float64>*v, *h, *d;
    Float64 max = 0, power = 0;
    ies::GetRawAccess(source.p, &props, &v, &h, &d, &max, &power);
    EXPECT_EQ(v, &source->_anglesVertical);
    EXPECT_EQ(max, 300.0);
    EXPECT_EQ(power, source->_dataPower);

    // Moving into a fresh web empties the source's arrays.
    Web target;
    ies::SetRawAccess(target.p, props, v, h, d, max, 1.5);
    EXPECT_EQ(ies::GetChecksum(target.p), checksum);
    EXPECT_EQ(ies::GetLightPowerRatio(target.p), 1.5) << "the caller's power stays";
    EXPECT_EQ(source->_data.GetCount(), 0);
    EXPECT_TRUE(source->_properties.IsNull());
    EXPECT_EQ(target->_anglesHorizontal.GetCount(), 3);

    // Its own members: nothing moves, the checksum is computed again.
    target->_checksum = 12345;
    ies::SetRawAccess(target.p, &target->_properties, &target->_anglesVertical,
                      &target->_anglesHorizontal, &target->_data, 300, 1.5);
    EXPECT_EQ(target->_data.GetCount(), 12);
    EXPECT_EQ(ies::GetChecksum(target.p), checksum);
}

TEST(IesSerialisation, SaveAndLoad) {
    QUORV_SKIP_WITHOUT_SHARED_TESTDATA();
    Web original;
    ASSERT_TRUE(LoadFile(original.p, Shared("rp_jelly_fish.ies")).IsOk());
    Result<CStringObject*> json = DataSerializeInterface::WriteJson(original.p, &ies::DescribeIO);
    ASSERT_TRUE(json.IsOk()) << ErrorToString(json.GetErrorPointer());
    CString text(json.GetValue());
    RemoveReference(json.GetValue());
    EXPECT_NE(text.View().find("\"_anglesVertical\""), std::string_view::npos);

    Web loaded;
    Result<void> r = DataSerializeInterface::ReadJson(loaded.p, &ies::DescribeIO, text.View().data(),
                                                      static_cast<Int>(text.View().size()));
    ASSERT_TRUE(r.IsOk()) << MessageOf(r);
    EXPECT_EQ(Values(loaded->_anglesVertical), Values(original->_anglesVertical));
    EXPECT_EQ(Values(loaded->_anglesHorizontal), Values(original->_anglesHorizontal));
    EXPECT_EQ(Values(loaded->_data), Values(original->_data));
    EXPECT_EQ(loaded->_dataMax, original->_dataMax);
    EXPECT_EQ(loaded->_dataPower, original->_dataPower);
    EXPECT_EQ(loaded->_checksum, original->_checksum);
    EXPECT_EQ(ies::ComputeChecksum(loaded.p), original->_checksum);
    EXPECT_EQ(Str(loaded.p, IesPropertyLuminaire), Str(original.p, IesPropertyLuminaire));
    EXPECT_EQ(Prop(loaded.p, IesPropertyVersion, IESVERSION::V1986), IESVERSION::V1995);
    EXPECT_EQ(Prop(loaded.p, IesPropertySize, Vector64{}), Prop(original.p, IesPropertySize, Vector64{1, 1, 1}));

    Web broken;
    Result<void> bad = DataSerializeInterface::ReadJson(broken.p, &ies::DescribeIO, "{\"_dataMax\":\"x\"}", 16);
    EXPECT_EQ(MessageOf(bad), "Bad value of member _dataMax");
}

// ---- queries ----------------------------------------------------------------------------------

TEST(IesQuery, HorizontalFolding) {
    Web quadrant;
    ASSERT_TRUE(LoadFile(quadrant.p, Own("sym_quadrant.ies")).IsOk());
    // H from 0 to 90: phi 100 reads the plane at 80, and so does 260 and 280.
    const Float64 at80 = ies::ComputeLightIntensity(quadrant.p, Direction(45, 80));
    EXPECT_GT(at80, 0.0);
    for (Float64 phi : {100.0, 260.0, 280.0}) {
        EXPECT_NEAR(ies::ComputeLightIntensity(quadrant.p, Direction(45, phi)), at80, 1e-12) << phi;
    }
    // At the stored planes the web's own values come back.
    EXPECT_NEAR(ies::ComputeLightIntensity(quadrant.p, Direction(30, 45)), 160.0 / 300, 1e-9);
    EXPECT_NEAR(ies::ComputeLightIntensity(quadrant.p, Direction(60, 90)), 120.0 / 300, 1e-9);

    Web bilateral;
    ASSERT_TRUE(LoadFile(bilateral.p, Own("sym_bilateral_90.ies")).IsOk());
    // H from 90 to 270 and phi 0: d = 90, read at 90 from h0, the plane at 180.
    EXPECT_NEAR(ies::ComputeLightIntensity(bilateral.p, Direction(30, 0)), 160.0 / 300, 1e-9);
    EXPECT_NEAR(ies::ComputeLightIntensity(bilateral.p, Direction(30, 90)), 80.0 / 300, 1e-9);
    EXPECT_NEAR(ies::ComputeLightIntensity(bilateral.p, Direction(30, 270)), 240.0 / 300, 1e-9);

    Web single;
    ASSERT_TRUE(LoadFile(single.p, Own("sym_single.ies")).IsOk());
    const Float64 any = ies::ComputeLightIntensity(single.p, Direction(40, 0));
    for (Float64 phi : {33.0, 190.0, 301.0}) {
        EXPECT_EQ(ies::ComputeLightIntensity(single.p, Direction(40, phi)), any) << phi;
    }

    Web full;
    ASSERT_TRUE(LoadFile(full.p, Own("sym_full.ies")).IsOk());
    EXPECT_NEAR(ies::ComputeLightIntensity(full.p, Direction(30, 270)), 320.0 / 400, 1e-9);
    EXPECT_NEAR(ies::ComputeLightIntensity(full.p, Direction(30, 135)), (160.0 + 240) / 2 / 400, 1e-9);
}

TEST(IesQuery, VerticalEnds) {
    Web w;
    ASSERT_TRUE(LoadFile(w.p, Own("sym_single.ies")).IsOk());
    // +z is vertical angle 180, beyond a web that ends at 90.
    EXPECT_EQ(ies::ComputeLightIntensity(w.p, {0, 0, 1}), 0.0);
    // -z reads just off the pole, at about 0.081 degrees: on the slope of -20 per 30 degrees
    // towards the next angle.
    const Float64 pole = ies::ComputeLightIntensity(w.p, {0, 0, -1});
    const Float64 tp = std::acos(0.999999) * 57.29577951308232 / 30;
    EXPECT_NEAR(pole, (100 - 20 * tp + 10 * tp * tp - 10 * tp * tp * tp) / 100, 1e-12);
    EXPECT_LT(pole, 1.0);
    // Horizontal: v = 90 exactly is t = 1 on the last interval, the last value.
    EXPECT_EQ(ies::ComputeLightIntensity(w.p, {0, 1, 0}), 0.0 / 100);

    // The spline between the rows, against the formula written out.
    const Float64 V[] = {0, 30, 60, 90}, D[] = {100, 80, 40, 0};
    const Float64 v = 45.0;
    const Float64 t = (v - 30) / 30, dv = 30;
    const Float64 T0 = dv / (60 - 0) * (D[2] - D[0]), T1 = dv / (90 - 30) * (D[3] - D[1]);
    const Float64 p0 = D[1], p1 = D[2];
    const Float64 expect = p0 + T0 * t + (3 * (p1 - p0) - 2 * T0 - T1) * t * t +
                           (T0 + T1 - 2 * (p1 - p0)) * t * t * t;
    (void)V;
    EXPECT_NEAR(ies::ComputeLightIntensity(w.p, Direction(45, 0)), expect / 100, 1e-12);
}

TEST(IesQuery, PowerRatio) {
    // All zero: every direction 0 and the power of the whole sphere.
    std::string zero = "TILT=NONE\n1 1 1 3 2 1 2 0 0 0 1 1 1\n0 90 180\n0 360\n0 0 0 0 0 0";
    Web z;
    ASSERT_TRUE(LoadText(z.p, zero).IsOk());
    EXPECT_EQ(z->_dataPower, 12.566370614359172);
    EXPECT_EQ(ies::ComputeLightIntensity(z.p, Direction(30, 30)), 0.0);

    // Uniform over the whole sphere: every sample is 1, so the sum is exact.
    std::string uniform = "TILT=NONE\n1 1 1 3 2 1 2 0 0 0 1 1 1\n0 90 180\n0 360\n5 5 5 5 5 5";
    Web u;
    ASSERT_TRUE(LoadText(u.p, uniform).IsOk());
    EXPECT_EQ(u->_dataPower, 12.566370614359172);

    // Uniform lower hemisphere: half the sphere, to the sampling error.
    std::string half = "TILT=NONE\n1 1 1 2 1 1 2 0 0 0 1 1 1\n0 90\n0\n5 5";
    Web hemi;
    ASSERT_TRUE(LoadText(hemi.p, half).IsOk());
    EXPECT_NEAR(hemi->_dataPower, 2 * 3.141592653589793, 0.05);
    EXPECT_EQ(hemi->_dataPower, ies::ComputeDataPower(hemi.p)) << "fixed seed";
}

// Brute force: the web's values come back at the stored angles of every real file.
TEST(IesQuery, StoredNodesOfRealWebs) {
    QUORV_SKIP_WITHOUT_SHARED_TESTDATA();
    for (const char* f : {"rp_medium_scatter.ies", "lux_ASA_15M_R2.ies", "ew_3.IES", "rp_comet.ies"}) {
        SCOPED_TRACE(f);
        Web w;
        ASSERT_TRUE(LoadFile(w.p, Shared(f)).IsOk());
        const Int nV = w->_anglesVertical.GetCount(), nH = w->_anglesHorizontal.GetCount();
        const Float64 h0 = w->_anglesHorizontal[0];
        const Float64 range = w->_anglesHorizontal[nH - 1] - h0;
        if (h0 != 0 || range < 225) continue;  // full webs only: phi is the plane
        for (Int h = 0; h + 1 < nH; h += 3) {
            for (Int v = 1; v + 1 < nV; v += 2) {
                Float64 expect = w->_data[h * nV + v] / w->_dataMax;
                Float64 got = ies::ComputeLightIntensity(
                    w.p, Direction(w->_anglesVertical[v], w->_anglesHorizontal[h]));
                EXPECT_NEAR(got, expect, 1e-6) << h << " " << v;
            }
        }
    }
}

// ---- preview ----------------------------------------------------------------------------------

TEST(IesPreview, SizeErrorAndSymmetry) {
    Web w;
    ASSERT_TRUE(LoadFile(w.p, Own("sym_single.ies")).IsOk());
    std::vector<Float32> pixels(64 * 64, -1.0f);
    GreyImage32 wrong{64, 32, 64, pixels.data()};
    Result<void> r = ies::GeneratePreviewImageRows(
                w.p, wrong.width, wrong.height, ArraySetLine(&wrong), nullptr);
    EXPECT_EQ(MessageOf(r), "Width and height of image must match.");
    EXPECT_EQ(r.GetErrorPointer()->kind, ERRORKIND::ILLEGALARGUMENT);
    EXPECT_EQ(pixels[0], -1.0f) << "nothing rendered";

    GreyImage32 image{64, 64, 64, pixels.data()};
    ASSERT_TRUE(ies::GeneratePreviewImageRows(
                w.p, image.width, image.height, ArraySetLine(&image), nullptr).IsOk());
    Float64 total = 0, asymmetry = 0;
    for (Int y = 0; y < 64; ++y) {
        for (Int x = 0; x < 64; ++x) {
            const Float32 p = pixels[y * 64 + x];
            ASSERT_TRUE(std::isfinite(p) && p >= 0) << x << " " << y;
            total += p;
            // The subsamples of column x mirror those of 63 - x to a quarter pixel.
            asymmetry += std::abs(p - pixels[y * 64 + (63 - x)]);
        }
    }
    EXPECT_GT(total, 0.0);
    // Not exact: the bounce samples senders and cells on a grid of 1/32 that starts at -1 and
    // so leans to one side.
    EXPECT_LT(asymmetry / total, 0.07) << "a rotationally symmetric web lights both sides alike";
    Float64 left = 0, right = 0;
    for (Int y = 0; y < 64; ++y) {
        for (Int x = 0; x < 32; ++x) left += pixels[y * 64 + x], right += pixels[y * 64 + 63 - x];
    }
    EXPECT_NEAR(left / right, 1.0, 0.06);
    // A web lit on one side only is not symmetric at all.
    Web quadrant;
    ASSERT_TRUE(LoadFile(quadrant.p, Own("sym_full.ies")).IsOk());
    ASSERT_TRUE(ies::GeneratePreviewImageRows(
                quadrant.p, image.width, image.height, ArraySetLine(&image), nullptr).IsOk());
    Float64 lopsided = 0, sum = 0;
    for (Int y = 0; y < 64; ++y) {
        for (Int x = 0; x < 64; ++x) {
            sum += pixels[y * 64 + x];
            lopsided += std::abs(pixels[y * 64 + x] - pixels[y * 64 + (63 - x)]);
        }
    }
    EXPECT_GT(lopsided / sum, 0.15);

    // The lit floor (wall 2, y = +1) is at the bottom of the picture.
    Float64 top = 0, bottom = 0;
    for (Int x = 0; x < 64; ++x) top += pixels[2 * 64 + x], bottom += pixels[61 * 64 + x];
    EXPECT_GT(bottom, top);
}

// The preview modelled on its own from the steps of the picture, in double precision (the
// module sums in Float32 and blends with fused multiply-adds, hence the tolerance): direct light
// at the 32 x 32 vertices of six walls, one bounce from senders placed on the 1/32 grid to cell
// centres, counts per vertex, and 4 x 4 subsamples per pixel from the camera at (0, 0, -3).
std::vector<Float64> ModelPreview(const IesImpl* ies, int n) {
    struct V {
        Float64 x, y, z;
        V operator+(V o) const { return {x + o.x, y + o.y, z + o.z}; }
        V operator-(V o) const { return {x - o.x, y - o.y, z - o.z}; }
        V operator*(Float64 s) const { return {x * s, y * s, z * s}; }
        Float64 dot(V o) const { return x * o.x + y * o.y + z * o.z; }
    };
    struct Wall {
        V o, a, b, nrm;
    };
    const Wall walls[6] = {{{1, -1, -1}, {0, 1, 0}, {0, 0, 1}, {-1, 0, 0}},
                           {{-1, -1, -1}, {0, 1, 0}, {0, 0, 1}, {1, 0, 0}},
                           {{-1, 1, -1}, {1, 0, 0}, {0, 0, 1}, {0, -1, 0}},
                           {{-1, -1, -1}, {1, 0, 0}, {0, 0, 1}, {0, 1, 0}},
                           {{-1, -1, 1}, {1, 0, 0}, {0, 1, 0}, {0, 0, -1}},
                           {{-1, -1, -1}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}}};
    const V light{0, 0, 0.9};
    auto direct = [&](V p, V nrm) {
        const V d = p - light;
        const Float64 r = std::sqrt(d.dot(d));
        if (r == 0) return 0.0;
        const V w = d * (1.0 / r);
        return ies::ComputeLightIntensity(ies, {w.x, -w.z, -w.y}) * std::abs(nrm.dot(d) / r) / (r * r);
    };
    std::vector<Float64> e(6144), bounce(6144, 0.0);
    for (int w = 0; w < 6; ++w)
        for (int j = 0; j < 32; ++j)
            for (int i = 0; i < 32; ++i)
                e[w * 1024 + j * 32 + i] = static_cast<Float32>(
                    direct(walls[w].o + walls[w].a * (2.0 * i / 31) + walls[w].b * (2.0 * j / 31), walls[w].nrm));
    for (int v = 0; v < 6144; ++v) {
        if (!(e[v] > 0.001)) continue;
        const Wall& s = walls[v / 1024];
        const V sp = s.o + (s.a * (v % 32) + s.b * ((v % 1024) / 32)) * (2.0 / 32);
        for (int rw = 0; rw < 6; ++rw) {
            if (rw == v / 1024) continue;
            const Wall& r = walls[rw];
            for (int y = 0; y < 31; ++y)
                for (int x = 0; x < 31; ++x) {
                    const V d = r.o + (r.a * (x + 0.5) + r.b * (y + 0.5)) * (2.0 / 32) - sp;
                    const Float64 q = d.dot(d);
                    const Float64 add = d.dot(r.nrm) * -d.dot(s.nrm) / (q * q) * (e[v] / 256);
                    for (int c : {0, 1, 32, 33}) bounce[rw * 1024 + y * 32 + x + c] += add;
                }
        }
    }
    for (int v = 0; v < 6144; ++v) {
        const int x = v % 32, y = (v % 1024) / 32;
        bounce[v] /= ((x == 0 || x == 31) ? 1 : 2) * ((y == 0 || y == 31) ? 1 : 2);
    }
    std::vector<Float64> picture(static_cast<size_t>(n * n), 0.0);
    for (int py = 0; py < n; ++py)
        for (int px = 0; px < n; ++px) {
            Float64 sum = 0;
            for (int l = 0; l < 4; ++l)
                for (int k = 0; k < 4; ++k) {
                    const Float64 dx = 1.001 / n * (px + k / 4.0 - n / 2), dy = 1.001 / n * (py + l / 4.0 - n / 2);
                    const Float64 len = std::sqrt(dx * dx + dy * dy + 1);
                    const V dir{dx / len, dy / len, 1 / len};
                    Float64 best = 32;
                    int wall = -1;
                    const std::pair<Float64, int> hits[] = {{dir.x ? 1 / std::abs(dir.x) : 0, dir.x > 0 ? 0 : 1},
                                                            {dir.y ? 1 / std::abs(dir.y) : 0, dir.y > 0 ? 2 : 3},
                                                            {4 / dir.z, 4}};
                    for (auto [t, w] : hits)
                        if (t > 0.0001 && t < best) best = t, wall = w;
                    if (wall < 0) continue;
                    const Wall& w = walls[wall];
                    const V hit = V{0, 0, -3} + dir * best;
                    const Float64 ca = (hit.dot(w.a) + 1) * 0.4999 * 31, cb = (hit.dot(w.b) + 1) * 0.4999 * 31;
                    const int ia = std::clamp(static_cast<int>(ca), 0, 30), ib = std::clamp(static_cast<int>(cb), 0, 30);
                    const Float64 fa = ca - ia, fb = cb - ib;
                    const Float64* g = bounce.data() + wall * 1024;
                    const Float64 low = g[ib * 32 + ia] + (g[ib * 32 + ia + 1] - g[ib * 32 + ia]) * fa;
                    const Float64 high = g[(ib + 1) * 32 + ia] + (g[(ib + 1) * 32 + ia + 1] - g[(ib + 1) * 32 + ia]) * fa;
                    sum += direct(hit, w.nrm) + 0.2 * (low + (high - low) * fb);
                }
            picture[static_cast<size_t>(py * n + px)] = sum * 0.0625;
        }
    return picture;
}

TEST(IesPreview, RegionsMatchAnIndependentModel) {
    for (const char* file : {"sym_full.ies", "sym_bilateral.ies"}) {
        Web w;
        ASSERT_TRUE(LoadFile(w.p, Own(file)).IsOk());
        std::vector<Float32> pixels(32 * 32);
        GreyImage32 image{32, 32, 32, pixels.data()};
        ASSERT_TRUE(ies::GeneratePreviewImageRows(
                w.p, image.width, image.height, ArraySetLine(&image), nullptr).IsOk());
        const std::vector<Float64> model = ModelPreview(w.p, 32);
        // Means of 8 x 8 blocks: the ceiling, the walls left and right, the back wall, the floor.
        const std::pair<int, int> blocks[] = {{12, 0}, {0, 12}, {24, 12}, {12, 12}, {12, 24}, {4, 24}};
        for (auto [bx, by] : blocks) {
            Float64 got = 0, want = 0;
            for (int y = by; y < by + 8; ++y)
                for (int x = bx; x < bx + 8; ++x) got += pixels[y * 32 + x], want += model[y * 32 + x];
            EXPECT_GT(want, 0.0) << file;
            EXPECT_LT(RelativeDifference(got, want), 2e-5) << file << " block " << bx << "," << by << ": " << got << " vs " << want;
        }
        // And single pixels, the corners included.
        for (int i : {0, 31, 32 * 31, 32 * 32 - 1, 16 * 32 + 16, 5 * 32 + 27})
            EXPECT_LT(RelativeDifference(pixels[i], model[i]), 1e-4) << file << " pixel " << i;
    }
}

TEST(IesPreview, DelegatesAndProgress) {
    Web w;
    ASSERT_TRUE(LoadFile(w.p, Own("sym_quadrant.ies")).IsOk());
    struct State {
        std::atomic<int> rows{0};
        std::atomic<int> progress{0};
        std::atomic<Float64> last{0};
    } state;
    PreviewSetLine setLine{[](void* u, Int, const Float32*, Int count, const PixelFormatObject*) -> Result<void> {
                               EXPECT_EQ(count, 16);
                               static_cast<State*>(u)->rows++;
                               return OK;
                           },
                           &state};
    PreviewProgress progress{[](void* u, Float64 done) -> Result<void> {
                                 auto* s = static_cast<State*>(u);
                                 s->progress++;
                                 Float64 old = s->last.load();
                                 while (done > old && !s->last.compare_exchange_weak(old, done)) {}
                                 return OK;
                             },
                             &state};
    ASSERT_TRUE(ies::GeneratePreviewImageRows(w.p, 16, 16, setLine, &progress).IsOk());
    EXPECT_EQ(state.rows.load(), 16);
    EXPECT_EQ(state.progress.load(), 16);
    EXPECT_EQ(state.last.load(), 1.0);

    PreviewSetLine failing{[](void*, Int, const Float32*, Int, const PixelFormatObject*) -> Result<void> {
                               return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION, "disk full");
                           },
                           nullptr};
    EXPECT_EQ(MessageOf(ies::GeneratePreviewImageRows(w.p, 16, 16, failing, nullptr)), "disk full");
}

}  // namespace
}  // namespace quorv
