#pragma once
/// IES webs as pictures: a file of this kind opens wherever the host opens a picture, as the grey
/// 512 by 512 preview of the luminaire's light in a room. Four registrations: the file format
/// with its `Detect`, the handler that makes the session's input, the input that reads the web
/// and fills the stream, and the image stream.

#include <string>

#include "quorv/mediasession.h"

namespace quorv {

namespace mediaioies {
inline constexpr const char* STREAM_CLASS_ID =
    "net.quorv.render.class.mediastreamimagelayeriesimport";
inline constexpr const char* INPUT_CLASS_ID = "net.quorv.mediasession.ies.import";
inline constexpr const char* FORMAT_ID = "net.quorv.fileformat.imageies";
inline constexpr const char* HANDLER_ID = "net.quorv.fileformathandler.imageloaderies";
inline constexpr const char* PIXELFORMAT = "net.quorv.image.pixelformat.grey.f32";
inline constexpr Int SIZE = 512;
/// How many bytes `Detect` looks at.
inline constexpr Int DETECT_BYTES = 1024;
}  // namespace mediaioies

/// The data of the stream class.
struct IesStreamData {
    std::string pixelFormat = mediaioies::PIXELFORMAT;
    Int width = mediaioies::SIZE;
    Int height = mediaioies::SIZE;
    Int progressIndex = -1;  ///< the stream's part in the session's progress
};

// clang-format off
#define QUORV_IESSTREAM_METHODS(M) \
    M(IesStreamData*, GetStreamData, (), ())
// clang-format on
/// The stream class's own operation: its data, for the input that fills it.
QUORV_VIRTUAL_INTERFACE(IesStreamInterface, "net.quorv.render.interface.mediastreamiesdata",
                        QUORV_IESSTREAM_METHODS);

}  // namespace quorv
