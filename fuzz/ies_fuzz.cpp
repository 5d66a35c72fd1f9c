// Any bytes through the reader of photometric webs; a web that reads is also written, read
// again and queried, so the writer and the query see what the reader lets through.
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "quorv/host/host.h"
#include "render/photometric/ies_impl.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    quorv::host::HostOptions options;
    options.echoCriticalOutput = false;
    quorv::host::Host::Start(options);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace quorv;
    IesImpl* ies = ies::Alloc(QUORV_SOURCE_LOCATION);
    if (!ies) return 0;
    Result<void> r = ies::InitFromText(ies, reinterpret_cast<const char*>(data), static_cast<Int>(size));
    if (r.IsOk()) {
        for (const Vector64& d : {Vector64{0, 0, -1}, Vector64{0, 0, 1}, Vector64{0.6, -0.8, 0},
                                  Vector64{-0.36, 0.48, -0.8}, Vector64{0, 0, 0}}) {
            Float64 v = ies::ComputeLightIntensity(ies, d);
            if (v < 0) std::abort();
        }
        Result<String> text = ies::ConvertToText(ies);
        if (text.IsOk()) {
            std::string utf8 = text.GetValue().ToUtf8();
            IesImpl* again = ies::Alloc(QUORV_SOURCE_LOCATION);
            if (again) {
                Result<void> reread = ies::InitFromText(again, utf8.data(), static_cast<Int>(utf8.size()));
                // Every finite web the reader accepts comes out as text it accepts again
                // ("inf" and "nan" are no numbers to the reader).
                bool finite = true;
                for (const BaseArray<Float64>* a :
                     {&ies->_anglesVertical, &ies->_anglesHorizontal, &ies->_data}) {
                    for (Int i = 0; i < a->GetCount(); ++i) finite = finite && std::isfinite((*a)[i]);
                }
                Vector64 size = ies->_properties.Get<Vector64>(IesPropertySize, Vector64{});
                finite = finite && std::isfinite(size.x) && std::isfinite(size.y) && std::isfinite(size.z);
                if (finite && (reread.IsError() || again->_data.GetCount() != ies->_data.GetCount())) {
                    std::abort();
                }
                ies::Free(again);
            }
        }
    }
    ies::Free(ies);
    return 0;
}
