#pragma once
// The host's media session parts: file byte streams, the base classes of inputs and image
// streams, stream formats and properties, the session.

#include "quorv/host/host.h"
#include "quorv/mediasession.h"

namespace quorv::host {

void RegisterFileByteStreamService(Host& host);
void RegisterMediaSessionService(Host& host);
/// The two registries of formats and handlers and the registry of session classes.
void CreateMediaRegistries();
/// The base classes (input, image stream) and the format and properties classes, in
/// `HOST_CLASS_REGISTRY_ID`; called with the host's other classes.
void RegisterMediaClasses();

}  // namespace quorv::host
