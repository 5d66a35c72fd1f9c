#pragma once
// The functions behind the slots of "net.quorv.render.interface.ies", for the module's own
// sources and white-box tests, which call them directly.
#include "render/photometric/ies.h"

namespace quorv::ies {

void Free(IesImpl* ies);
IesImpl* Alloc(const SourceLocation& loc);
IesImpl* AllocCopy(const IesImpl* source, const SourceLocation& loc);
Result<void> Init(IesImpl* ies, const UrlObject* url);
Int Compare(const IesImpl* a, const IesImpl* b);
UInt GetHashCode(const IesImpl* ies);
Result<void> DescribeIO(DescribeStreamObject* stream);
Float64 ComputeLightIntensity(const IesImpl* ies, const Vector64& direction);
Float64 GetLightPowerRatio(const IesImpl* ies);
UInt32 GetChecksum(const IesImpl* ies);
const DataDictionary* GetProperties(const IesImpl* ies);
Result<void> GeneratePreviewImage(const IesImpl* ies, ImageObject* image);
Result<String> ConvertToText(const IesImpl* ies);
Result<void> GeneratePreviewImageRows(const IesImpl* ies, Int width, Int height,
                                      const PreviewSetLine& setLine,
                                      const PreviewProgress* progress);
void GetRawAccess(IesImpl* ies, DataDictionary** properties, BaseArray<Float64>** anglesVertical,
                  BaseArray<Float64>** anglesHorizontal, BaseArray<Float64>** data,
                  Float64* dataMax, Float64* dataPower);
void SetRawAccess(IesImpl* ies, DataDictionary* properties, BaseArray<Float64>* anglesVertical,
                  BaseArray<Float64>* anglesHorizontal, BaseArray<Float64>* data, Float64 dataMax,
                  Float64 dataPower);

/// `Init` on text in memory (8-bit, as a file would be), for the fuzzer and tests.
Result<void> InitFromText(IesImpl* ies, const char* text, Int length);
/// The Monte Carlo power ratio of a web, as `Init` computes it.
Float64 ComputeDataPower(const IesImpl* ies);
/// CRC-32C of a web's content, as `Init` and `SetRawAccess` compute it.
UInt32 ComputeChecksum(const IesImpl* ies);
/// CRC-32C (slice by 8) of a byte run, continuing from `crc` (start with 0).
UInt32 Crc32c(UInt32 crc, const void* bytes, Int length);
/// The module-wide empty web; null before the module's data are initialised.
const IesImpl* GetDefaultIes();

}  // namespace quorv::ies
